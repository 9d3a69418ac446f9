// One device-program module compiled into a pipeline: module, program groups and pipeline with its stack.
#pragma once

#include <cstdint>

#include "OptixHolders.h"
#include "RayTracingChecks.h"

// Released pipeline first, module last; release failures are recorded in the running result given at
// construction.
struct ProgramPipeline
{
    explicit ProgramPipeline(ErrorResult& cRunningResult);

    OptixHolder<OptixModule_t> module;
    OptixHolder<OptixProgramGroup_t> raygen_prog_group;
    OptixHolder<OptixProgramGroup_t> miss_prog_group;
    OptixHolder<OptixProgramGroup_t> hitgroup_prog_group;
    OptixHolder<OptixPipeline_t> pipeline;
};

// The launch stack's device memory, estimated again only when a pipeline's stack sizes change.
struct StackEstimate
{
    bool bEstimated = false;
    unsigned int aStackSizes[3] = {0, 0, 0};
    std::uint64_t nStackBytes = 0;
};

// Which of the six modules a run traces with.
struct ModuleChoice
{
    bool bAllHits = false;
    bool bIndices = false;
    bool bFirstHitOnly = false;
    std::uint8_t iRun = 0; // all hits: 0 counts, 1 collects

    int Index() const { return bAllHits ? iRun : 2 + (bIndices ? 0 : 2) + (bFirstHitOnly ? 0 : 1); }
};

// Compiles the chosen module and builds its program groups and pipeline into cTarget, then sizes its stack
// against nBudget. Failures of the compile steps throw their check message; the others are returned (and
// recorded in cRunningResult).
ErrorResult CreatePipeline(ProgramPipeline& cTarget, ErrorResult& cRunningResult,
                           const OptixHolder<OptixDeviceContext_t>& context, const ModuleChoice& cModule,
                           int iGpuId, std::uint64_t nBudget, StackEstimate& cStack);
