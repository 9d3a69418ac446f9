#include "BatchPlanning.h"

#include <algorithm>
#include <execution>
#include <numeric>

std::uint64_t ComputeRaysPerBatch(std::uint64_t nRays, std::uint64_t nBudget, std::uint64_t nBytesPerRay)
{
    const std::uint64_t nMaxRays = nBudget / nBytesPerRay;
    if (nMaxRays == 0)
        return 0;
    const std::uint64_t nBatches = (nRays + nMaxRays - 1) / nMaxRays;
    std::uint64_t nRaysPerBatch = (nRays + nBatches - 1) / nBatches;
    nRaysPerBatch =
        (nRaysPerBatch + c_nRayBatchGranularity - 1) / c_nRayBatchGranularity * c_nRayBatchGranularity;
    return std::min(nRaysPerBatch, c_nMaximumRaysPerBatch);
}

std::vector<std::uint64_t> ComputeBatchBounds(const std::uint64_t* pCountHits, std::uint64_t nRays,
                                              bool bSortOnDevice, std::uint64_t nBytesPerRay,
                                              std::uint64_t nBudget)
{
    // Everything is cumulative from ray 0: a batch is accepted while its rays and hits fit next to what the
    // earlier batches needed (the allowance grows by that need).
    std::vector<std::uint64_t> aBounds{0};
    std::uint64_t nLimit = c_nMaximumHitsPerDeviceSort;
    std::uint64_t nAllowance = nBudget;
    std::uint64_t i = 0;
    std::uint64_t nNeed = 0;
    while (i < nRays)
    {
        const std::uint64_t iStart = aBounds.back();
        while (i < nRays)
        {
            const std::uint64_t nHits = pCountHits[i];
            std::uint64_t nHitBytes;
            if (bSortOnDevice)
            {
                if (nHits > nLimit)
                    break;
                nHitBytes = 12 * nHits + 8 * nBytesPerRay;
            }
            else
                nHitBytes = 4 * nHits;
            const std::uint64_t nCandidate = (i + 1) * nBytesPerRay + nHitBytes;
            if (nCandidate > nAllowance)
                break;
            nNeed = nCandidate;
            ++i;
            if (i - iStart == c_nMaximumRaysPerBatch)
                break;
        }
        if (i == iStart)
            return {};
        aBounds.push_back(i);
        nAllowance = nBudget + nNeed;
        nLimit = pCountHits[i - 1] + c_nMaximumHitsPerDeviceSort;
    }
    return aBounds;
}

void SortHitsOnHost(std::uint64_t nRays, RayTracingResults& cRayTracingResults)
{
    // Whole rays per task, in blocks, so that the index list stays small next to a billion rays.
    constexpr std::uint64_t c_nRaysPerTask = 4096;
    std::vector<std::uint64_t> aTasks((nRays + c_nRaysPerTask - 1) / c_nRaysPerTask);
    std::iota(aTasks.begin(), aTasks.end(), std::uint64_t(0));
    float* pHits = cRayTracingResults.cAllHits.data();
    const std::uint64_t* pOffsets = cRayTracingResults.pCountHits;
    std::for_each(std::execution::par, aTasks.begin(), aTasks.end(),
                  [=](std::uint64_t iTask)
                  {
                      const std::uint64_t iEnd = std::min(nRays, (iTask + 1) * c_nRaysPerTask);
                      for (std::uint64_t i = iTask * c_nRaysPerTask; i < iEnd; ++i)
                          std::sort(pHits + pOffsets[i], pHits + pOffsets[i + 1]);
                  });
}
