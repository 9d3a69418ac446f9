#include "ProgramPipeline.h"

#include <cstring>

#include "OptixPrograms.h"

namespace
{
constexpr std::size_t c_nLogCapacity = 65536;
}

ProgramPipeline::ProgramPipeline(ErrorResult& cRunningResult)
    : module(
          MakeOptixHolder<OptixModule_t>(cRunningResult, optixModuleDestroy, "optixModuleDestroy(module)")),
      raygen_prog_group(MakeOptixHolder<OptixProgramGroup_t>(cRunningResult, optixProgramGroupDestroy,
                                                             "optixProgramGroupDestroy(raygen_prog_group)")),
      miss_prog_group(MakeOptixHolder<OptixProgramGroup_t>(cRunningResult, optixProgramGroupDestroy,
                                                           "optixProgramGroupDestroy(miss_prog_group)")),
      hitgroup_prog_group(MakeOptixHolder<OptixProgramGroup_t>(
          cRunningResult, optixProgramGroupDestroy, "optixProgramGroupDestroy(hitgroup_prog_group)")),
      pipeline(MakeOptixHolder<OptixPipeline_t>(cRunningResult, optixPipelineDestroy,
                                                "optixPipelineDestroy(pipeline)"))
{
}

ErrorResult CreatePipeline(ProgramPipeline& cTarget, ErrorResult& cRunningResult,
                           const OptixHolder<OptixDeviceContext_t>& context, const ModuleChoice& cModule,
                           int iGpuId, std::uint64_t nBudget, StackEstimate& cStack)
{
    // The names the call texts of the checks quote.
    const bool bAllHits = cModule.bAllHits;
    const bool bIndices = cModule.bIndices;
    const bool bFirstHitOnly = cModule.bFirstHitOnly;
    const std::uint8_t iRun = cModule.iRun;
    char LOG[c_nLogCapacity];
    size_t LOG_SIZE = sizeof(LOG);

    OptixModuleCompileOptions module_compile_options = {};
    OptixPipelineCompileOptions pipeline_compile_options = {};
    pipeline_compile_options.usesMotionBlur = 0;
    pipeline_compile_options.traversableGraphFlags = OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_GAS;
    pipeline_compile_options.numPayloadValues = bAllHits ? 2 : (bFirstHitOnly ? 1 : 2) << (bIndices ? 1 : 0);
    pipeline_compile_options.numAttributeValues = 2;
    pipeline_compile_options.exceptionFlags = OPTIX_EXCEPTION_FLAG_NONE;
    pipeline_compile_options.pipelineLaunchParamsVariableName = nullptr;
    pipeline_compile_options.usesPrimitiveTypeFlags = OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE;

    const char* sModuleText = bAllHits
                                  ? iRun == (uint8_t)0 ? c_sOptixTriangleCountHits2 : c_sOptixTriangleAllHits2
                              : bIndices ? bFirstHitOnly ? c_sOptixTriangleOneHit2 : c_sOptixTriangleTwoHits4
                              : bFirstHitOnly ? c_sOptixTriangleOneHitDistance1
                                              : c_sOptixTriangleTwoHitsDistance2;
    const char* sRaygenName = bAllHits ? iRun == (uint8_t)0 ? "__raygen__rgCountHits" : "__raygen__rgAllHits"
                              : bIndices      ? bFirstHitOnly ? "__raygen__rgFirst" : "__raygen__rgFirstLast"
                              : bFirstHitOnly ? "__raygen__rgFirstDistance"
                                              : "__raygen__rgFirstLastDistance";
    const size_t inputSize = std::strlen(sModuleText);

    OptixModule module_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixModuleCreate( context.get(), &module_compile_options, &pipeline_compile_options, bAllHits ? iRun == (uint8_t)0 ? c_sOptixTriangleCountHits2 : c_sOptixTriangleAllHits2 : bIndices ? bFirstHitOnly ? c_sOptixTriangleOneHit2 : c_sOptixTriangleTwoHits4 : bFirstHitOnly ? c_sOptixTriangleOneHitDistance1 : c_sOptixTriangleTwoHitsDistance2, inputSize, LOG, &LOG_SIZE, &module_raw));
    // clang-format on
    cTarget.module.reset(module_raw);

    OptixProgramGroupOptions program_group_options = {};
    OptixProgramGroupDesc raygen_prog_group_desc;
    std::memset(&raygen_prog_group_desc, 0, sizeof(raygen_prog_group_desc));
    raygen_prog_group_desc.kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    raygen_prog_group_desc.flags = OPTIX_PROGRAM_GROUP_FLAGS_NONE;
    raygen_prog_group_desc.raygen.module = cTarget.module.get();
    raygen_prog_group_desc.raygen.entryFunctionName = sRaygenName;
    OptixProgramGroup raygen_prog_group_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixProgramGroupCreate( context.get(), &raygen_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &raygen_prog_group_raw ));
    // clang-format on
    cTarget.raygen_prog_group.reset(raygen_prog_group_raw);

    OptixProgramGroupDesc miss_prog_group_desc;
    std::memset(&miss_prog_group_desc, 0, sizeof(miss_prog_group_desc));
    miss_prog_group_desc.kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
    miss_prog_group_desc.flags = OPTIX_PROGRAM_GROUP_FLAGS_NONE;
    miss_prog_group_desc.miss.module = cTarget.module.get();
    miss_prog_group_desc.miss.entryFunctionName = "__miss__ms";
    OptixProgramGroup miss_prog_group_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixProgramGroupCreate( context.get(), &miss_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &miss_prog_group_raw ));
    // clang-format on
    cTarget.miss_prog_group.reset(miss_prog_group_raw);

    // Only the nearest-only modes use the traversal's closest hit; the others see every hit in any-hit.
    // The descriptors are unions: memset, because "= {}" promises zeros only in the first member.
    OptixProgramGroupDesc hitgroup_prog_group_desc;
    std::memset(&hitgroup_prog_group_desc, 0, sizeof(hitgroup_prog_group_desc));
    hitgroup_prog_group_desc.kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
    hitgroup_prog_group_desc.flags = OPTIX_PROGRAM_GROUP_FLAGS_NONE;
    if (!bAllHits && bFirstHitOnly)
    {
        hitgroup_prog_group_desc.hitgroup.moduleCH = cTarget.module.get();
        hitgroup_prog_group_desc.hitgroup.entryFunctionNameCH = "__closesthit__ch";
    }
    else
    {
        hitgroup_prog_group_desc.hitgroup.moduleAH = cTarget.module.get();
        hitgroup_prog_group_desc.hitgroup.entryFunctionNameAH = "__anyhit__ah";
    }
    OptixProgramGroup hitgroup_prog_group_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixProgramGroupCreate( context.get(), &hitgroup_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &hitgroup_prog_group_raw ));
    // clang-format on
    cTarget.hitgroup_prog_group.reset(hitgroup_prog_group_raw);

    OptixPipelineLinkOptions pipeline_link_options = {};
    pipeline_link_options.maxTraceDepth = 2;
    OptixProgramGroup program_groups[] = {cTarget.raygen_prog_group.get(), cTarget.miss_prog_group.get(),
                                          cTarget.hitgroup_prog_group.get()};
    OptixPipeline pipeline_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixPipelineCreate( context.get(), &pipeline_compile_options, &pipeline_link_options, program_groups, _countof(program_groups), LOG, &LOG_SIZE, &pipeline_raw ));
    // clang-format on
    cTarget.pipeline.reset(pipeline_raw);

    OptixStackSizes stack_sizes = {};
    for (OptixProgramGroup group : program_groups)
    {
        cRunningResult =
            MakeOptixError(optixUtilAccumulateStackSizes(group, &stack_sizes, cTarget.pipeline.get()),
                           "optixUtilAccumulateStackSizes");
        if (cRunningResult.first != Success)
            return cRunningResult;
    }
    unsigned int nDirectCallableStackSizeFromTraversal = 0;
    unsigned int nDirectCallableStackSizeFromState = 0;
    unsigned int nContinuationStackSize = 0;
    cRunningResult = MakeOptixError(
        optixUtilComputeStackSizes(&stack_sizes, 2, 0, 0, &nDirectCallableStackSizeFromTraversal,
                                   &nDirectCallableStackSizeFromState, &nContinuationStackSize),
        "optixUtilComputeStackSizes");
    if (cRunningResult.first != Success)
        return cRunningResult;

    // One rounded continuation stack for every thread the GPU holds at once; estimated again only when the
    // sizes changed since the last estimate.
    const unsigned int aStackSizes[3] = {nDirectCallableStackSizeFromTraversal,
                                         nDirectCallableStackSizeFromState, nContinuationStackSize};
    if (!cStack.bEstimated || std::memcmp(aStackSizes, cStack.aStackSizes, sizeof(aStackSizes)) != 0)
    {
        cudaDeviceProp prop;
        int nMaxThreadsPerMultiProcessor = 0;
        // clang-format off
        CHECK_CUDA(cudaGetDeviceProperties(&prop, iGpuId));
        CHECK_CUDA(cudaDeviceGetAttribute(&nMaxThreadsPerMultiProcessor, cudaDevAttrMaxThreadsPerMultiProcessor, iGpuId));
        // clang-format on
        const unsigned int nRoundedStack = (nContinuationStackSize + 255u) & ~255u;
        cStack.nStackBytes = static_cast<std::uint64_t>(nRoundedStack) *
                             static_cast<std::uint64_t>(prop.multiProcessorCount) *
                             static_cast<std::uint64_t>(nMaxThreadsPerMultiProcessor);
        if (nBudget <= cStack.nStackBytes)
            return {OutOfMemory, "Not enough free GPU memory."};
        std::memcpy(cStack.aStackSizes, aStackSizes, sizeof(aStackSizes));
        cStack.bEstimated = true;
    }

    cRunningResult = MakeOptixError(
        optixPipelineSetStackSize(cTarget.pipeline.get(), nDirectCallableStackSizeFromTraversal,
                                  nDirectCallableStackSizeFromState, nContinuationStackSize, 1),
        "optixPipelineSetStackSize");
    return cRunningResult;
}
