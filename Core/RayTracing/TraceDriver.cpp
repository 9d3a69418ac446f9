#include "TraceDriver.h"

#include <cstring>

#include "BatchPlanning.h"
#include "OptixPrograms.h"
#include "TriangleChunks.h"

namespace
{
constexpr std::size_t c_nLogCapacity = 65536;
}

RunState::RunState(ErrorResult& cRunningResult, cudaStream_t stream, bool bUseMemoryPool)
    : cResult(cRunningResult),
      context(MakeOptixHolder<OptixDeviceContext_t>(cRunningResult, optixDeviceContextDestroy,
                                                    "optixDeviceContextDestroy(context)")),
      module(
          MakeOptixHolder<OptixModule_t>(cRunningResult, optixModuleDestroy, "optixModuleDestroy(module)")),
      raygen_prog_group(MakeOptixHolder<OptixProgramGroup_t>(cRunningResult, optixProgramGroupDestroy,
                                                             "optixProgramGroupDestroy(raygen_prog_group)")),
      miss_prog_group(MakeOptixHolder<OptixProgramGroup_t>(cRunningResult, optixProgramGroupDestroy,
                                                           "optixProgramGroupDestroy(miss_prog_group)")),
      hitgroup_prog_group(MakeOptixHolder<OptixProgramGroup_t>(
          cRunningResult, optixProgramGroupDestroy, "optixProgramGroupDestroy(hitgroup_prog_group)")),
      pipeline(MakeOptixHolder<OptixPipeline_t>(cRunningResult, optixPipelineDestroy,
                                                "optixPipelineDestroy(pipeline)")),
      d_gas_temp(stream, bUseMemoryPool), d_gas_output(stream, bUseMemoryPool),
      d_ray_origins(stream, bUseMemoryPool), d_ray_directions(stream, bUseMemoryPool),
      d_ray_distances(stream, bUseMemoryPool), d_ray_count_hits(stream, bUseMemoryPool),
      d_ray_all_hits(stream, bUseMemoryPool), d_ray_first_index(stream, bUseMemoryPool),
      d_ray_first_hit(stream, bUseMemoryPool), d_ray_last_index(stream, bUseMemoryPool),
      d_ray_last_hit(stream, bUseMemoryPool)
{
}

TraceDriver::TraceDriver(RayTracingResults& cRayTracingResults, std::uint64_t nTriangles,
                         const float* pTriangles, std::uint64_t nRays, const float* pOrigin,
                         const float* pDirection, const float* pDistance, int iGpuId, bool bDiagnostics,
                         float fMaxDistance, std::uint64_t nFreeGPUMemory, std::deque<std::string>& aLog,
                         CudaStream& cStream, bool bMemoryPoolsSupported, bool bCC75,
                         unsigned int uGeometryFlags, bool bAllHits, bool bIndices, bool bFirstHitOnly,
                         std::uint64_t nBytesPerRay)
    : cRayTracingResults(cRayTracingResults), nTriangles(nTriangles), pTriangles(pTriangles), nRays(nRays),
      pOrigin(pOrigin), pDirection(pDirection), pDistance(pDistance), iGpuId(iGpuId),
      bDiagnostics(bDiagnostics), fMaxDistance(fMaxDistance), nFreeGPUMemory(nFreeGPUMemory), aLog(aLog),
      cStream(cStream), bMemoryPoolsSupported(bMemoryPoolsSupported), bCC75(bCC75),
      uGeometryFlags(uGeometryFlags), bAllHits(bAllHits), bIndices(bIndices), bFirstHitOnly(bFirstHitOnly),
      nBytesPerRay(nBytesPerRay)
{
}

ErrorResult TraceDriver::Run()
{
    const ErrorResult cInit = MakeOptixError(optixInit(), "optixInit");
    if (cInit.first != Success)
        return cInit;
    const std::uint8_t nRuns = 1 + (cRayTracingResults.bCollectAllHits ? 1 : 0);
    for (iRun = 0; iRun < nRuns; ++iRun)
    {
        const ErrorResult cRunResult = RunOnce();
        if (cRunResult.first != Success)
            return cRunResult; // no second run after a failure
    }
    return SuccessResult();
}

ErrorResult TraceDriver::RunOnce()
{
    // Declared before the run's objects, so their deleters can still record into it while they go.
    ErrorResult cRunningResult = SuccessResult();
    ErrorResult cReturn;
    {
        RunState run(cRunningResult, cStream.GetStream(), bMemoryPoolsSupported);
        cReturn = TraceRun(run);
    }
    if (cReturn.first != Success)
        return cReturn;
    return cRunningResult;
}

ErrorResult TraceDriver::TraceRun(RunState& run)
{
    std::uint64_t nBudget = nFreeGPUMemory;

    // Device context; with diagnostics its fatal messages go to aLog.
    {
        OptixDeviceContext context_raw = nullptr;
        if (bDiagnostics)
        {
            OptixDeviceContextOptions options = {};
            options.logCallbackFunction = &ContextLogCallback;
            options.logCallbackData = &aLog;
            options.logCallbackLevel = 1;
            options.validationMode = OPTIX_DEVICE_CONTEXT_VALIDATION_MODE_OFF;
            run.cResult = MakeOptixError(optixDeviceContextCreate(0, &options, &context_raw),
                                         "optixDeviceContextCreateWithDiagnostics");
        }
        else
            run.cResult = MakeOptixError(optixDeviceContextCreate(0, nullptr, &context_raw),
                                         "optixDeviceContextCreate");
        if (run.cResult.first != Success)
            return run.cResult;
        run.context.reset(context_raw);
    }

    ErrorResult cResult = CreatePipeline(run, nBudget);
    if (cResult.first != Success)
        return cResult;

    nBudget -= nStackBytes;
    if (nBudget < nBytesPerRay * c_nMinimumRaysPerBatch)
        return {OutOfMemory, "Not enough free GPU memory for ray buffers."};

    if (iRun == 0)
    {
        OptixAccelBuildOptions accel_options = {};
        accel_options.buildFlags = OPTIX_BUILD_FLAG_NONE;
        accel_options.operation = OPTIX_BUILD_OPERATION_BUILD;
        const auto cChunk = FindTriangleChunkSize(
            run.context.get(), nTriangles, nBudget - (nBytesPerRay << 20), uGeometryFlags, accel_options);
        nTrianglesPerChunk = cChunk.first;
        nGasBytes = cChunk.second;
        if (nTrianglesPerChunk == 0)
            return {OutOfMemory, "Not enough free GPU memory for any triangle chunk."};
    }
    // Run 1 keeps run 0's chunks; should its pipeline need much more stack, nothing is left for rays rather
    // than a wrapped-around budget.
    nBudget = nBudget > nGasBytes ? nBudget - nGasBytes : 0;
    if (iRun == 0)
        nRaysPerBatch = ComputeRaysPerBatch(nRays, nBudget, nBytesPerRay);

    cResult = CreateShaderBindingTable(run);
    if (cResult.first != Success)
        return cResult;

    bChunked = nTrianglesPerChunk < nTriangles;
    bSortOnDevice = iRun == 1 && !bChunked && bCC75;

    if (iRun == 1)
    {
        cRayTracingResults.cAllHits.resize(cRayTracingResults.pCountHits[nRays]);
        aBatchBounds =
            ComputeBatchBounds(cRayTracingResults.pCountHits, nRays, bSortOnDevice, nBytesPerRay, nBudget);
        if (aBatchBounds.empty())
            return {OutOfMemory, "Not enough free GPU memory for ray buffers."};
        aStarts.assign(aBatchBounds.size(), 0);
        for (std::size_t k = 1; k < aBatchBounds.size(); ++k)
            aStarts[k] = cRayTracingResults.pCountHits[aBatchBounds[k] - 1];
    }

    bMerge = false;
    nTotalHits = 0;
    for (std::size_t iStart = 0; iStart < nTriangles;)
    {
        const std::size_t iEnd = std::min<std::size_t>(iStart + nTrianglesPerChunk, nTriangles);
        cResult = BuildChunkGas(run, iStart, iEnd);
        if (cResult.first != Success)
            return cResult;
        if (iRun == 0)
        {
            const std::uint64_t nBatches = (nRays + nRaysPerBatch - 1) / nRaysPerBatch;
            for (std::uint64_t b = 0; b < nBatches; ++b)
            {
                const std::uint64_t iBatchStart = b * nRaysPerBatch;
                const std::uint64_t iBatchEnd = std::min(iBatchStart + nRaysPerBatch, nRays);
                cResult = ProcessBatch(run, iBatchStart, iBatchEnd, SIZE_MAX);
                if (cResult.first != Success)
                    return cResult;
            }
        }
        else
        {
            for (std::size_t k = 1; k < aBatchBounds.size(); ++k)
            {
                cResult = ProcessBatch(run, aBatchBounds[k - 1], aBatchBounds[k], k);
                if (cResult.first != Success)
                    return cResult;
            }
        }
        iStart = iEnd;
        bMerge = true;
    }

    if (iRun == 0 && cRayTracingResults.bCollectAllHits)
    {
        std::uint64_t* pCountHits = cRayTracingResults.pCountHits;
        if (bChunked)
        {
            for (std::uint64_t i = 1; i < nRays; ++i)
                pCountHits[i] += pCountHits[i - 1];
            pCountHits[nRays] = pCountHits[nRays - 1];
        }
        else
            pCountHits[nRays] = nTotalHits; // the batch pass wrote running sums already
    }
    else if (iRun == 1 && !bSortOnDevice)
        SortHitsOnHost(nRays, cRayTracingResults);
    return SuccessResult();
}

ErrorResult TraceDriver::CreatePipeline(RunState& run, std::uint64_t nBudget)
{
    auto& context = run.context;
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
    run.module.reset(module_raw);

    OptixProgramGroupOptions program_group_options = {};
    OptixProgramGroupDesc raygen_prog_group_desc;
    std::memset(&raygen_prog_group_desc, 0, sizeof(raygen_prog_group_desc));
    raygen_prog_group_desc.kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    raygen_prog_group_desc.flags = OPTIX_PROGRAM_GROUP_FLAGS_NONE;
    raygen_prog_group_desc.raygen.module = run.module.get();
    raygen_prog_group_desc.raygen.entryFunctionName = sRaygenName;
    OptixProgramGroup raygen_prog_group_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixProgramGroupCreate( context.get(), &raygen_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &raygen_prog_group_raw ));
    // clang-format on
    run.raygen_prog_group.reset(raygen_prog_group_raw);

    OptixProgramGroupDesc miss_prog_group_desc;
    std::memset(&miss_prog_group_desc, 0, sizeof(miss_prog_group_desc));
    miss_prog_group_desc.kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
    miss_prog_group_desc.flags = OPTIX_PROGRAM_GROUP_FLAGS_NONE;
    miss_prog_group_desc.miss.module = run.module.get();
    miss_prog_group_desc.miss.entryFunctionName = "__miss__ms";
    OptixProgramGroup miss_prog_group_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixProgramGroupCreate( context.get(), &miss_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &miss_prog_group_raw ));
    // clang-format on
    run.miss_prog_group.reset(miss_prog_group_raw);

    // Only the nearest-only modes use the traversal's closest hit; the others see every hit in any-hit.
    // The descriptors are unions: memset, because "= {}" promises zeros only in the first member.
    OptixProgramGroupDesc hitgroup_prog_group_desc;
    std::memset(&hitgroup_prog_group_desc, 0, sizeof(hitgroup_prog_group_desc));
    hitgroup_prog_group_desc.kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
    hitgroup_prog_group_desc.flags = OPTIX_PROGRAM_GROUP_FLAGS_NONE;
    if (!bAllHits && bFirstHitOnly)
    {
        hitgroup_prog_group_desc.hitgroup.moduleCH = run.module.get();
        hitgroup_prog_group_desc.hitgroup.entryFunctionNameCH = "__closesthit__ch";
    }
    else
    {
        hitgroup_prog_group_desc.hitgroup.moduleAH = run.module.get();
        hitgroup_prog_group_desc.hitgroup.entryFunctionNameAH = "__anyhit__ah";
    }
    OptixProgramGroup hitgroup_prog_group_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixProgramGroupCreate( context.get(), &hitgroup_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &hitgroup_prog_group_raw ));
    // clang-format on
    run.hitgroup_prog_group.reset(hitgroup_prog_group_raw);

    OptixPipelineLinkOptions pipeline_link_options = {};
    pipeline_link_options.maxTraceDepth = 2;
    OptixProgramGroup program_groups[] = {run.raygen_prog_group.get(), run.miss_prog_group.get(),
                                          run.hitgroup_prog_group.get()};
    OptixPipeline pipeline_raw = nullptr;
    // clang-format off
    CHECK_OPTIX_LOG(optixPipelineCreate( context.get(), &pipeline_compile_options, &pipeline_link_options, program_groups, _countof(program_groups), LOG, &LOG_SIZE, &pipeline_raw ));
    // clang-format on
    run.pipeline.reset(pipeline_raw);

    OptixStackSizes stack_sizes = {};
    for (OptixProgramGroup group : program_groups)
    {
        run.cResult = MakeOptixError(optixUtilAccumulateStackSizes(group, &stack_sizes, run.pipeline.get()),
                                     "optixUtilAccumulateStackSizes");
        if (run.cResult.first != Success)
            return run.cResult;
    }
    unsigned int nDirectCallableStackSizeFromTraversal = 0;
    unsigned int nDirectCallableStackSizeFromState = 0;
    unsigned int nContinuationStackSize = 0;
    run.cResult = MakeOptixError(
        optixUtilComputeStackSizes(&stack_sizes, 2, 0, 0, &nDirectCallableStackSizeFromTraversal,
                                   &nDirectCallableStackSizeFromState, &nContinuationStackSize),
        "optixUtilComputeStackSizes");
    if (run.cResult.first != Success)
        return run.cResult;

    // One rounded continuation stack for every thread the GPU holds at once; estimated again only when the
    // sizes changed since the last run.
    const unsigned int aStackSizes[3] = {nDirectCallableStackSizeFromTraversal,
                                         nDirectCallableStackSizeFromState, nContinuationStackSize};
    if (!bStackEstimated || std::memcmp(aStackSizes, aStackSizesEstimated, sizeof(aStackSizes)) != 0)
    {
        cudaDeviceProp prop;
        int nMaxThreadsPerMultiProcessor = 0;
        // clang-format off
        CHECK_CUDA(cudaGetDeviceProperties(&prop, iGpuId));
        CHECK_CUDA(cudaDeviceGetAttribute(&nMaxThreadsPerMultiProcessor, cudaDevAttrMaxThreadsPerMultiProcessor, iGpuId));
        // clang-format on
        const unsigned int nRoundedStack = (nContinuationStackSize + 255u) & ~255u;
        nStackBytes = static_cast<std::uint64_t>(nRoundedStack) *
                      static_cast<std::uint64_t>(prop.multiProcessorCount) *
                      static_cast<std::uint64_t>(nMaxThreadsPerMultiProcessor);
        if (nBudget <= nStackBytes)
            return {OutOfMemory, "Not enough free GPU memory."};
        std::memcpy(aStackSizesEstimated, aStackSizes, sizeof(aStackSizes));
        bStackEstimated = true;
    }

    run.cResult = MakeOptixError(
        optixPipelineSetStackSize(run.pipeline.get(), nDirectCallableStackSizeFromTraversal,
                                  nDirectCallableStackSizeFromState, nContinuationStackSize, 1),
        "optixPipelineSetStackSize");
    return run.cResult;
}

ErrorResult TraceDriver::CreateShaderBindingTable(RunState& run)
{
    run.sbt = {};
    SbtRecord miss_record = {};
    run.cResult = MakeOptixError(optixSbtRecordPackHeader(run.miss_prog_group.get(), &miss_record),
                                 "optixSbtRecordPackHeader");
    if (run.cResult.first != Success)
        return run.cResult;
    run.d_miss_record.Assign(miss_record);

    SbtRecord hitgroup_record = {};
    run.cResult = MakeOptixError(optixSbtRecordPackHeader(run.hitgroup_prog_group.get(), &hitgroup_record),
                                 "optixSbtRecordPackHeader");
    if (run.cResult.first != Success)
        return run.cResult;
    run.d_hitgroup_record.Assign(hitgroup_record);

    run.sbt.missRecordBase = run.d_miss_record.DevicePointer();
    run.sbt.missRecordStrideInBytes = sizeof(SbtRecord);
    run.sbt.missRecordCount = 1;
    run.sbt.hitgroupRecordBase = run.d_hitgroup_record.DevicePointer();
    run.sbt.hitgroupRecordStrideInBytes = sizeof(SbtRecord);
    run.sbt.hitgroupRecordCount = 1;
    return run.cResult;
}

ErrorResult TraceDriver::BuildChunkGas(RunState& run, std::size_t iStart, std::size_t iEnd)
{
    // Released on every exit; a plain cudaFree waits for the build that reads it.
    DeviceBuffer<float3> d_vertices(cStream.GetStream(), bMemoryPoolsSupported);
    d_vertices.resize((size_t)3 * (iEnd - iStart));
    // clang-format off
    CHECK_CUDA(cudaMemcpyAsync(d_vertices.data(), reinterpret_cast<const float3*>(pTriangles) + (size_t)3 * iStart, (size_t)3 * (iEnd - iStart) * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream()));
    // clang-format on

    const CUdeviceptr vertexBuffer = reinterpret_cast<CUdeviceptr>(d_vertices.data());
    const OptixBuildInput input =
        MakeTriangleBuildInput(&vertexBuffer, static_cast<unsigned int>(3 * (iEnd - iStart)), 0,
                               &uGeometryFlags, static_cast<unsigned int>(iStart));
    OptixAccelBuildOptions opts = {};
    opts.buildFlags = OPTIX_BUILD_FLAG_NONE;
    opts.operation = OPTIX_BUILD_OPERATION_BUILD;
    OptixAccelBufferSizes sizes = {};
    run.cResult = MakeOptixError(optixAccelComputeMemoryUsage(run.context.get(), &opts, &input, 1, &sizes),
                                 "optixAccelComputeMemoryUsage");
    if (run.cResult.first != Success)
        return run.cResult;

    run.d_gas_temp.resize(sizes.tempSizeInBytes);
    run.d_gas_output.resize(sizes.outputSizeInBytes);
    run.cResult = MakeOptixError(optixAccelBuild(run.context.get(), cStream.GetStream(), &opts, &input, 1,
                                                 reinterpret_cast<CUdeviceptr>(run.d_gas_temp.data()),
                                                 sizes.tempSizeInBytes,
                                                 reinterpret_cast<CUdeviceptr>(run.d_gas_output.data()),
                                                 sizes.outputSizeInBytes, &run.gas_handle, nullptr, 0),
                                 "optixAccelBuild");
    return run.cResult;
}
