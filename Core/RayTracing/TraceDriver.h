// The trace driver: orders all GPU work of one request in runs, triangle chunks and ray batches. It works
// for the stateless entry point, which creates everything per run, and for a persistent scene, which lends
// its context, its pipelines and the acceleration structures it keeps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "DeviceSetup.h"
#include "LaunchParams.h"
#include "OptixHolders.h"
#include "ProgramPipeline.h"
#include "RayTracing.h"
#include "RayTracingChecks.h"
#include "RequestMode.h"
#include "ThrustExtra.h"

class SceneState;
struct KeptAccel;

// One request's arguments.
struct TraceRequest
{
    RayTracingResults& cRayTracingResults;
    std::uint64_t nTriangles;
    const float* pTriangles;
    std::uint64_t nRays;
    const float* pOrigin;
    const float* pDirection;
    const float* pDistance;
    float fMaxDistance;
    RequestMode cMode;
};

// Everything one run creates or borrows; members are released in reverse order: batch buffers, records,
// acceleration structure buffers, then the run's own OptiX handles from the pipeline down to the context.
struct RunState
{
    RunState(ErrorResult& cRunningResult, cudaStream_t stream, bool bUseMemoryPool);

    ErrorResult& cResult; // the running result; release failures land here
    OptixHolder<OptixDeviceContext_t> context;
    ProgramPipeline programs;
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

    // What the run traces with: its own context and pipeline, or a scene's.
    const OptixHolder<OptixDeviceContext_t>* pContext = &context;
    ProgramPipeline* pPrograms = &programs;
    const StackEstimate* pStack = nullptr;
};

class TraceDriver
{
public:
    // pScene null: everything is created per run and released at its end.
    TraceDriver(const TraceRequest& cRequest, const DeviceBudget& cBudget, int iGpuId, bool bDiagnostics,
                std::deque<std::string>& aLog, CudaStream& cStream, SceneState* pScene);

    // {Success, ""} or the first failure; checks that throw leave as exceptions.
    ErrorResult Run();

    // Whether the request ran on structures its scene keeps.
    bool TracedKeptStructures() const { return pKeptAccel != nullptr; }

private:
    ErrorResult RunOnce();
    ErrorResult TraceRun(RunState& run);
    ErrorResult CreateRunObjects(RunState& run, std::uint64_t nBudget);
    ErrorResult BorrowSceneObjects(RunState& run, std::uint64_t nBudget);
    ErrorResult SizeTriangleChunks(RunState& run, std::uint64_t nBudget);
    ErrorResult CreateShaderBindingTable(RunState& run);
    ErrorResult ProcessBatch(RunState& run, std::size_t iBatchStart, std::size_t iBatchEnd,
                             std::size_t iBatch);
    template <typename TParams>
    ErrorResult LaunchBatch(RunState& run, TParams& params, const char* sLaunchName, std::size_t nProcessRays,
                            std::size_t iBatch, SbtRecord& raygen_record);

    // The request's arguments and set-up values.
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
    SceneState* const pScene;

    // State of the request, across runs.
    std::uint8_t iRun = 0;
    StackEstimate cStack;
    std::size_t nTrianglesPerChunk = 0;
    std::size_t nGasBytes = 0;
    std::uint64_t nRaysPerBatch = 0;
    const KeptAccel* pKeptAccel =
        nullptr; // the scene's structures of this request's chunks, if it keeps them

    // State of the current run.
    bool bMerge = false;
    bool bChunked = false;
    bool bSortOnDevice = false;
    std::uint64_t nTotalHits = 0;
    std::vector<std::uint64_t> aBatchBounds;
    std::vector<std::uint64_t> aStarts;
};
