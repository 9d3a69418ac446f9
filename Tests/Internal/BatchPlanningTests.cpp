#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "BatchPlanning.h"

namespace
{
TEST(RaysPerBatch, SpreadsEvenlyOverTheFewestBatchesInStepsOf256)
{
    // 300,000,000 bytes hold 18,750,000 rays of 16 bytes: two batches of 15,000,000 rounded up to 256.
    EXPECT_EQ(ComputeRaysPerBatch(30000000, 300000000, 16), 15000064u);
    EXPECT_EQ(ComputeRaysPerBatch(1000, 300000000, 16), 1024u);
    EXPECT_EQ(ComputeRaysPerBatch(5000000000ull, 1ull << 40, 4), 1073741824u); // never above 2^30
}

// Running sums of per-ray counts, as the counting run leaves them.
std::vector<std::uint64_t> RunningSums(std::vector<std::uint64_t> aCounts)
{
    std::partial_sum(aCounts.begin(), aCounts.end(), aCounts.begin());
    return aCounts;
}

TEST(BatchBounds, CutWhereRaysAndTheirHitsNoLongerFitCumulatively)
{
    // B = 10: a ray costs 10 bytes plus 4 per hit on the host-sort path.
    const auto aSums = RunningSums({1, 1, 1, 1, 1, 1});
    // 40 bytes take (i + 1) * 10 + 4 * hits <= 40: two rays (28), three would be 42.
    EXPECT_EQ(ComputeBatchBounds(aSums.data(), 6, false, 10, 40), (std::vector<std::uint64_t>{0, 2, 4, 6}));
    // Everything fits at once.
    EXPECT_EQ(ComputeBatchBounds(aSums.data(), 6, false, 10, 1000), (std::vector<std::uint64_t>{0, 6}));
}

TEST(BatchBounds, DeviceSortPaysTwelveBytesPerHitAndEightRaysOnceOnly)
{
    const auto aSums = RunningSums({2, 2, 2});
    // First batch: 10 + 12 * 2 + 8 * 10 = 114 for one ray, 148 for two. The second batch compares against
    // 114 plus the first's need, so the 80 bytes are not paid again: rays 1 and 2 cost 20 + 12 * 4 = 68.
    EXPECT_EQ(ComputeBatchBounds(aSums.data(), 3, true, 10, 114), (std::vector<std::uint64_t>{0, 1, 3}));
    EXPECT_EQ(ComputeBatchBounds(aSums.data(), 3, true, 10, 148), (std::vector<std::uint64_t>{0, 2, 3}));
}

TEST(BatchBounds, EmptyWhenOneRayDoesNotFitBesideItsHits)
{
    const auto aSums = RunningSums({1, 100, 1});
    EXPECT_TRUE(ComputeBatchBounds(aSums.data(), 3, false, 10, 300).empty());
    // Ray 1 alone needs 10 + 4 * 100 = 410 bytes.
    EXPECT_EQ(ComputeBatchBounds(aSums.data(), 3, false, 10, 420), (std::vector<std::uint64_t>{0, 1, 2, 3}));
}

TEST(BatchBounds, DeviceSortBatchesHoldAtMost2To31Minus1Hits)
{
    const auto aSums = RunningSums({2000000000ull, 2000000000ull, 10});
    const auto aBounds = ComputeBatchBounds(aSums.data(), 3, true, 8, 1ull << 62);
    EXPECT_EQ(aBounds, (std::vector<std::uint64_t>{0, 1, 3}));
}

TEST(HostSort, SortsEveryRaysStretchAndNothingAcross)
{
    std::vector<std::uint64_t> aOffsets{0, 3, 3, 4, 7};
    RayTracingResults cResults;
    cResults.pCountHits = aOffsets.data();
    cResults.cAllHits = {3, 1, 2, 9, 6, 5, 4};
    SortHitsOnHost(4, cResults);
    EXPECT_EQ(cResults.cAllHits, (std::vector<float>{1, 2, 3, 9, 4, 5, 6}));
}

TEST(HostSort, RaysSpreadOverManyTasksAreEachSorted)
{
    // Ray i holds i % 3 hits in descending order, with values that would interleave if stretches mixed.
    constexpr std::uint64_t nRays = 10001;
    std::vector<std::uint64_t> aOffsets{0};
    RayTracingResults cResults;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        for (std::uint64_t k = i % 3; k > 0; --k)
            cResults.cAllHits.push_back(static_cast<float>(k));
        aOffsets.push_back(cResults.cAllHits.size());
    }
    cResults.pCountHits = aOffsets.data();
    SortHitsOnHost(nRays, cResults);
    for (std::uint64_t i = 0; i < nRays; ++i)
        for (std::uint64_t j = aOffsets[i]; j < aOffsets[i + 1]; ++j)
            ASSERT_EQ(cResults.cAllHits[j], static_cast<float>(j - aOffsets[i] + 1)) << "ray " << i;
}
} // namespace
