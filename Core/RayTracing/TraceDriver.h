// The trace driver: orders all GPU work of one RayTracing call in runs, triangle chunks and ray batches.
// It sees the call's arguments and set-up values by reference and returns the first failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "LaunchParams.h"
#include "OptixHolders.h"
#include "RayTracing.h"
#include "RayTracingChecks.h"
#include "ThrustExtra.h"

// Everything one run creates; members are released in reverse order: batch buffers, records, acceleration
// structure buffers, then the OptiX handles from the pipeline down to the context.
struct RunState
{
    RunState(ErrorResult& cRunningResult, cudaStream_t stream, bool bUseMemoryPool);

    ErrorResult& cResult; // the running result; release failures land here
    OptixHolder<OptixDeviceContext_t> context;
    OptixHolder<OptixModule_t> module;
    OptixHolder<OptixProgramGroup_t> raygen_prog_group;
    OptixHolder<OptixProgramGroup_t> miss_prog_group;
    OptixHolder<OptixProgramGroup_t> hitgroup_prog_group;
    OptixHolder<OptixPipeline_t> pipeline;
    DeviceBuffer<char> d_gas_temp;
    DeviceBuffer<char> d_gas_output;
    OptixTraversableHandle gas_handle = 0;
    OptixShaderBindingTable sbt = {};
    DeviceRecord<SbtRecord> d_raygen_record;
    DeviceRecord<SbtRecord> d_miss_record;
    DeviceRecord<SbtRecord> d_hitgroup_record;
    DeviceBuffer<float3> d_ray_origins;
    DeviceBuffer<float3> d_ray_directions;
    DeviceBuffer<float> d_ray_distances;
    DeviceBuffer<unsigned long long> d_ray_count_hits;
    DeviceBuffer<float> d_ray_all_hits;
    DeviceBuffer<std::int32_t> d_ray_first_index;
    DeviceBuffer<float> d_ray_first_hit;
    DeviceBuffer<std::int32_t> d_ray_last_index;
    DeviceBuffer<float> d_ray_last_hit;
};

class TraceDriver
{
public:
    TraceDriver(RayTracingResults& cRayTracingResults, std::uint64_t nTriangles, const float* pTriangles,
                std::uint64_t nRays, const float* pOrigin, const float* pDirection, const float* pDistance,
                int iGpuId, bool bDiagnostics, float fMaxDistance, std::uint64_t nFreeGPUMemory,
                std::deque<std::string>& aLog, CudaStream& cStream, bool bMemoryPoolsSupported, bool bCC75,
                unsigned int uGeometryFlags, bool bAllHits, bool bIndices, bool bFirstHitOnly,
                std::uint64_t nBytesPerRay);

    // {Success, ""} or the first failure; checks that throw leave as exceptions.
    ErrorResult Run();

private:
    ErrorResult RunOnce();
    ErrorResult TraceRun(RunState& run);
    ErrorResult CreatePipeline(RunState& run, std::uint64_t nBudget);
    ErrorResult CreateShaderBindingTable(RunState& run);
    ErrorResult BuildChunkGas(RunState& run, std::size_t iStart, std::size_t iEnd);
    ErrorResult ProcessBatch(RunState& run, std::size_t iBatchStart, std::size_t iBatchEnd,
                             std::size_t iBatch);
    template <typename TParams>
    ErrorResult LaunchBatch(RunState& run, TParams& params, const char* sLaunchName, std::size_t nProcessRays,
                            std::size_t iBatch, SbtRecord& raygen_record);

    // The call's arguments and set-up values.
    RayTracingResults& cRayTracingResults;
    const std::uint64_t nTriangles;
    const float* const pTriangles;
    const std::uint64_t nRays;
    const float* const pOrigin;
    const float* const pDirection;
    const float* const pDistance;
    const int iGpuId;
    const bool bDiagnostics;
    const float fMaxDistance;
    const std::uint64_t nFreeGPUMemory;
    std::deque<std::string>& aLog;
    CudaStream& cStream;
    const bool bMemoryPoolsSupported;
    const bool bCC75;
    unsigned int uGeometryFlags;
    const bool bAllHits;
    const bool bIndices;
    const bool bFirstHitOnly;
    const std::uint64_t nBytesPerRay;

    // State of the call, across runs.
    std::uint8_t iRun = 0;
    std::uint64_t nStackBytes = 0;
    bool bStackEstimated = false;
    unsigned int aStackSizesEstimated[3] = {0, 0, 0};
    std::size_t nTrianglesPerChunk = 0;
    std::size_t nGasBytes = 0;
    std::uint64_t nRaysPerBatch = 0;

    // State of the current run.
    bool bMerge = false;
    bool bChunked = false;
    bool bSortOnDevice = false;
    std::uint64_t nTotalHits = 0;
    std::vector<std::uint64_t> aBatchBounds;
    std::vector<std::uint64_t> aStarts;
};
