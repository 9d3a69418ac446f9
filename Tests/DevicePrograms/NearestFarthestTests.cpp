// The four nearest/farthest modules, run through the driver stand-in with hand-built launch blocks. Every
// case runs against all four modules; fields a module does not have are not checked.
#include <cmath>
#include <limits>
#include <ostream>

#include <gtest/gtest.h>

#include "FirstLastTracer.h"
#include "OptixPrograms.h"

// Names the module in test output instead of dumping the parameter's bytes.
void PrintTo(const FirstLastMode& mode, std::ostream* pStream)
{
    *pStream << mode.module.sName;
}

namespace
{

constexpr float c_fLowest = -3.40282347e+38f;
const float c_fNaN = std::numeric_limits<float>::quiet_NaN();

const FirstLastMode c_aModes[] = {
    {{"OneHit2", c_sOptixTriangleOneHit2, "__raygen__rgFirst", "__closesthit__ch", 2}, true, false},
    {{"TwoHits4", c_sOptixTriangleTwoHits4, "__raygen__rgFirstLast", "__anyhit__ah", 4}, true, true},
    {{"OneHitDistance1", c_sOptixTriangleOneHitDistance1, "__raygen__rgFirstDistance", "__closesthit__ch", 1},
     false,
     false},
    {{"TwoHitsDistance2", c_sOptixTriangleTwoHitsDistance2, "__raygen__rgFirstLastDistance", "__anyhit__ah",
      2},
     false,
     true},
};

// One expected ray: nearest and farthest index and distance.
struct Expected
{
    int iFirst;
    float fFirst;
    int iLast;
    float fLast;
};

void ExpectDistance(float fActual, float fExpected)
{
    if (std::isnan(fExpected))
    {
        EXPECT_TRUE(std::isnan(fActual)) << fActual;
    }
    else
    {
        EXPECT_FLOAT_EQ(fActual, fExpected);
    }
}

// Rays along +z, one per unit of x, so that each meets only the triangles placed at its own x.
Rays RaysAlongZ(unsigned int nRays)
{
    Rays rays;
    for (unsigned int i = 0; i < nRays; ++i)
    {
        rays.aOrigins.push_back(make_float3(static_cast<float>(i), 0.0f, 0.0f));
        rays.aDirections.push_back(make_float3(0.0f, 0.0f, 1.0f));
    }
    return rays;
}

FirstLastResults Filled(std::size_t nRays, int iFirst, float fFirst, int iLast, float fLast)
{
    return {std::vector<int>(nRays, iFirst), std::vector<float>(nRays, fFirst),
            std::vector<int>(nRays, iLast), std::vector<float>(nRays, fLast)};
}

class FirstLastPrograms : public ::testing::TestWithParam<FirstLastMode>
{
protected:
    void ExpectRays(const FirstLastResults& results, const std::vector<Expected>& aExpected) const
    {
        const FirstLastMode& mode = GetParam();
        for (std::size_t i = 0; i < aExpected.size(); ++i)
        {
            SCOPED_TRACE("ray " + std::to_string(i));
            ExpectDistance(results.aFirstHit[i], aExpected[i].fFirst);
            if (mode.bIndices)
            {
                EXPECT_EQ(results.aFirstIndex[i], aExpected[i].iFirst);
            }
            if (mode.bFarthest)
            {
                ExpectDistance(results.aLastHit[i], aExpected[i].fLast);
            }
            if (mode.bIndices && mode.bFarthest)
            {
                EXPECT_EQ(results.aLastIndex[i], aExpected[i].iLast);
            }
        }
    }
    bool HasClosestHit() const { return !GetParam().bFarthest; }
};

TEST_P(FirstLastPrograms, FirstChunkOverwritesStaleArraysWithNoHitValues)
{
    FirstLastTracer tracer(GetParam(), RaysAlongZ(2));
    tracer.Store(Filled(2, 7, 1.5f, 8, 2.5f));
    const OptixTraversableHandle hChunk = tracer.BuildChunk({TriangleAt(5.0f, 0.0f, 3.0f)}, 0);
    tracer.Launch(hChunk, false, 100.0f);
    ExpectRays(tracer.Read(), {{-1, 100.0f, -1, c_fLowest}, {-1, 100.0f, -1, c_fLowest}});
}

TEST_P(FirstLastPrograms, FindsNearestAndFarthestHitWithinOneChunk)
{
    Rays rays = RaysAlongZ(4);
    rays.aDirections[2] = make_float3(0.0f, 0.0f, 2.0f); // distances count in direction lengths
    rays.aOrigins[3] = make_float3(3.0f, 0.0f, 10.0f);
    rays.aDirections[3] = make_float3(0.0f, 0.0f, -1.0f);
    FirstLastTracer tracer(GetParam(), rays);
    const OptixTraversableHandle hChunk =
        tracer.BuildChunk({TriangleAt(0, 0, 5), TriangleAt(0, 0, 3), TriangleAt(0, 0, 7), TriangleAt(1, 0, 4),
                           TriangleAt(2, 0, 6), TriangleAt(3, 0, 2), TriangleAt(3, 0, 12)},
                          0);
    tracer.Launch(hChunk, false, 100.0f);
    ExpectRays(tracer.Read(),
               {{1, 3.0f, 2, 7.0f}, {3, 4.0f, 3, 4.0f}, {4, 3.0f, 4, 3.0f}, {5, 8.0f, 5, 8.0f}});
}

TEST_P(FirstLastPrograms, RaysWithoutOriginsStartAtZero)
{
    Rays rays;
    rays.aDirections = {make_float3(0, 0, 1), make_float3(0, 0, -0.5f), make_float3(1, 0, 0)};
    FirstLastTracer tracer(GetParam(), rays);
    const OptixTraversableHandle hChunk = tracer.BuildChunk({TriangleAt(0, 0, 4), TriangleAt(0, 0, -2)}, 0);
    tracer.Launch(hChunk, false, 100.0f);
    ExpectRays(tracer.Read(), {{0, 4.0f, 0, 4.0f}, {1, 4.0f, 1, 4.0f}, {-1, 100.0f, -1, c_fLowest}});
}

// Ray by ray: a tie, a nearer hit, a farther hit, a hit only in the second chunk, a hit only in the first.
TEST_P(FirstLastPrograms, MergesChunksKeepingTiesAndTakingStrictlyBetterHits)
{
    FirstLastTracer tracer(GetParam(), RaysAlongZ(5));
    const OptixTraversableHandle hFirst = tracer.BuildChunk(
        {TriangleAt(0, 0, 4), TriangleAt(1, 0, 4), TriangleAt(2, 0, 4), TriangleAt(4, 0, 3)}, 0);
    const OptixTraversableHandle hSecond = tracer.BuildChunk(
        {TriangleAt(0, 0, 4), TriangleAt(1, 0, 2), TriangleAt(2, 0, 6), TriangleAt(3, 0, 5)}, 10);
    tracer.Launch(hFirst, false, 100.0f);
    tracer.Launch(hSecond, true, 100.0f);
    ExpectRays(tracer.Read(), {{0, 4.0f, 0, 4.0f},
                               {11, 2.0f, 1, 4.0f},
                               {2, 4.0f, 12, 6.0f},
                               {13, 5.0f, 13, 5.0f},
                               {3, 3.0f, 3, 3.0f}});
}

// Per-ray distances 0, -1, NaN, 4 and 2 against hits at 3, 5 and 7 on every ray.
TEST_P(FirstLastPrograms, PerRayDistancesNarrowTheIntervalButNotTheStartValue)
{
    Rays rays = RaysAlongZ(5);
    rays.aDistances = {0.0f, -1.0f, c_fNaN, 4.0f, 2.0f};
    FirstLastTracer tracer(GetParam(), rays);
    std::vector<Triangle> aTriangles;
    for (int i = 0; i < 5; ++i)
    {
        for (float fZ : {5.0f, 3.0f, 7.0f})
        {
            aTriangles.push_back(TriangleAt(static_cast<float>(i), 0.0f, fZ));
        }
    }
    const OptixTraversableHandle hChunk = tracer.BuildChunk(aTriangles, 0);

    tracer.Launch(hChunk, false, 100.0f);
    const Expected noHit{-1, 100.0f, -1, c_fLowest};
    ExpectRays(tracer.Read(), {noHit, noHit, {7, 3.0f, 8, 7.0f}, {10, 3.0f, 10, 3.0f}, noHit});

    // Untraced rays leave stored results alone.
    tracer.Store(Filled(5, 90, 50.0f, 91, 1.0f));
    tracer.Launch(hChunk, true, 100.0f);
    const Expected stored{90, 50.0f, 91, 1.0f};
    ExpectRays(tracer.Read(), {stored, stored, {7, 3.0f, 8, 7.0f}, {10, 3.0f, 10, 3.0f}, stored});
}

TEST_P(FirstLastPrograms, TracesNothingWhenTheMaximumDistanceIsNotPositive)
{
    for (float fMaxDistance : {0.0f, -1.0f})
    {
        SCOPED_TRACE(fMaxDistance);
        FirstLastTracer tracer(GetParam(), RaysAlongZ(1));
        const OptixTraversableHandle hChunk = tracer.BuildChunk({TriangleAt(0, 0, 3)}, 0);
        tracer.Launch(hChunk, false, fMaxDistance);
        ExpectRays(tracer.Read(), {{-1, fMaxDistance, -1, c_fLowest}});
    }
}

// A NaN maximum distance bounds nothing, so only rays with a distance of their own are traced. It stays the
// start value of the nearest distance, which no strict comparison can beat: only a closest-hit module, which
// takes the first chunk's hit as it comes, reports a nearest hit then.
TEST_P(FirstLastPrograms, NaNMaximumDistanceTracesOnlyRaysWithTheirOwnDistance)
{
    Rays rays = RaysAlongZ(2);
    rays.aDistances = {4.0f, c_fNaN};
    FirstLastTracer tracer(GetParam(), rays);
    const OptixTraversableHandle hChunk =
        tracer.BuildChunk({TriangleAt(0, 0, 3), TriangleAt(0, 0, 5), TriangleAt(1, 0, 3)}, 0);
    tracer.Launch(hChunk, false, c_fNaN);
    const Expected ownDistance = HasClosestHit() ? Expected{0, 3.0f, 0, 3.0f} : Expected{-1, c_fNaN, 0, 3.0f};
    ExpectRays(tracer.Read(), {ownDistance, {-1, c_fNaN, -1, c_fLowest}});
}

INSTANTIATE_TEST_SUITE_P(Modules, FirstLastPrograms, ::testing::ValuesIn(c_aModes),
                         [](const ::testing::TestParamInfo<FirstLastMode>& info)
                         { return std::string(info.param.module.sName); });

} // namespace
