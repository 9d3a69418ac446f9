// What a persistent scene keeps between its traces, and the rule by which it keeps acceleration structures.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DeviceSetup.h"
#include "OptixHolders.h"
#include "ProgramPipeline.h"
#include "ThrustExtra.h"

struct KeptPipeline
{
    KeptPipeline() : programs(cReleaseResult) {}

    ErrorResult cReleaseResult =
        SuccessResult(); // where the holders record a failed release; nobody reads it
    ProgramPipeline programs;
    StackEstimate cStack;
};

struct KeptChunk
{
    KeptChunk(cudaStream_t stream, bool bUseMemoryPool) : d_gas_output(stream, bUseMemoryPool) {}

    DeviceBuffer<char> d_gas_output;
    OptixTraversableHandle gas_handle = 0;
};

// The acceleration structures of all triangle chunks, built with one set of geometry flags.
struct KeptAccel
{
    unsigned int uGeometryFlags = 0;
    std::size_t nTrianglesPerChunk = 0;
    std::vector<std::unique_ptr<KeptChunk>> aChunks;
    std::uint64_t nBytes = 0;
};

// Members are released in reverse order: kept structures, pipelines, context, then the stream they were
// bound to.
class SceneState
{
public:
    SceneState(std::uint64_t nTriangles, const float* pTriangles, int iGpuId, bool bDiagnostics);

    // Device set-up, stream and context; a zero-triangle scene touches no device.
    ErrorResult Prepare(std::uint64_t nFreeGPUMemory);

    // For the trace driver; nBudget is the budget left after the request's pipeline stack.
    const OptixHolder<OptixDeviceContext_t>& Context() const { return context; }
    ErrorResult FindOrCreatePipeline(const ModuleChoice& cModule, std::uint64_t nBudget,
                                     KeptPipeline*& pPipeline);
    // The kept structures for uGeometryFlags, built now when they fit; null when they do not.
    ErrorResult PrepareKeptAccel(unsigned int uGeometryFlags, std::uint64_t nBudget,
                                 const KeptAccel*& pAccel);
    std::uint64_t KeptBytes() const;
    void ReleaseKeptAccels() { aAccels.clear(); }

    const std::uint64_t nTriangles;
    const std::vector<float> aTriangles; // the host copy, for structures built per trace or on first use
    const int iGpuId;
    const bool bDiagnostics;
    DeviceBudget cBudget;
    std::deque<std::string> aLog; // the context's log lines, handed to the call that produced them
    std::mutex mutex;             // one call at a time
    bool bLastTraceKept = false;

    ErrorResult cReleaseResult = SuccessResult(); // as in KeptPipeline
    std::unique_ptr<CudaStream> pStream;
    OptixHolder<OptixDeviceContext_t> context;
    std::array<std::unique_ptr<KeptPipeline>, 6> aPipelines;
    std::vector<std::unique_ptr<KeptAccel>> aAccels;
};
