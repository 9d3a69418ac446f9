// The counting and collecting modules through the driver stand-in: counts over chunks, the slot-counter
// protocol over two chunks and two batches, and the collecting program's guard against a too small counter.
#include <algorithm>
#include <cstdint>
#include <numeric>

#include <gtest/gtest.h>

#include "ProgramHarness.h"
#include "OptixPrograms.h"

namespace
{

const ProgramModule c_countHits{"CountHits2", c_sOptixTriangleCountHits2, "__raygen__rgCountHits",
                                "__anyhit__ah", 2};
const ProgramModule c_allHits{"AllHits2", c_sOptixTriangleAllHits2, "__raygen__rgAllHits", "__anyhit__ah", 2};

// Six rays along +z at x = 0..5 and two chunks:
//   ray 0: hits at 1 and 2, then 3 in the second chunk;
//   ray 1: two triangles at exactly 5;
//   ray 2: starts on a triangle (distance 0, never counted) and hits 4;
//   ray 3: nothing;
//   ray 4: a hit at 1, but its own distance 0 keeps it untraced;
//   ray 5: hits at 1 and 2, then 3 in the second chunk, with its own distance 2.5.
struct TwoChunkScene
{
    std::vector<float3> aOrigins;
    std::vector<float3> aDirections;
    std::vector<float> aDistances;
    std::vector<Triangle> aFirstChunk;
    std::vector<Triangle> aSecondChunk;
    std::vector<std::uint64_t> aCounts;
};

TwoChunkScene MakeScene()
{
    TwoChunkScene scene;
    for (int i = 0; i < 6; ++i)
    {
        scene.aOrigins.push_back(make_float3(static_cast<float>(i), 0.0f, 0.0f));
        scene.aDirections.push_back(make_float3(0.0f, 0.0f, 1.0f));
    }
    scene.aDistances = {100.0f, 100.0f, 100.0f, 100.0f, 0.0f, 2.5f};
    scene.aFirstChunk = {TriangleAt(0, 0, 1), TriangleAt(0, 0, 2), TriangleAt(1, 0, 5),
                         TriangleAt(1, 0, 5), TriangleAt(2, 0, 0), TriangleAt(2, 0, 4),
                         TriangleAt(4, 0, 1), TriangleAt(5, 0, 2), TriangleAt(5, 0, 1)};
    scene.aSecondChunk = {TriangleAt(0, 0, 3), TriangleAt(5, 0, 3)};
    scene.aCounts = {3, 2, 1, 0, 0, 2};
    return scene;
}

// One launch over rays [iFirstRay, iFirstRay + nRays) of the device arrays.
LaunchParamsCountHits2 HitsBlock(const DeviceArray<float3>& origins, const DeviceArray<float3>& directions,
                                 const DeviceArray<float>& distances, DeviceArray<unsigned long long>& counts,
                                 unsigned int iFirstRay, unsigned int nRays, OptixTraversableHandle hChunk,
                                 bool bMerge)
{
    LaunchParamsCountHits2 params{};
    params.common.nProcessRays = nRays;
    params.common.pRayOrigins = origins.Get() + iFirstRay;
    params.common.pRayDirections = directions.Get() + iFirstRay;
    params.common.pRayDistances = distances.Get() + iFirstRay;
    params.common.bMerge = bMerge ? 1 : 0;
    params.common.fMaxDistance = 100.0f;
    params.common.hTraversable = hChunk;
    params.pRayCountHits = counts.Get() + iFirstRay;
    return params;
}

TEST(CountingProgram, CountsEveryHitOnceAndAddsUpOverChunks)
{
    const TwoChunkScene scene = MakeScene();
    ProgramHarness harness(c_countHits);
    const OptixTraversableHandle hFirst = harness.BuildChunk(scene.aFirstChunk, 0);
    const OptixTraversableHandle hSecond = harness.BuildChunk(scene.aSecondChunk, 9);
    const DeviceArray<float3> origins(scene.aOrigins);
    const DeviceArray<float3> directions(scene.aDirections);
    const DeviceArray<float> distances(scene.aDistances);
    DeviceArray<unsigned long long> counts(std::vector<unsigned long long>(6, 77)); // stale: not read

    ASSERT_EQ(harness.Launch(HitsBlock(origins, directions, distances, counts, 0, 6, hFirst, false), 6),
              cudaSuccess);
    EXPECT_EQ(counts.Download(), (std::vector<unsigned long long>{2, 2, 1, 0, 0, 2}));
    ASSERT_EQ(harness.Launch(HitsBlock(origins, directions, distances, counts, 0, 6, hSecond, true), 6),
              cudaSuccess);
    const std::vector<unsigned long long> aExpected(scene.aCounts.begin(), scene.aCounts.end());
    EXPECT_EQ(counts.Download(), aExpected);
}

TEST(CountingProgram, CarriesIntoTheHighWordAndKeepsStoredCountsOfUntracedRays)
{
    ProgramHarness harness(c_countHits);
    const OptixTraversableHandle hChunk = harness.BuildChunk({TriangleAt(0, 0, 1), TriangleAt(1, 0, 1)}, 0);
    const DeviceArray<float3> origins({make_float3(0, 0, 0), make_float3(1, 0, 0)});
    const DeviceArray<float3> directions({make_float3(0, 0, 1), make_float3(0, 0, 1)});
    const DeviceArray<float> distances({10.0f, -1.0f});
    DeviceArray<unsigned long long> counts({0x1FFFFFFFFull, 0x1FFFFFFFFull});
    ASSERT_EQ(harness.Launch(HitsBlock(origins, directions, distances, counts, 0, 2, hChunk, true), 2),
              cudaSuccess);
    EXPECT_EQ(counts.Download(), (std::vector<unsigned long long>{0x200000000ull, 0x1FFFFFFFFull}));
}

// Counters start as inclusive prefix sums of the counts; each batch sees its own stretch of the hit list.
TEST(CollectingProgram, FillsEachRaysStretchFromItsEndChunkAfterChunk)
{
    const TwoChunkScene scene = MakeScene();
    ProgramHarness harness(c_allHits);
    const OptixTraversableHandle hFirst = harness.BuildChunk(scene.aFirstChunk, 0);
    const OptixTraversableHandle hSecond = harness.BuildChunk(scene.aSecondChunk, 9);
    const DeviceArray<float3> origins(scene.aOrigins);
    const DeviceArray<float3> directions(scene.aDirections);
    const DeviceArray<float> distances(scene.aDistances);

    std::vector<unsigned long long> aInclusive(6);
    std::partial_sum(scene.aCounts.begin(), scene.aCounts.end(), aInclusive.begin());
    const unsigned long long nTotal = aInclusive.back();
    DeviceArray<unsigned long long> counters(aInclusive);
    DeviceArray<float> allHits(std::vector<float>(nTotal, -1.0f));

    // Batches of rays [0, 3) and [3, 6); their stretches start at 0 and at the end of ray 2's.
    const unsigned int aBatchFirstRay[] = {0, 3};
    const unsigned long long aBatchStart[] = {0, aInclusive[2]};
    for (const OptixTraversableHandle hChunk : {hFirst, hSecond})
    {
        for (int iBatch = 0; iBatch < 2; ++iBatch)
        {
            const HitGroupData hitGroup{allHits.Get() + aBatchStart[iBatch], aBatchStart[iBatch]};
            const LaunchParamsAllHits2 params =
                HitsBlock(origins, directions, distances, counters, aBatchFirstRay[iBatch], 3, hChunk, false);
            ASSERT_EQ(harness.Launch(params, 3, &hitGroup), cudaSuccess);
        }
    }

    std::vector<unsigned long long> aExclusive(6, 0);
    std::partial_sum(scene.aCounts.begin(), scene.aCounts.end() - 1, aExclusive.begin() + 1);
    EXPECT_EQ(counters.Download(), aExclusive);
    // Ray 0: the second chunk's 3 below the first chunk's 1 and 2 (in the order the traversal met them).
    // Ray 1: both triangles at 5. Ray 2: only 4, the hit at its origin is not kept. Ray 5: 1 and 2.
    std::vector<float> aHits = allHits.Download();
    ASSERT_EQ(aHits.size(), 8u);
    std::sort(aHits.begin() + 1, aHits.begin() + 3);
    std::sort(aHits.begin() + 6, aHits.begin() + 8);
    const float aExpected[] = {3.0f, 1.0f, 2.0f, 5.0f, 5.0f, 4.0f, 1.0f, 2.0f};
    for (std::size_t i = 0; i < aHits.size(); ++i)
    {
        EXPECT_FLOAT_EQ(aHits[i], aExpected[i]) << "slot " << i;
    }
}

// A counter already at the batch's first slot leaves no room for a hit: the launch fails with a device
// assertion and nothing is written outside the stretch.
TEST(CollectingProgram, RefusesAHitBeyondTheBatchStretch)
{
    ProgramHarness harness(c_allHits);
    const OptixTraversableHandle hChunk = harness.BuildChunk({TriangleAt(0, 0, 1)}, 0);
    const DeviceArray<float3> origins({make_float3(0, 0, 0)});
    const DeviceArray<float3> directions({make_float3(0, 0, 1)});
    const DeviceArray<float> distances({10.0f});
    DeviceArray<unsigned long long> counters({4});
    DeviceArray<float> allHits(std::vector<float>(8, -1.0f));
    const HitGroupData hitGroup{allHits.Get() + 4, 4};
    EXPECT_EQ(harness.Launch(HitsBlock(origins, directions, distances, counters, 0, 1, hChunk, false), 1,
                             &hitGroup),
              cudaErrorAssert);
    EXPECT_EQ(allHits.Download(), std::vector<float>(8, -1.0f));
}

} // namespace
