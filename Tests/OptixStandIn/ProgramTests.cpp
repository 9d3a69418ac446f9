// The library's device programs on the stand-in's traversal, where the library-level tests cannot look: the
// ends of the interval, edges no ray may slip through, counters beyond 32 bits, and the collecting program's
// guard against a counter that leaves no room. (The PTX itself is compiled and run by the GPU tests.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <random>
#include <vector>

#include "ProgramHarness.h"

namespace
{
LaunchParamsCommon Common(OptixTraversableHandle hChunk, const std::vector<float3>& aOrigins,
                          const std::vector<float3>& aDirections, const float* pDistances, float fMaxDistance)
{
    LaunchParamsCommon c{};
    c.nProcessRays = static_cast<std::uint32_t>(aDirections.size());
    c.pRayOrigins = aOrigins.data();
    c.pRayDirections = aDirections.data();
    c.pRayDistances = pDistances;
    c.fMaxDistance = fMaxDistance;
    c.hTraversable = hChunk;
    return c;
}

// Rays along +z towards a triangle at z = 1, each with its own interval end or an origin or direction the
// traversal cannot take.
TEST(Traversal, IntervalIncludesItsEndAndOddRaysMiss)
{
    struct Case
    {
        const char* sWhat;
        float3 origin, direction;
        float fDistance;
        bool bHit;
    };
    const float fInf = INFINITY;
    const Case aCases[] = {
        {"end exactly at the hit", {0, 0, 0}, {0, 0, 1}, 1.0f, true},
        {"end a float step short", {0, 0, 0}, {0, 0, 1}, 1.0f - 1e-6f, false},
        {"largest float", {0, 0, 0}, {0, 0, 1}, FLT_MAX, true},
        {"infinite end", {0, 0, 0}, {0, 0, 1}, fInf, true},
        {"NaN end of the ray: fMaxDistance holds", {0, 0, 0}, {0, 0, 1}, NAN, true},
        {"NaN origin", {NAN, 0, 0}, {0, 0, 1}, fInf, false},
        {"huge origin", {1e30f, 0, 0}, {0, 0, 1}, fInf, false},
        {"infinite direction", {0, 0, 0}, {0, fInf, 1}, fInf, false},
    };
    std::vector<float3> aOrigins, aDirections;
    std::vector<float> aDistances;
    for (const Case& c : aCases)
    {
        aOrigins.push_back(c.origin);
        aDirections.push_back(c.direction);
        aDistances.push_back(c.fDistance);
    }
    ProgramHarness cHarness(c_cOneHit);
    std::vector<std::int32_t> aIndex(aDirections.size(), 7);
    std::vector<float> aHit(aDirections.size(), 7.0f);
    const LaunchParamsOneHit2 cParams{
        Common(cHarness.BuildChunk({TriangleAt(0, 0, 1)}), aOrigins, aDirections, aDistances.data(), fInf),
        aIndex.data(), aHit.data()};
    ASSERT_EQ(cHarness.Launch(cParams, static_cast<unsigned int>(aDirections.size())), cudaSuccess);
    for (std::size_t i = 0; i < std::size(aCases); ++i)
    {
        EXPECT_EQ(aIndex[i], aCases[i].bHit ? 0 : -1) << aCases[i].sWhat;
        EXPECT_EQ(aHit[i], aCases[i].bHit ? 1.0f : fInf) << aCases[i].sWhat;
    }
}

// A tilted, offset grid makes the edge points inexact in float; plain (non-robust) Embree lets several
// percent of these rays through, where a GPU's watertight test hits a triangle every time.
TEST(Traversal, ObliqueRaysThroughInteriorEdgesNeverSlipThrough)
{
    constexpr int n = 32;
    const auto Point = [](float x, float y) {
        return float3{0.1f * x + 0.013f, 0.1f * y - 0.007f, 0.1f * (0.3f * x + 0.7f * y)};
    };
    std::vector<Triangle> aGrid;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
        {
            const float x = static_cast<float>(i), y = static_cast<float>(j);
            aGrid.push_back(Triangle{Point(x, y), Point(x + 1, y), Point(x + 1, y + 1)});
            aGrid.push_back(Triangle{Point(x, y), Point(x + 1, y + 1), Point(x, y + 1)});
        }
    std::mt19937 cRandom(5);
    std::uniform_int_distribution<int> cCell(1, n - 2);
    std::uniform_real_distribution<float> cAlong(0.01f, 0.99f);
    std::uniform_real_distribution<float> cTilt(-0.5f, 0.5f);
    std::vector<float3> aOrigins, aDirections;
    for (int k = 0; k < 30000; ++k)
    {
        const float x = static_cast<float>(cCell(cRandom)), y = static_cast<float>(cCell(cRandom));
        const float t = cAlong(cRandom);
        // Diagonal, horizontal and vertical edges, vertices excluded.
        const float3 p = k % 3 == 0 ? Point(x + t, y + t) : k % 3 == 1 ? Point(x + t, y) : Point(x, y + t);
        const float3 d{cTilt(cRandom), cTilt(cRandom), 1.0f};
        aOrigins.push_back(float3{p.x - 3 * d.x, p.y - 3 * d.y, p.z - 3 * d.z});
        aDirections.push_back(d);
    }
    ProgramHarness cHarness(c_cCountHits);
    std::vector<unsigned long long> aCounts(aDirections.size());
    const LaunchParamsCountHits2 cParams{
        Common(cHarness.BuildChunk(aGrid), aOrigins, aDirections, nullptr, 10.0f), aCounts.data()};
    ASSERT_EQ(cHarness.Launch(cParams, static_cast<unsigned int>(aDirections.size())), cudaSuccess);
    EXPECT_EQ(std::count(aCounts.begin(), aCounts.end(), 0ull), 0) << "rays slipped through an edge";
}

// Ray 0 is traced, ray 1 is not (its own distance is negative): only ray 0's count moves, across 2^32.
TEST(DevicePrograms, CountsCarryIntoTheHighWordAndUntracedRaysKeepTheirs)
{
    ProgramHarness cHarness(c_cCountHits);
    const std::vector<float3> aOrigins{{0, 0, 0}, {1, 0, 0}}, aDirections{{0, 0, 1}, {0, 0, 1}};
    const float aDistances[2] = {10.0f, -1.0f};
    std::vector<unsigned long long> aCounts{0x1FFFFFFFFull, 0x1FFFFFFFFull};
    LaunchParamsCountHits2 cParams{Common(cHarness.BuildChunk({TriangleAt(0, 0, 1), TriangleAt(1, 0, 1)}),
                                          aOrigins, aDirections, aDistances, 100.0f),
                                   aCounts.data()};
    cParams.common.bMerge = 1;
    ASSERT_EQ(cHarness.Launch(cParams, 2), cudaSuccess);
    EXPECT_EQ(aCounts, (std::vector<unsigned long long>{0x200000000ull, 0x1FFFFFFFFull}));
}

// A counter already at the batch's first slot leaves no room for a hit: the launch fails with a device
// assertion and nothing is written outside the batch's stretch.
TEST(DevicePrograms, CollectingRefusesAHitBeyondTheBatchStretch)
{
    ProgramHarness cHarness(c_cAllHits);
    const std::vector<float3> aOrigins{{0, 0, 0}}, aDirections{{0, 0, 1}};
    std::vector<unsigned long long> aCounters{4};
    std::vector<float> aAllHits(8, -1.0f);
    const LaunchParamsAllHits2 cParams{
        Common(cHarness.BuildChunk({TriangleAt(0, 0, 1)}), aOrigins, aDirections, nullptr, 10.0f),
        aCounters.data()};
    const HitGroupData cHitGroup{aAllHits.data() + 4, 4};
    EXPECT_EQ(cHarness.Launch(cParams, 1, &cHitGroup), cudaErrorAssert);
    EXPECT_EQ(aAllHits, std::vector<float>(8, -1.0f));
}

} // namespace
