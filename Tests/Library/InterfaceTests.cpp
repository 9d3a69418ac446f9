// Requests answered without the GPU: no rays, invalid requests, no triangles; and the exported surface.
#include "StandInTest.h"
#include "TraceCall.h"

#include <array>
#include <limits>

namespace
{
enum : unsigned
{
    Count = 1,
    FirstIndex = 2,
    FirstHit = 4,
    LastIndex = 8,
    LastHit = 16,
    Collect = 32,
};

// The result arrays the flags choose, prefilled with canaries that show whether the library wrote them.
struct Request
{
    std::array<std::uint64_t, 4> aCountHits;
    std::array<std::int32_t, 3> aFirstIndex, aLastIndex;
    std::array<float, 3> aFirstHit, aLastHit;
    RayTracingResults cResults;

    explicit Request(unsigned uArrays)
    {
        aCountHits.fill(c_nCountCanary);
        aFirstIndex.fill(c_iIndexCanary);
        aLastIndex.fill(c_iIndexCanary);
        aFirstHit.fill(c_fHitCanary);
        aLastHit.fill(c_fHitCanary);
        cResults.pCountHits = uArrays & Count ? aCountHits.data() : nullptr;
        cResults.pFirstIndex = uArrays & FirstIndex ? aFirstIndex.data() : nullptr;
        cResults.pFirstHit = uArrays & FirstHit ? aFirstHit.data() : nullptr;
        cResults.pLastIndex = uArrays & LastIndex ? aLastIndex.data() : nullptr;
        cResults.pLastHit = uArrays & LastHit ? aLastHit.data() : nullptr;
        cResults.bCollectAllHits = uArrays & Collect;
    }
    bool Untouched() const
    {
        const Request c(0);
        return aCountHits == c.aCountHits && aFirstIndex == c.aFirstIndex && aLastIndex == c.aLastIndex &&
               aFirstHit == c.aFirstHit && aLastHit == c.aLastHit;
    }
};

class InterfaceTest : public StandInTest
{
protected:
    // Three rays along +z at a triangle at z = 2, unless told otherwise.
    RayTracingErrorType Call(Request& r, std::uint64_t nTriangles, std::uint64_t nRays = 3,
                             bool bDirections = true, float fMaxDistance = 100.0f)
    {
        static const float c_aTriangle[9] = {-1, -1, 2, 1, -1, 2, 0, 1, 2};
        static const float c_aDirections[9] = {0, 0, 1, 0, 0, 1, 0, 0, 1};
        std::string sLog = "stale log", sError = "stale error";
        r.cResults.cAllHits.assign(5, -777.25f);
        const RayTracingErrorType eResult = RayTracing(
            r.cResults, nTriangles, nTriangles ? c_aTriangle : nullptr, nRays, nullptr,
            bDirections ? c_aDirections : nullptr, nullptr, 0, sLog, sError, false, fMaxDistance, 0);
        EXPECT_TRUE(r.cResults.cAllHits.empty()) << "cAllHits must be emptied by every call";
        EXPECT_EQ(sError, "");
        EXPECT_EQ(sLog, "");
        EXPECT_EQ(RayTracingCpu::CallCount("cudaSetDevice"), 0u) << "no platform call";
        return eResult;
    }
};
} // namespace

// Zero rays succeed whatever else is wrong; an invalid request fails without a message. Neither writes a
// result.
TEST_F(InterfaceTest, ZeroRaysAndInvalidRequestsTouchNothing)
{
    struct Case
    {
        const char* sWhat;
        unsigned uArrays;
        std::uint64_t nTriangles, nRays;
        bool bDirections;
    };
    const Case aCases[] = {
        {"no rays, no result array", 0, 0, 0, false},
        {"no rays, collecting without counts", Collect, 0, 0, false},
        {"no rays, farthest without its index", FirstHit | LastHit | FirstIndex, 0, 0, false},
        {"collecting without counts", Collect | FirstHit, 0, 3, true},
        {"no result array at all", 0, 1, 3, true},
        {"nearest index without nearest distance", FirstIndex, 1, 3, true},
        {"farthest without nearest distance", LastHit, 1, 3, true},
        {"nearest without directions", FirstHit, 0, 3, false},
        {"counting without directions", Count, 1, 3, false},
        {"farthest with nearest index but no farthest index", FirstHit | LastHit | FirstIndex, 1, 3, true},
        {"farthest with farthest index but no nearest index", FirstHit | LastHit | LastIndex, 0, 3, true},
    };
    for (const Case& c : aCases)
    {
        Request r(c.uArrays);
        EXPECT_EQ(Call(r, c.nTriangles, c.nRays, c.bDirections), c.nRays ? Failure : Success) << c.sWhat;
        EXPECT_TRUE(r.Untouched()) << c.sWhat;
    }
}

TEST_F(InterfaceTest, NoTrianglesAnswerTheNoHitValuesOnTheHost)
{
    for (const float fMaxDistance : {100.0f, -2.0f, std::numeric_limits<float>::quiet_NaN()})
    {
        // Without indices a farthest index is handed over too, which the mode ignores.
        for (const bool bIndices : {true, false})
        {
            Request r(FirstHit | LastIndex | (bIndices ? FirstIndex | LastHit : 0));
            ASSERT_EQ(Call(r, 0, 3, true, fMaxDistance), Success);
            for (int i = 0; i < 3; ++i)
            {
                EXPECT_EQ(FloatBits(r.aFirstHit[i]), FloatBits(fMaxDistance));
                EXPECT_EQ(r.aFirstIndex[i], bIndices ? -1 : c_iIndexCanary);
                EXPECT_EQ(FloatBits(r.aLastHit[i]),
                          bIndices ? c_uNoFarthestHitBits : FloatBits(c_fHitCanary));
                EXPECT_EQ(r.aLastIndex[i], bIndices ? -1 : c_iIndexCanary);
            }
        }
    }
    for (const bool bCollect : {false, true})
    {
        // Counting answers before it looks at the directions, and ignores the nearest-hit arrays.
        Request r(Count | FirstHit | (bCollect ? Collect : 0));
        ASSERT_EQ(Call(r, 0, 3, false), Success);
        EXPECT_EQ(r.aCountHits, (std::array<std::uint64_t, 4>{0, 0, 0, bCollect ? 0 : c_nCountCanary}));
        EXPECT_EQ(r.aFirstHit, Request(0).aFirstHit);
    }
}

TEST_F(InterfaceTest, ExportedSurface)
{
    EXPECT_EQ(GetOptixVersion(), std::make_tuple(9, 0, 0));
    EXPECT_EQ(NvOptimusEnablementCuda, 1);
}
