#include "TraceDriver.h"

#include <algorithm>

#include "BatchPlanning.h"
#include "SceneState.h"
#include "TriangleChunks.h"

RunState::RunState(ErrorResult& cRunningResult, cudaStream_t stream, bool bUseMemoryPool)
    : cResult(cRunningResult),
      context(MakeOptixHolder<OptixDeviceContext_t>(cRunningResult, optixDeviceContextDestroy,
                                                    "optixDeviceContextDestroy(context)")),
      programs(cRunningResult), d_gas_temp(stream, bUseMemoryPool), d_gas_output(stream, bUseMemoryPool),
      d_ray_origins(stream, bUseMemoryPool), d_ray_directions(stream, bUseMemoryPool),
      d_ray_distances(stream, bUseMemoryPool), d_ray_count_hits(stream, bUseMemoryPool),
      d_ray_all_hits(stream, bUseMemoryPool), d_ray_first_index(stream, bUseMemoryPool),
      d_ray_first_hit(stream, bUseMemoryPool), d_ray_last_index(stream, bUseMemoryPool),
      d_ray_last_hit(stream, bUseMemoryPool)
{
}

TraceDriver::TraceDriver(const TraceRequest& cRequest, const DeviceBudget& cBudget, int iGpuId,
                         bool bDiagnostics, std::deque<std::string>& aLog, CudaStream& cStream,
                         SceneState* pScene)
    : cRayTracingResults(cRequest.cRayTracingResults), nTriangles(cRequest.nTriangles),
      pTriangles(cRequest.pTriangles), nRays(cRequest.nRays), pOrigin(cRequest.pOrigin),
      pDirection(cRequest.pDirection), pDistance(cRequest.pDistance), iGpuId(iGpuId),
      bDiagnostics(bDiagnostics), fMaxDistance(cRequest.fMaxDistance), nFreeGPUMemory(cBudget.nFreeGPUMemory),
      aLog(aLog), cStream(cStream), bMemoryPoolsSupported(cBudget.bMemoryPoolsSupported),
      bCC75(cBudget.bCC75), uGeometryFlags(cRequest.cMode.uGeometryFlags), bAllHits(cRequest.cMode.bAllHits),
      bIndices(cRequest.cMode.bIndices), bFirstHitOnly(cRequest.cMode.bFirstHitOnly),
      nBytesPerRay(cRequest.cMode.nBytesPerRay), pScene(pScene)
{
}

ErrorResult TraceDriver::Run()
{
    // A scene filled the function table when it was created.
    if (pScene == nullptr)
    {
        const ErrorResult cInit = MakeOptixError(optixInit(), "optixInit");
        if (cInit.first != Success)
            return cInit;
    }
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

// The stateless run's own context and pipeline.
ErrorResult TraceDriver::CreateRunObjects(RunState& run, std::uint64_t nBudget)
{
    OptixDeviceContext context_raw = nullptr;
    run.cResult = CreateDeviceContext(bDiagnostics, aLog, context_raw);
    if (run.cResult.first != Success)
        return run.cResult;
    run.context.reset(context_raw);

    run.pStack = &cStack;
    return CreatePipeline(run.programs, run.cResult, run.context, {bAllHits, bIndices, bFirstHitOnly, iRun},
                          iGpuId, nBudget, cStack);
}

// A scene's context, and its pipeline of this run's module, compiled on first use.
ErrorResult TraceDriver::BorrowSceneObjects(RunState& run, std::uint64_t nBudget)
{
    run.pContext = &pScene->Context();
    KeptPipeline* pPipeline = nullptr;
    const ErrorResult cResult =
        pScene->FindOrCreatePipeline({bAllHits, bIndices, bFirstHitOnly, iRun}, nBudget, pPipeline);
    if (cResult.first != Success)
        return cResult;
    run.pPrograms = &pPipeline->programs;
    run.pStack = &pPipeline->cStack;
    return SuccessResult();
}

// The chunk size of the whole request: the scene's kept chunks, or the largest that fits beside a minimum ray
// batch and whatever the scene keeps (released when even one chunk would not fit beside it).
ErrorResult TraceDriver::SizeTriangleChunks(RunState& run, std::uint64_t nBudget)
{
    if (pScene != nullptr)
    {
        const ErrorResult cResult = pScene->PrepareKeptAccel(uGeometryFlags, nBudget, pKeptAccel);
        if (cResult.first != Success)
            return cResult;
        if (pKeptAccel != nullptr)
        {
            nTrianglesPerChunk = pKeptAccel->nTrianglesPerChunk;
            nGasBytes = pScene->KeptBytes();
            return SuccessResult();
        }
    }
    OptixAccelBuildOptions accel_options = {};
    accel_options.buildFlags = OPTIX_BUILD_FLAG_NONE;
    accel_options.operation = OPTIX_BUILD_OPERATION_BUILD;
    for (;;)
    {
        const std::uint64_t nKept = pScene != nullptr ? pScene->KeptBytes() : 0;
        const std::uint64_t nRoom = nBudget - (nBytesPerRay << 20);
        const auto cChunk = nRoom > nKept
                                ? FindTriangleChunkSize(run.pContext->get(), nTriangles, nRoom - nKept,
                                                        uGeometryFlags, accel_options)
                                : std::pair<std::size_t, std::size_t>(0, 0);
        if (cChunk.first == 0 && nKept > 0)
        {
            pScene->ReleaseKeptAccels();
            continue;
        }
        nTrianglesPerChunk = cChunk.first;
        nGasBytes = cChunk.second + nKept;
        return SuccessResult();
    }
}

ErrorResult TraceDriver::TraceRun(RunState& run)
{
    std::uint64_t nBudget = nFreeGPUMemory;

    ErrorResult cResult =
        pScene != nullptr ? BorrowSceneObjects(run, nBudget) : CreateRunObjects(run, nBudget);
    if (cResult.first != Success)
        return cResult;

    nBudget -= run.pStack->nStackBytes;
    if (nBudget < nBytesPerRay * c_nMinimumRaysPerBatch)
        return {OutOfMemory, "Not enough free GPU memory for ray buffers."};

    if (iRun == 0)
    {
        cResult = SizeTriangleChunks(run, nBudget);
        if (cResult.first != Success)
            return cResult;
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
    for (std::size_t iStart = 0, iChunk = 0; iStart < nTriangles; ++iChunk)
    {
        const std::size_t iEnd = std::min<std::size_t>(iStart + nTrianglesPerChunk, nTriangles);
        if (pKeptAccel != nullptr)
            run.gas_handle = pKeptAccel->aChunks[iChunk]->gas_handle;
        else
        {
            cResult =
                BuildChunkGas(run.pContext->get(), cStream, bMemoryPoolsSupported, pTriangles, iStart, iEnd,
                              uGeometryFlags, run.d_gas_temp, run.d_gas_output, run.gas_handle, run.cResult);
            if (cResult.first != Success)
                return cResult;
        }
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

ErrorResult TraceDriver::CreateShaderBindingTable(RunState& run)
{
    run.sbt = {};
    SbtRecord miss_record = {};
    run.cResult = MakeOptixError(optixSbtRecordPackHeader(run.pPrograms->miss_prog_group.get(), &miss_record),
                                 "optixSbtRecordPackHeader");
    if (run.cResult.first != Success)
        return run.cResult;
    run.d_miss_record.Assign(miss_record);

    SbtRecord hitgroup_record = {};
    run.cResult =
        MakeOptixError(optixSbtRecordPackHeader(run.pPrograms->hitgroup_prog_group.get(), &hitgroup_record),
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
