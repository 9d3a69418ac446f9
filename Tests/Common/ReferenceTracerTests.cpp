// The reference decides every library test, so its own answers are checked on cases with known geometry.
#include "ReferenceTracer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace TestReference;

namespace
{
// Triangle in the plane z = 2 covering the unit square's lower-right half: (0,0), (1,0), (1,1).
TriangleSoup UnitTriangleAtZ2()
{
    return TriangleSoup{{0, 0, 2, 1, 0, 2, 1, 1, 2}};
}
} // namespace

TEST(ReferenceTracer, DistanceIsRayParameterOfUnnormalisedDirection)
{
    const ReferenceTracer cTracer(UnitTriangleAtZ2());
    const float aOrigin[3] = {0.75f, 0.25f, 0.0f};
    const float aDirection[3] = {0.0f, 0.0f, 4.0f};
    const RayReference r = cTracer.Trace(aOrigin, aDirection, std::numeric_limits<float>::infinity());
    ASSERT_EQ(r.aHits.size(), 1u);
    EXPECT_FALSE(r.bAmbiguous);
    EXPECT_DOUBLE_EQ(r.aHits[0].fDistance, 0.5);
    EXPECT_EQ(r.aHits[0].iTriangle, 0);
    EXPECT_EQ(r.CountHits(), 1u);
}

TEST(ReferenceTracer, IntervalEndsAndBoundariesAreFlagged)
{
    const ReferenceTracer cTracer(UnitTriangleAtZ2());
    const float aDirection[3] = {0.0f, 0.0f, 1.0f};
    const float aInside[3] = {0.75f, 0.25f, 0.0f};

    EXPECT_TRUE(cTracer.Trace(aInside, aDirection, 1.5f).aHits.empty());
    EXPECT_FALSE(cTracer.Trace(aInside, aDirection, 1.5f).bAmbiguous);
    EXPECT_TRUE(cTracer.Trace(aInside, aDirection, 2.0f).bAmbiguous) << "hit exactly at tmax";
    EXPECT_TRUE(cTracer.Trace(aInside, aDirection, 0.0f).aHits.empty()) << "tmax 0 is not traced";
    EXPECT_TRUE(cTracer.Trace(aInside, aDirection, std::nanf("")).aHits.empty());

    const float aOnEdge[3] = {0.5f, 0.0f, 0.0f};
    EXPECT_TRUE(cTracer.Trace(aOnEdge, aDirection, 10.0f).bAmbiguous);
    const float aOnVertex[3] = {1.0f, 1.0f, 0.0f};
    EXPECT_TRUE(cTracer.Trace(aOnVertex, aDirection, 10.0f).bAmbiguous);

    // Origin in the triangle's plane: nearest modes see t = 0, counting modes do not.
    const float aOnSurface[3] = {0.75f, 0.25f, 2.0f};
    const RayReference r = cTracer.Trace(aOnSurface, aDirection, 10.0f);
    EXPECT_TRUE(r.bAmbiguous);
    ASSERT_EQ(r.aHits.size(), 1u);
    EXPECT_EQ(r.aHits[0].fDistance, 0.0);
    EXPECT_EQ(r.CountHits(), 0u);
}

TEST(ReferenceTracer, NearTiesAtEitherEndAreFlagged)
{
    TriangleSoup cSoup = UnitTriangleAtZ2();
    cSoup.Append(UnitTriangleAtZ2());
    cSoup.aVertices.insert(cSoup.aVertices.end(), {0, 0, 5, 1, 0, 5, 1, 1, 5});
    const ReferenceTracer cTracer(cSoup);
    const float aOrigin[3] = {0.75f, 0.25f, 0.0f};
    const float aUp[3] = {0.0f, 0.0f, 1.0f};
    const RayReference r = cTracer.Trace(aOrigin, aUp, 100.0f);
    EXPECT_TRUE(r.bAmbiguous);
    ASSERT_EQ(r.aHits.size(), 3u);
    EXPECT_EQ(r.Nearest()->iTriangle, 0) << "equal distances order by index";
    EXPECT_EQ(r.Farthest()->iTriangle, 2);

    EXPECT_TRUE(cTracer.Trace(aOrigin, aUp, 3.0f).bAmbiguous) << "the tie lies inside [0, 3]";
    const float aDown[3] = {0.0f, 0.0f, -1.0f};
    const float aAbove[3] = {0.75f, 0.25f, 6.0f};
    const RayReference rDown = cTracer.Trace(aAbove, aDown, 100.0f);
    EXPECT_TRUE(rDown.bAmbiguous) << "the farthest end is tied";
    EXPECT_EQ(rDown.Nearest()->iTriangle, 2);
}

TEST(ReferenceTracer, ClosedMeshIsCrossedOnceFromInsideAndEvenlyFromOutside)
{
    const TriangleSoup cSphere = MakeIcosphere(2, 1.0f);
    ASSERT_EQ(cSphere.Count(), 320u);
    const ReferenceTracer cTracer(cSphere);
    const float fInf = std::numeric_limits<float>::infinity();

    const RaySet cInside = MakeRaysInside(500, 1, 0.7f);
    std::uint64_t nClear = 0;
    for (const RayReference& r : cTracer.TraceAll(cInside, true, false, fInf))
    {
        if (!r.bAmbiguous)
        {
            ++nClear;
            EXPECT_EQ(r.CountHits(), 1u);
        }
    }
    EXPECT_GT(nClear, 490u);

    const RaySet cOutside = MakeRaysOutside(500, 2, 3.0f, 1.2f);
    std::uint64_t nCrossing = 0;
    for (const RayReference& r : cTracer.TraceAll(cOutside, true, false, fInf))
    {
        if (!r.bAmbiguous)
        {
            EXPECT_TRUE(r.CountHits() == 0 || r.CountHits() == 2);
            nCrossing += r.CountHits() == 2;
        }
    }
    EXPECT_GT(nCrossing, 250u) << "most rays aimed inside the ball must cross the sphere";

    // Without origins every ray starts at the centre.
    for (const RayReference& r : cTracer.TraceAll(cInside, false, false, fInf))
    {
        EXPECT_EQ(r.CountHits(), 1u);
    }
}

TEST(ReferenceTracer, PerRayDistanceNarrowsTheIntervalAndNaNIsIgnored)
{
    EXPECT_EQ(EffectiveMaxDistance(5.0f, nullptr), 5.0f);
    const float fTwo = 2.0f;
    const float fNaN = std::nanf("");
    EXPECT_EQ(EffectiveMaxDistance(5.0f, &fTwo), 2.0f);
    EXPECT_EQ(EffectiveMaxDistance(1.0f, &fTwo), 1.0f);
    EXPECT_EQ(EffectiveMaxDistance(5.0f, &fNaN), 5.0f);
    EXPECT_EQ(EffectiveMaxDistance(fNaN, &fTwo), 2.0f);
    EXPECT_TRUE(std::isnan(EffectiveMaxDistance(fNaN, nullptr)));
}

TEST(TestScenes, ParallelPlanesStackAlongZ)
{
    const TriangleSoup cPlanes = MakeParallelPlanes(10, 1.0f);
    ASSERT_EQ(cPlanes.Count(), 20u);
    const ReferenceTracer cTracer(cPlanes);
    const float aOrigin[3] = {0.3f, -0.4f, 0.0f};
    const float aUp[3] = {0.0f, 0.0f, 0.5f};
    const RayReference r = cTracer.Trace(aOrigin, aUp, 1e9f);
    EXPECT_FALSE(r.bAmbiguous);
    ASSERT_EQ(r.CountHits(), 10u);
    EXPECT_DOUBLE_EQ(r.Farthest()->fDistance, 20.0);
}
