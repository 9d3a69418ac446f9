// The ray batch pass: one batch of rays against the current chunk, in the current run's module.
#include "TraceDriver.h"

#include "RayTracingHelper.h"

namespace
{
template <typename T> T* DevicePointerOrNull(bool bPresent, DeviceBuffer<T>& cBuffer)
{
    return bPresent ? cBuffer.data() : nullptr;
}
} // namespace

ErrorResult TraceDriver::ProcessBatch(RunState& run, std::size_t iBatchStart, std::size_t iBatchEnd,
                                      std::size_t iBatch)
{
    auto& d_ray_origins = run.d_ray_origins;
    auto& d_ray_directions = run.d_ray_directions;
    auto& d_ray_distances = run.d_ray_distances;
    auto& d_ray_count_hits = run.d_ray_count_hits;
    auto& d_ray_all_hits = run.d_ray_all_hits;
    auto& d_ray_first_index = run.d_ray_first_index;
    auto& d_ray_first_hit = run.d_ray_first_hit;
    auto& d_ray_last_index = run.d_ray_last_index;
    auto& d_ray_last_hit = run.d_ray_last_hit;
    const std::size_t nProcessRays = iBatchEnd - iBatchStart;
    std::size_t n = 0;
    bool bTotalArrives = false; // the running total can be read once the copy has arrived

    // clang-format off
    d_ray_directions.resize(nProcessRays);
    CHECK_CUDA(cudaMemcpyAsync(d_ray_directions.data(), reinterpret_cast<const float3*>(pDirection) + iBatchStart, (size_t)nProcessRays * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream()));

    // Earlier chunks' results go up only when there are any (bMerge).
    if (!bAllHits)
    {
        if (bIndices)
        {
            d_ray_first_index.resize(nProcessRays);
            if (bMerge)
                CHECK_CUDA(cudaMemcpyAsync(d_ray_first_index.data(), cRayTracingResults.pFirstIndex + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstIndex), cudaMemcpyHostToDevice, cStream.GetStream()));
        }
        d_ray_first_hit.resize(nProcessRays);
        if (bMerge)
            CHECK_CUDA(cudaMemcpyAsync(d_ray_first_hit.data(), cRayTracingResults.pFirstHit + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstHit), cudaMemcpyHostToDevice, cStream.GetStream()));
        if (!bFirstHitOnly)
        {
            if (bIndices)
            {
                d_ray_last_index.resize(nProcessRays);
                if (bMerge)
                    CHECK_CUDA(cudaMemcpyAsync(d_ray_last_index.data(), cRayTracingResults.pLastIndex + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastIndex), cudaMemcpyHostToDevice, cStream.GetStream()));
            }
            d_ray_last_hit.resize(nProcessRays);
            if (bMerge)
                CHECK_CUDA(cudaMemcpyAsync(d_ray_last_hit.data(), cRayTracingResults.pLastHit + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastHit), cudaMemcpyHostToDevice, cStream.GetStream()));
        }
    }

    if (bAllHits)
    {
        d_ray_count_hits.resize(nProcessRays + (bSortOnDevice ? 1 : 0));
        if (iRun == 1 || bMerge)
        {
            CHECK_CUDA(cudaMemcpyAsync(d_ray_count_hits.data(), cRayTracingResults.pCountHits + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyHostToDevice, cStream.GetStream()));
            // The end of the batch's last stretch bounds the device sort.
            if (bSortOnDevice)
                CHECK_CUDA(cudaMemcpyAsync(d_ray_count_hits.data() + nProcessRays, cRayTracingResults.pCountHits + (iBatchEnd - (size_t)1), sizeof(*cRayTracingResults.pCountHits), cudaMemcpyHostToDevice, cStream.GetStream()));
        }
    }

    // The collected distances of earlier chunks must survive, so the slice goes up for every chunk.
    if (bAllHits && iRun == 1)
    {
        n = aStarts[iBatch] - aStarts[iBatch - (size_t)1];
        d_ray_all_hits.resize(n);
        CHECK_CUDA(cudaMemcpyAsync(d_ray_all_hits.data(), cRayTracingResults.cAllHits.data() + aStarts[iBatch - (size_t)1], n * sizeof(decltype(cRayTracingResults.cAllHits)::value_type), cudaMemcpyHostToDevice, cStream.GetStream()));
    }

    if (pOrigin != nullptr)
    {
        d_ray_origins.resize(nProcessRays);
        CHECK_CUDA(cudaMemcpyAsync(d_ray_origins.data(), reinterpret_cast<const float3*>(pOrigin) + iBatchStart, (size_t)nProcessRays * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream()));
    }
    if (pDistance != nullptr)
    {
        d_ray_distances.resize(nProcessRays);
        CHECK_CUDA(cudaMemcpyAsync(d_ray_distances.data(), pDistance + iBatchStart, (size_t)nProcessRays * sizeof(*pDistance), cudaMemcpyHostToDevice, cStream.GetStream()));
    }
    // clang-format on

    SbtRecord raygen_record = {};
    run.cResult =
        MakeOptixError(optixSbtRecordPackHeader(run.pPrograms->raygen_prog_group.get(), &raygen_record),
                       "optixSbtRecordPackHeader");
    if (run.cResult.first != Success)
        return run.cResult;

    ErrorResult cLaunch;
    if (!bAllHits)
    {
        if (bIndices && bFirstHitOnly)
        {
            LaunchParamsOneHit2 params = {};
            params.pRayFirstIndex = d_ray_first_index.data();
            params.pRayFirstHit = d_ray_first_hit.data();
            cLaunch = LaunchBatch(run, params, "optixLaunch2", nProcessRays, iBatch, raygen_record);
        }
        else if (bIndices)
        {
            LaunchParamsTwoHits4 params = {};
            params.pRayFirstIndex = d_ray_first_index.data();
            params.pRayFirstHit = d_ray_first_hit.data();
            params.pRayLastIndex = d_ray_last_index.data();
            params.pRayLastHit = d_ray_last_hit.data();
            cLaunch = LaunchBatch(run, params, "optixLaunch4", nProcessRays, iBatch, raygen_record);
        }
        else if (bFirstHitOnly)
        {
            LaunchParamsOneHitDistance1 params = {};
            params.pRayFirstHit = d_ray_first_hit.data();
            cLaunch = LaunchBatch(run, params, "optixLaunchDistance1", nProcessRays, iBatch, raygen_record);
        }
        else
        {
            LaunchParamsTwoHitsDistance2 params = {};
            params.pRayFirstHit = d_ray_first_hit.data();
            params.pRayLastHit = d_ray_last_hit.data();
            cLaunch = LaunchBatch(run, params, "optixLaunchDistance2", nProcessRays, iBatch, raygen_record);
        }
    }
    else
    {
        LaunchParamsCountHits2 params = {};
        params.pRayCountHits = d_ray_count_hits.data();
        cLaunch = LaunchBatch(run, params, iRun == 0 ? "optixLaunchCountHits2" : "optixLaunchAllHits2",
                              nProcessRays, iBatch, raygen_record);
    }
    if (cLaunch.first != Success)
        return cLaunch;

    // clang-format off
    if (!bAllHits)
    {
        if (bIndices)
            CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pFirstIndex + iBatchStart, d_ray_first_index.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstIndex), cudaMemcpyDeviceToHost, cStream.GetStream()));
        CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pFirstHit + iBatchStart, d_ray_first_hit.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstHit), cudaMemcpyDeviceToHost, cStream.GetStream()));
        if (!bFirstHitOnly)
        {
            if (bIndices)
                CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pLastIndex + iBatchStart, d_ray_last_index.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastIndex), cudaMemcpyDeviceToHost, cStream.GetStream()));
            CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pLastHit + iBatchStart, d_ray_last_hit.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastHit), cudaMemcpyDeviceToHost, cStream.GetStream()));
        }
    }
    else if (iRun == 0)
    {
        if (!bChunked && cRayTracingResults.bCollectAllHits)
        {
            // One chunk: the counts leave as running sums over all rays so far.
            AccumulateCountsInPlace(cStream.GetStream(), d_ray_count_hits.data(), nProcessRays, nTotalHits);
            CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pCountHits + iBatchStart, d_ray_count_hits.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyDeviceToHost, cStream.GetStream()));
            bTotalArrives = true;
        }
        else
            CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pCountHits + iBatchStart, d_ray_count_hits.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyDeviceToHost, cStream.GetStream()));
    }
    else
    {
        if (bSortOnDevice)
            SegmentedSortInPlace(nProcessRays, d_ray_count_hits.data(), d_ray_all_hits.data(), cStream.GetStream(), bMemoryPoolsSupported, SIZE_MAX);
        CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.pCountHits + iBatchStart, d_ray_count_hits.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyDeviceToHost, cStream.GetStream()));
        CHECK_CUDA(cudaMemcpyAsync(cRayTracingResults.cAllHits.data() + aStarts[iBatch - (size_t)1], d_ray_all_hits.data(), n * sizeof(decltype(cRayTracingResults.cAllHits)::value_type), cudaMemcpyDeviceToHost, cStream.GetStream()));
    }
    CHECK_CUDA(cudaStreamSynchronize(cStream.GetStream()));
    // clang-format on
    if (bTotalArrives)
        nTotalHits = cRayTracingResults.pCountHits[iBatchEnd - 1];
    return SuccessResult();
}

template <typename TParams>
ErrorResult TraceDriver::LaunchBatch(RunState& run, TParams& params, const char* sLaunchName,
                                     std::size_t nProcessRays, std::size_t iBatch, SbtRecord& raygen_record)
{
    // The collecting run's hit group carries the batch's stretch of the hit list.
    DeviceRecord<SbtRecord> d_hitgroup_batch_record;
    if (bAllHits && iRun == 1)
    {
        SbtRecord hitgroup_record = {};
        run.cResult = MakeOptixError(
            optixSbtRecordPackHeader(run.pPrograms->hitgroup_prog_group.get(), &hitgroup_record),
            "optixSbtRecordPackHeader");
        if (run.cResult.first != Success)
            return run.cResult;
        hitgroup_record.aData[0] = reinterpret_cast<unsigned long long>(run.d_ray_all_hits.data());
        hitgroup_record.aData[1] = aStarts[iBatch - 1];
        d_hitgroup_batch_record.Assign(hitgroup_record);
        run.sbt.hitgroupRecordBase = d_hitgroup_batch_record.DevicePointer();
        run.sbt.hitgroupRecordStrideInBytes = sizeof(SbtRecord);
    }

    LaunchParamsCommon& common = params.common;
    common.nProcessRays = static_cast<std::uint32_t>(nProcessRays);
    common.pRayOrigins = DevicePointerOrNull(pOrigin != nullptr, run.d_ray_origins);
    common.pRayDirections = run.d_ray_directions.data();
    common.pRayDistances = DevicePointerOrNull(pDistance != nullptr, run.d_ray_distances);
    common.bMerge = bMerge ? 1 : 0;
    common.fMaxDistance = fMaxDistance;
    common.hTraversable = run.gas_handle;

    DeviceRecord<TParams> d_params;
    d_params.Assign(params);
    raygen_record.aData[0] = d_params.DevicePointer();
    run.d_raygen_record.Assign(raygen_record);
    run.sbt.raygenRecord = run.d_raygen_record.DevicePointer();

    run.cResult = MakeOptixError(optixLaunch(run.pPrograms->pipeline.get(), cStream.GetStream(), 0, 0,
                                             &run.sbt, static_cast<unsigned int>(nProcessRays), 1, 1),
                                 sLaunchName);
    if (run.cResult.first != Success)
        return run.cResult;
    // clang-format off
    CHECK_CUDA(cudaStreamSynchronize(cStream.GetStream()));
    // clang-format on
    return SuccessResult();
}
