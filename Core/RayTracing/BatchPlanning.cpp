#include "BatchPlanning.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

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
    // Workers take blocks of whole rays in turn. Plain threads rather than a parallel algorithm: the GPU
    // flavour then needs no TBB at run time.
    constexpr std::uint64_t c_nRaysPerBlock = 4096;
    const std::uint64_t nBlocks = (nRays + c_nRaysPerBlock - 1) / c_nRaysPerBlock;
    float* pHits = cRayTracingResults.cAllHits.data();
    const std::uint64_t* pOffsets = cRayTracingResults.pCountHits;
    std::atomic<std::uint64_t> iNextBlock{0};
    const auto SortBlocks = [&]()
    {
        for (std::uint64_t iBlock = iNextBlock++; iBlock < nBlocks; iBlock = iNextBlock++)
        {
            const std::uint64_t iEnd = std::min(nRays, (iBlock + 1) * c_nRaysPerBlock);
            for (std::uint64_t i = iBlock * c_nRaysPerBlock; i < iEnd; ++i)
                std::sort(pHits + pOffsets[i], pHits + pOffsets[i + 1]);
        }
    };
    const std::uint64_t nHelpers =
        std::min<std::uint64_t>(std::max(1u, std::thread::hardware_concurrency()) - 1, nBlocks);
    std::vector<std::thread> aHelpers;
    aHelpers.reserve(nHelpers);
    try
    {
        while (aHelpers.size() < nHelpers)
            aHelpers.emplace_back(SortBlocks);
    }
    catch (const std::system_error&)
    {
        // Fewer helpers than asked for: the calling thread sorts whatever they leave.
    }
    SortBlocks();
    for (std::thread& cHelper : aHelpers)
        cHelper.join();
}
