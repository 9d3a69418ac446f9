// Control interface of the OptiX driver stand-in, exported by libRayTracingCpuOptix.so next to
// optixQueryFunctionTable. libRayTracingCpu.so reaches it with dlsym to forward its configuration.
#pragma once

#include <cstdint>

struct OptixStandInControl
{
    void (*SetMaxPrimitivesPerGas)(std::uint32_t nMax);
    void (*SetThreads)(int nThreads); // 0 = all cores
    // nCall-th call (1 = next) of the named entry ("optixLaunch", "optixQueryFunctionTable", ...) fails with nCode.
    void (*InjectFault)(const char* sFunction, std::uint64_t nCall, int nCode);
    void (*ClearFaults)();
    std::uint64_t (*CallCount)(const char* sFunction);
    void (*ResetCallCounts)();
    std::uint64_t (*LiveObjects)();
};

extern "C" const OptixStandInControl* RayTracingCpuOptixControl();
