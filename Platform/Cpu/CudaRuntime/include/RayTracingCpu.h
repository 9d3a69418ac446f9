// Configuration of the CPU flavour's stand-in platform (libRayTracingCpu.so only).
// Values start from the RAYTRACING_CPU_* environment variables (read when first needed) and host defaults;
// tests change them at run time and make any stand-in call fail on demand.
#pragma once

#include <cstdint>
#include <string>

#if defined(_WIN32)
#define RAYTRACING_CPU_API __declspec(dllexport)
#else
#define RAYTRACING_CPU_API __attribute__((visibility("default")))
#endif

namespace RayTracingCpu
{
struct DeviceConfig
{
    std::uint64_t nTotalMemory = 0;           // RAYTRACING_CPU_TOTAL_MEMORY (default: physical memory)
    std::uint64_t nFreeMemory = 0;            // RAYTRACING_CPU_FREE_MEMORY (default: available memory)
    int iComputeCapability = 86;              // RAYTRACING_CPU_COMPUTE_CAPABILITY, major * 10 + minor
    bool bMemoryPools = true;                 // RAYTRACING_CPU_MEMORY_POOLS
    int nMultiprocessors = 0;                 // RAYTRACING_CPU_MULTIPROCESSORS (default: 1 per core)
    int nThreadsPerMultiprocessor = 1536;     // RAYTRACING_CPU_THREADS_PER_MULTIPROCESSOR
    int nThreads = 0;                         // RAYTRACING_CPU_THREADS worker threads (default: all cores)
    std::uint32_t nMaxPrimitivesPerGas = 1u << 29; // RAYTRACING_CPU_MAX_PRIMITIVES_PER_GAS
    bool bDeferStreams = false;               // RAYTRACING_CPU_DEFER_STREAMS: stream work runs only at a sync
};

// The configuration now in force (environment and defaults on first use).
RAYTRACING_CPU_API DeviceConfig GetConfig();
// Replace it; the stand-in driver is told the values it needs. Live allocations are kept.
RAYTRACING_CPU_API void SetConfig(const DeviceConfig& cConfig);
// Back to the environment and host defaults; also clears injected faults.
RAYTRACING_CPU_API void ResetConfig();

// Make the nCall-th call (1 = the next one) of sFunction from now on fail with nCode (a cudaError_t for
// "cuda*" names, an OptixResult for "optix*" names). Names are the API names, e.g. "cudaMallocAsync",
// "cudaMemcpyAsync", "cudaStreamCreate", "optixLaunch", "optixModuleCreate", "optixPipelineDestroy".
// "optixQueryFunctionTable" makes the driver refuse the table (e.g. 7801 for an unsupported ABI).
RAYTRACING_CPU_API void InjectFault(const std::string& sFunction, std::uint64_t nCall, int nCode);
RAYTRACING_CPU_API void ClearFaults();
// Calls of sFunction since the last ResetConfig/ResetCallCounts.
RAYTRACING_CPU_API std::uint64_t CallCount(const std::string& sFunction);
RAYTRACING_CPU_API void ResetCallCounts();

// Bytes of stand-in device memory allocated and not yet released (leak checks).
RAYTRACING_CPU_API std::uint64_t LiveDeviceBytes();
// Stand-in OptiX objects (contexts, modules, groups, pipelines) created and not yet destroyed.
RAYTRACING_CPU_API std::uint64_t LiveOptixObjects();

// The OptiX library the loader opens: "" = the stand-in driver next to libRayTracingCpu.so
// (or RAYTRACING_CPU_OPTIX_LIBRARY). Any other path or name is passed to dlopen as it is.
RAYTRACING_CPU_API void SetOptixLibrary(const std::string& sPath);
RAYTRACING_CPU_API std::string GetOptixLibrary();
} // namespace RayTracingCpu
