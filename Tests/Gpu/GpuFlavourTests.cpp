// Semantic checks of libRayTracing.so against the brute-force reference. Without a usable GPU the device
// set-up throws its CUDA check's message and every test here is skipped.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "RayTracing.h"
#include "ReferenceTracer.h"
#include "TestScenes.h"

namespace
{
using namespace TestReference;

struct Scene
{
    TriangleSoup cSoup = MakeRandomSoup(20000, 7);
    RaySet cRays = MakeRaysOutside(20000, 11, 3.0f, 1.0f);
    std::vector<RayReference> aReference;
    Scene()
    {
        cRays.Append(MakeRaysInside(20000, 13, 1.0f));
        aReference = ReferenceTracer(cSoup).TraceAll(cRays, true, false, 100.0f);
    }
};

const Scene& GetScene()
{
    static const Scene s_cScene;
    return s_cScene;
}

// A one-ray request reaches the device set-up; without a usable GPU it throws the CUDA check's message.
bool GpuAnswers(std::string& sWhy)
{
    static const float aTriangle[9] = {0, 0, 1, 1, 0, 1, 0, 1, 1};
    static const float aDirection[3] = {0, 0, 1};
    float fHit = 0;
    RayTracingResults cResults;
    cResults.pFirstHit = &fHit;
    std::string sLog, sError;
    try
    {
        return RayTracing(cResults, 1, aTriangle, 1, nullptr, aDirection, nullptr, 0, sLog, sError, false,
                          10.0f, 0) == Success;
    }
    catch (const std::string& sMessage)
    {
        sWhy = sMessage;
        return false;
    }
}

// Runs one call; skips the test when no GPU answers.
RayTracingErrorType Trace(RayTracingResults& cResults, std::string& sError, std::uint64_t nFreeMemory = 0)
{
    const Scene& cScene = GetScene();
    std::string sLog;
    try
    {
        return RayTracing(cResults, cScene.cSoup.Count(), cScene.cSoup.Data(), cScene.cRays.Count(),
                          cScene.cRays.aOrigins.data(), cScene.cRays.aDirections.data(), nullptr, 0, sLog,
                          sError, false, 100.0f, nFreeMemory);
    }
    catch (const std::string& sMessage)
    {
        sError = sMessage;
        return Failure;
    }
}

#define TRACE_OR_SKIP(cResults)                                                                              \
    do                                                                                                       \
    {                                                                                                        \
        std::string sError;                                                                                  \
        if (!GpuAnswers(sError))                                                                             \
            GTEST_SKIP() << "no usable GPU: " << sError;                                                     \
        const RayTracingErrorType nCode = Trace(cResults, sError);                                           \
        if (nCode != Success && sError.find("CUDA call (") == 0)                                             \
            GTEST_SKIP() << "no usable GPU: " << sError;                                                     \
        ASSERT_EQ(nCode, Success) << sError;                                                                 \
    } while (0)

TEST(GpuFlavour, ReportsOptixVersion)
{
    EXPECT_EQ(GetOptixVersion(), std::make_tuple(9, 0, 0));
}

TEST(GpuFlavour, NearestAndFarthestMatchReference)
{
    const Scene& cScene = GetScene();
    const std::size_t nRays = cScene.cRays.Count();
    std::vector<std::int32_t> aFirstIndex(nRays), aLastIndex(nRays);
    std::vector<float> aFirstHit(nRays), aLastHit(nRays);
    RayTracingResults cResults;
    cResults.pFirstIndex = aFirstIndex.data();
    cResults.pFirstHit = aFirstHit.data();
    cResults.pLastIndex = aLastIndex.data();
    cResults.pLastHit = aLastHit.data();
    TRACE_OR_SKIP(cResults);
    std::size_t nChecked = 0;
    for (std::size_t i = 0; i < nRays; ++i)
    {
        const RayReference& cRef = cScene.aReference[i];
        if (cRef.bAmbiguous)
            continue;
        ++nChecked;
        const ReferenceHit* pNearest = cRef.Nearest();
        const ReferenceHit* pFarthest = cRef.Farthest();
        EXPECT_EQ(aFirstIndex[i], pNearest ? pNearest->iTriangle : -1) << "ray " << i;
        EXPECT_EQ(aLastIndex[i], pFarthest ? pFarthest->iTriangle : -1) << "ray " << i;
        if (pNearest)
            EXPECT_NEAR(aFirstHit[i], pNearest->fDistance, pNearest->fTolerance) << "ray " << i;
        else
            EXPECT_EQ(aFirstHit[i], 100.0f);
    }
    EXPECT_GT(nChecked, nRays * 9 / 10);
}

TEST(GpuFlavour, AllHitsMatchReference)
{
    const Scene& cScene = GetScene();
    const std::size_t nRays = cScene.cRays.Count();
    std::vector<std::uint64_t> aCounts(nRays + 1);
    RayTracingResults cResults;
    cResults.pCountHits = aCounts.data();
    cResults.bCollectAllHits = true;
    TRACE_OR_SKIP(cResults);
    ASSERT_EQ(cResults.cAllHits.size(), aCounts[nRays]);
    for (std::size_t i = 0; i < nRays; ++i)
    {
        const RayReference& cRef = cScene.aReference[i];
        if (cRef.bAmbiguous)
            continue;
        const std::vector<ReferenceHit> aHits = cRef.CountedHits();
        ASSERT_EQ(aCounts[i + 1] - aCounts[i], aHits.size()) << "ray " << i;
        for (std::size_t k = 0; k < aHits.size(); ++k)
            EXPECT_NEAR(cResults.cAllHits[aCounts[i] + k], aHits[k].fDistance, aHits[k].fTolerance);
    }
}
} // namespace
