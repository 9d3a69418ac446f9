// Requests answered without the GPU: no rays, invalid requests, no triangles; and the exported surface.
#include "StandInTest.h"
#include "TraceCall.h"

#include <array>
#include <cmath>
#include <functional>
#include <limits>

namespace
{
using Results = RayTracingResults;

// Arrays a request may point at, with canaries that show whether the library wrote them.
struct ResultArrays
{
    static constexpr std::uint64_t n = 3;
    std::array<std::uint64_t, n + 1> aCountHits;
    std::array<std::int32_t, n> aFirstIndex, aLastIndex;
    std::array<float, n> aFirstHit, aLastHit;

    ResultArrays()
    {
        aCountHits.fill(c_nCountCanary);
        aFirstIndex.fill(c_iIndexCanary);
        aLastIndex.fill(c_iIndexCanary);
        aFirstHit.fill(c_fHitCanary);
        aLastHit.fill(c_fHitCanary);
    }
    bool Untouched() const
    {
        ResultArrays cFresh;
        return aCountHits == cFresh.aCountHits && aFirstIndex == cFresh.aFirstIndex &&
               aLastIndex == cFresh.aLastIndex && aFirstHit == cFresh.aFirstHit &&
               aLastHit == cFresh.aLastHit;
    }
};

constexpr float c_aTriangle[9] = {-1, -1, 2, 1, -1, 2, 0, 1, 2};
constexpr float c_aDirections[9] = {0, 0, 1, 0, 0, 1, 0, 0, 1};

struct CallArguments
{
    std::uint64_t nTriangles = 1;
    const float* pTriangles = c_aTriangle;
    std::uint64_t nRays = ResultArrays::n;
    const float* pDirection = c_aDirections;
    float fMaxDistance = 100.0f;
};

class InterfaceTest : public StandInTest
{
protected:
    RayTracingErrorType Call(Results& cResults, const CallArguments& a)
    {
        m_sLog = "stale log";
        m_sError = "stale error";
        cResults.cAllHits.assign(5, c_fCollectedCanary);
        const RayTracingErrorType eResult =
            RayTracing(cResults, a.nTriangles, a.pTriangles, a.nRays, nullptr, a.pDirection, nullptr, 0,
                       m_sLog, m_sError, false, a.fMaxDistance, 0);
        EXPECT_TRUE(cResults.cAllHits.empty()) << "cAllHits must be emptied by every call";
        return eResult;
    }
    void ExpectNoPlatformCall() const
    {
        EXPECT_EQ(RayTracingCpu::CallCount("cudaSetDevice"), 0u);
        EXPECT_EQ(RayTracingCpu::CallCount("cudaStreamCreate"), 0u);
    }

    std::string m_sLog, m_sError;
};
} // namespace

TEST_F(InterfaceTest, ZeroRaysTouchNothingWhateverElseIsWrong)
{
    const std::function<void(Results&, ResultArrays&)> aRequests[] = {
        [](Results&, ResultArrays&) {},
        [](Results& r, ResultArrays&) { r.bCollectAllHits = true; },
        [](Results& r, ResultArrays& a)
        {
            r.pCountHits = a.aCountHits.data();
            r.bCollectAllHits = true;
        },
        [](Results& r, ResultArrays& a)
        {
            r.pFirstHit = a.aFirstHit.data();
            r.pLastHit = a.aLastHit.data();
            r.pFirstIndex = a.aFirstIndex.data();
        },
    };
    for (const auto& fnRequest : aRequests)
    {
        Results cResults;
        ResultArrays cArrays;
        fnRequest(cResults, cArrays);
        CallArguments cArguments;
        cArguments.nRays = 0;
        cArguments.pDirection = nullptr;
        cArguments.pTriangles = nullptr;
        EXPECT_EQ(Call(cResults, cArguments), Success);
        EXPECT_EQ(m_sError, "");
        EXPECT_EQ(m_sLog, "");
        EXPECT_TRUE(cArrays.Untouched());
    }
    ExpectNoPlatformCall();
}

TEST_F(InterfaceTest, InvalidRequestsFailBeforeAnyPlatformCall)
{
    struct Case
    {
        const char* sWhat;
        std::function<void(Results&, ResultArrays&, CallArguments&)> fnSetUp;
    };
    const Case aCases[] = {
        {"collecting without counts",
         [](Results& r, ResultArrays& a, CallArguments&)
         {
             r.bCollectAllHits = true;
             r.pFirstHit = a.aFirstHit.data();
         }},
        {"collecting without counts, no triangles",
         [](Results& r, ResultArrays& a, CallArguments& c)
         {
             r.bCollectAllHits = true;
             r.pFirstHit = a.aFirstHit.data();
             c.nTriangles = 0;
         }},
        {"no result array at all", [](Results&, ResultArrays&, CallArguments&) {}},
        {"nearest index without nearest distance",
         [](Results& r, ResultArrays& a, CallArguments&) { r.pFirstIndex = a.aFirstIndex.data(); }},
        {"farthest without nearest distance",
         [](Results& r, ResultArrays& a, CallArguments&) { r.pLastHit = a.aLastHit.data(); }},
        {"nearest without directions",
         [](Results& r, ResultArrays& a, CallArguments& c)
         {
             r.pFirstHit = a.aFirstHit.data();
             c.pDirection = nullptr;
         }},
        {"nearest without directions, no triangles",
         [](Results& r, ResultArrays& a, CallArguments& c)
         {
             r.pFirstHit = a.aFirstHit.data();
             c.pDirection = nullptr;
             c.nTriangles = 0;
         }},
        {"counting without directions",
         [](Results& r, ResultArrays& a, CallArguments& c)
         {
             r.pCountHits = a.aCountHits.data();
             c.pDirection = nullptr;
         }},
        {"farthest with nearest index but no farthest index",
         [](Results& r, ResultArrays& a, CallArguments&)
         {
             r.pFirstHit = a.aFirstHit.data();
             r.pLastHit = a.aLastHit.data();
             r.pFirstIndex = a.aFirstIndex.data();
         }},
        {"farthest with farthest index but no nearest index, no triangles",
         [](Results& r, ResultArrays& a, CallArguments& c)
         {
             r.pFirstHit = a.aFirstHit.data();
             r.pLastHit = a.aLastHit.data();
             r.pLastIndex = a.aLastIndex.data();
             c.nTriangles = 0;
         }},
    };
    for (const Case& cCase : aCases)
    {
        SCOPED_TRACE(cCase.sWhat);
        Results cResults;
        ResultArrays cArrays;
        CallArguments cArguments;
        cCase.fnSetUp(cResults, cArrays, cArguments);
        EXPECT_EQ(Call(cResults, cArguments), Failure);
        EXPECT_EQ(m_sError, "");
        EXPECT_EQ(m_sLog, "");
        EXPECT_TRUE(cArrays.Untouched());
    }
    ExpectNoPlatformCall();
}

TEST_F(InterfaceTest, NoTrianglesAnswerTheNoHitValuesOnTheHost)
{
    CallArguments cArguments;
    cArguments.nTriangles = 0;
    cArguments.pTriangles = nullptr;
    constexpr std::int32_t aNoIndex[3] = {-1, -1, -1};
    for (const float fMaxDistance : {100.0f, -2.0f, std::numeric_limits<float>::quiet_NaN()})
    {
        SCOPED_TRACE(fMaxDistance);
        cArguments.fMaxDistance = fMaxDistance;
        {
            Results cResults;
            ResultArrays a;
            cResults.pFirstHit = a.aFirstHit.data();
            cResults.pFirstIndex = a.aFirstIndex.data();
            cResults.pLastHit = a.aLastHit.data();
            cResults.pLastIndex = a.aLastIndex.data();
            ASSERT_EQ(Call(cResults, cArguments), Success);
            for (int i = 0; i < 3; ++i)
            {
                EXPECT_EQ(a.aFirstIndex[i], aNoIndex[i]);
                EXPECT_EQ(FloatBits(a.aFirstHit[i]), FloatBits(fMaxDistance));
                EXPECT_EQ(a.aLastIndex[i], -1);
                EXPECT_EQ(FloatBits(a.aLastHit[i]), c_uNoFarthestHitBits);
            }
        }
        {
            // Distances only, with a farthest index the mode ignores.
            Results cResults;
            ResultArrays a;
            cResults.pFirstHit = a.aFirstHit.data();
            cResults.pLastIndex = a.aLastIndex.data();
            ASSERT_EQ(Call(cResults, cArguments), Success);
            for (int i = 0; i < 3; ++i)
            {
                EXPECT_EQ(FloatBits(a.aFirstHit[i]), FloatBits(fMaxDistance));
                EXPECT_EQ(a.aLastIndex[i], c_iIndexCanary);
            }
            EXPECT_EQ(a.aFirstIndex[0], c_iIndexCanary);
            EXPECT_EQ(a.aLastHit[0], c_fHitCanary);
        }
    }
    for (const bool bCollect : {false, true})
    {
        // Counting answers before it looks at the directions.
        Results cResults;
        ResultArrays a;
        cResults.pCountHits = a.aCountHits.data();
        cResults.bCollectAllHits = bCollect;
        cResults.pFirstHit = a.aFirstHit.data();
        cArguments.pDirection = nullptr;
        ASSERT_EQ(Call(cResults, cArguments), Success);
        EXPECT_EQ(a.aCountHits[0], 0u);
        EXPECT_EQ(a.aCountHits[2], 0u);
        EXPECT_EQ(a.aCountHits[3], bCollect ? 0u : c_nCountCanary);
        EXPECT_EQ(a.aFirstHit[0], c_fHitCanary);
    }
    EXPECT_EQ(m_sError, "");
    ExpectNoPlatformCall();
}

TEST_F(InterfaceTest, IgnoredPointersStayUntouchedWhenTracing)
{
    // Ray 0 goes through the triangle at z = 2; ray 1 passes beside it; ray 2 points away from it.
    const float aDirections[9] = {0, 0, 1, 5, 0, 1, 0, 0, -1};
    CallArguments cArguments;
    cArguments.pDirection = aDirections;
    {
        Results cResults;
        ResultArrays a;
        cResults.pFirstHit = a.aFirstHit.data();
        cResults.pFirstIndex = a.aFirstIndex.data();
        cResults.pLastIndex = a.aLastIndex.data();
        ASSERT_EQ(Call(cResults, cArguments), Success) << m_sError;
        EXPECT_EQ(a.aFirstIndex[0], 0);
        EXPECT_FLOAT_EQ(a.aFirstHit[0], 2.0f);
        EXPECT_EQ(a.aFirstIndex[1], -1);
        EXPECT_EQ(a.aFirstHit[1], 100.0f);
        EXPECT_EQ(a.aLastIndex, ResultArrays().aLastIndex);
    }
    {
        Results cResults;
        ResultArrays a;
        cResults.pCountHits = a.aCountHits.data();
        cResults.pFirstHit = a.aFirstHit.data();
        cResults.pFirstIndex = a.aFirstIndex.data();
        cResults.pLastHit = a.aLastHit.data();
        cResults.pLastIndex = a.aLastIndex.data();
        ASSERT_EQ(Call(cResults, cArguments), Success) << m_sError;
        EXPECT_EQ(a.aCountHits[0], 1u);
        EXPECT_EQ(a.aCountHits[1], 0u);
        EXPECT_EQ(a.aCountHits[2], 0u);
        EXPECT_EQ(a.aCountHits[3], c_nCountCanary);
        ResultArrays cFresh;
        EXPECT_EQ(a.aFirstHit, cFresh.aFirstHit);
        EXPECT_EQ(a.aFirstIndex, cFresh.aFirstIndex);
        EXPECT_EQ(a.aLastHit, cFresh.aLastHit);
        EXPECT_EQ(a.aLastIndex, cFresh.aLastIndex);
    }
    EXPECT_EQ(m_sLog, "") << "diagnostics are off";
    ExpectNothingLeaked();
}

TEST_F(InterfaceTest, ExportedSurface)
{
    EXPECT_EQ(GetOptixVersion(), std::make_tuple(9, 0, 0));
    EXPECT_EQ(NvOptimusEnablementCuda, 1);
}
