// libRayTracing.so on a real GPU, checked against the brute-force reference with the CPU flavour's
// tolerances. A test skips only where there is no CUDA driver or no device; once a device answers, a failed
// call fails the test and shows the code, sError, sLog (diagnostics on) and whether the driver's OptiX
// library loads.
#include "BudgetSearch.h"
#include "GpuProbe.h"
#include "ReferenceCheck.h"
#include "TraceCall.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <memory>

using TestReference::RayReference;
using TestReference::RaySet;
using TestReference::ReferenceTracer;
using TestReference::TriangleSoup;

namespace
{
constexpr float c_fInf = std::numeric_limits<float>::infinity();
constexpr std::uint64_t c_nMiB = 1ull << 20;

const GpuDecision& Decision()
{
    static const GpuDecision s_cDecision = DecideGpu(AskCudaDriver());
    return s_cDecision;
}

// Says once, at the start, whether the suite runs and where OptiX comes from.
class GpuEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        std::printf("GPU tests: %s: %s\nOptiX: %s\n",
                    Decision().eVerdict == GpuVerdict::Run ? "run" : "skipped", Decision().sReason.c_str(),
                    DescribeOptixLibrary().c_str());
    }
};
[[maybe_unused]] const ::testing::Environment* const g_pEnvironment =
    ::testing::AddGlobalTestEnvironment(new GpuEnvironment);

class GpuTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (Decision().eVerdict == GpuVerdict::Skip)
            GTEST_SKIP() << Decision().sReason;
        ASSERT_EQ(Decision().eVerdict, GpuVerdict::Run) << Decision().sReason;
    }
};

// One call with diagnostics on; a device set-up failure, which leaves RayTracing as an exception, becomes a
// failed outcome.
TraceOutcome Call(TraceMode eMode, TraceRequest cRequest)
{
    cRequest.bDiagnostics = true;
    TraceOutcome cThrown;
    try
    {
        return RunTrace(eMode, cRequest);
    }
    catch (const std::string& sMessage)
    {
        cThrown.sError = "RayTracing threw: " + sMessage;
    }
    catch (const std::exception& cException)
    {
        cThrown.sError = std::string("RayTracing threw: ") + cException.what();
    }
    return cThrown;
}

std::string Describe(const TraceOutcome& c)
{
    return "code " + std::to_string(c.eResult) + "\nsError: " + c.sError + "\nsLog: " + c.sLog + "\n" +
           DescribeOptixLibrary();
}

::testing::AssertionResult Succeeded(const TraceOutcome& c)
{
    if (c.eResult == Success)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "RayTracing failed: " << Describe(c);
}

// The smallest accepted figure for a request like cRequest (same mode and arrays) with one triangle and ray;
// asked once per mode and arrays, since each answer takes some thirty calls.
std::uint64_t SmallestAcceptedFor(TraceMode eMode, const TraceRequest& cRequest)
{
    static std::map<std::tuple<TraceMode, bool, bool>, std::uint64_t> s_aKnown;
    const auto cKey = std::make_tuple(eMode, cRequest.bOrigins, cRequest.bDistances);
    if (s_aKnown.count(cKey) != 0)
        return s_aKnown[cKey];
    static const TriangleSoup s_cTriangle{{0, 0, 1, 1, 0, 1, 0, 1, 1}};
    static const RaySet s_cRay{{0.2f, 0.2f, 0}, {0, 0, 1}, {10}};
    TraceRequest cTiny = cRequest;
    cTiny.pTriangles = s_cTriangle.Data();
    cTiny.nTriangles = 1;
    cTiny.pRays = &s_cRay;
    return s_aKnown[cKey] = SmallestAcceptedFreeMemory(
               [&](std::uint64_t nFreeGPUMemory, std::string& sError)
               {
                   cTiny.nFreeGPUMemory = nFreeGPUMemory;
                   const TraceOutcome c = Call(eMode, cTiny);
                   sError = Describe(c);
                   return c.eResult;
               });
}

RaySet Repeat(const RaySet& cPattern, std::uint64_t nRays)
{
    RaySet c;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        const std::uint64_t k = i % cPattern.Count();
        c.aOrigins.insert(c.aOrigins.end(), &cPattern.aOrigins[3 * k], &cPattern.aOrigins[3 * k + 3]);
        c.aDirections.insert(c.aDirections.end(), &cPattern.aDirections[3 * k],
                             &cPattern.aDirections[3 * k + 3]);
    }
    return c;
}

// 20,000 small random triangles, rays from outside and inside, per-ray distances up to 3.
struct RandomScene
{
    TriangleSoup cSoup = TestReference::MakeRandomSoup(20000, 7, 1.0f, 0.1f);
    RaySet cRays = TestReference::MakeRaysOutside(20000, 11, 3.0f, 1.0f);
    RandomScene()
    {
        cRays.Append(TestReference::MakeRaysInside(20000, 13, 1.0f));
        TestReference::SetRandomDistances(cRays, 17, 3.0f);
    }
    // Computed when first asked, after a call has succeeded: a failing machine gets its answer at once.
    const std::vector<RayReference>& References(bool bOrigins, bool bDistances) const
    {
        auto& aReferences = m_aReferences[{bOrigins, bDistances}];
        if (aReferences.empty())
            aReferences = ReferenceTracer(cSoup).TraceAll(cRays, bOrigins, bDistances, c_fInf);
        return aReferences;
    }

private:
    mutable std::map<std::pair<bool, bool>, std::vector<RayReference>> m_aReferences;
};

const RandomScene& Scene()
{
    static const RandomScene s_cScene;
    return s_cScene;
}

void ExpectMatchesReference(TraceMode eMode, const TraceRequest& cRequest)
{
    const TraceOutcome c = Call(eMode, cRequest);
    ASSERT_TRUE(Succeeded(c));
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(eMode, c, Scene().References(cRequest.bOrigins, cRequest.bDistances), c_fInf,
                                 &cSummary));
    EXPECT_LE(cSummary.nAmbiguous * 100, cSummary.nRays * 3) << "too many ambiguous rays to judge the answer";
    EXPECT_GE(cSummary.nWithHits * 5, cSummary.nRays) << "the case hardly hits anything";
}

enum class Setting
{
    Plain,                   // origins, measured memory: one chunk, one batch
    NullOriginsAndDistances, // every ray from (0, 0, 0), each with its own maximum distance
    SeveralChunks,           // a budget that fits only a share of the triangles at a time
};

const char* const c_aSettingNames[] = {"Plain", "NullOriginsAndDistances", "SeveralChunks"};

void PrintTo(Setting eSetting, std::ostream* pStream)
{
    *pStream << c_aSettingNames[static_cast<int>(eSetting)];
}

class GpuModeTest : public GpuTest, public ::testing::WithParamInterface<std::tuple<TraceMode, Setting>>
{
};

// The six modes reach all six device modules through the driver's module compiler.
TEST_P(GpuModeTest, MatchesReference)
{
    const auto [eMode, eSetting] = GetParam();
    TraceRequest cRequest(Scene().cSoup, Scene().cRays);
    cRequest.bOrigins = eSetting != Setting::NullOriginsAndDistances;
    cRequest.bDistances = eSetting == Setting::NullOriginsAndDistances;
    if (eSetting == Setting::SeveralChunks)
        cRequest.nFreeGPUMemory =
            SeveralChunksFreeMemory(SmallestAcceptedFor(eMode, cRequest), Scene().cSoup.Count());
    ExpectMatchesReference(eMode, cRequest);
}

std::string ModeTestName(const ::testing::TestParamInfo<std::tuple<TraceMode, Setting>>& cInfo)
{
    return std::string(TraceModeName(std::get<0>(cInfo.param))) + "_" +
           c_aSettingNames[static_cast<int>(std::get<1>(cInfo.param))];
}

INSTANTIATE_TEST_SUITE_P(Gpu, GpuModeTest,
                         ::testing::Combine(::testing::ValuesIn(c_aAllTraceModes),
                                            ::testing::Values(Setting::Plain,
                                                              Setting::NullOriginsAndDistances,
                                                              Setting::SeveralChunks)),
                         ModeTestName);

// 128 planes across every ray: a collecting batch needs 12 bytes a hit sorted on the device and 4 on the
// host, so next to the smallest budget (2^20 rays' buffers and 256 MiB) 2^20 rays need about six collecting
// batches with one chunk (device sort) and two with several chunks (host sort).
TEST_F(GpuTest, CollectingRunInBatchesSortsOnDeviceAndOnHost)
{
    const TriangleSoup cPlanes = TestReference::MakeParallelPlanes(128, 1.0f);
    RaySet cPattern = TestReference::MakeRaysInside(4099, 71, 0.9f);
    for (std::size_t i = 0; i < cPattern.Count(); ++i)
    {
        // Straight up from below the first plane, away from the diagonal that splits each square.
        float* o = &cPattern.aOrigins[3 * i];
        float* d = &cPattern.aDirections[3 * i];
        o[2] = 0.5f;
        if (std::abs(o[0] - o[1]) < 0.01f)
            o[0] += 0.05f;
        d[2] = 0.5f + std::abs(d[0]);
        d[0] = d[1] = 0.0f;
    }
    const RaySet cRays = Repeat(cPattern, 1u << 20);
    TraceRequest cRequest(cPlanes, cRays);
    const std::uint64_t nSmallest = SmallestAcceptedFor(TraceMode::AllHits, cRequest);
    const std::vector<RayReference> aReferences =
        ReferenceTracer(cPlanes).TraceAll(cPattern, true, false, c_fInf);
    const std::pair<const char*, std::uint64_t> aBudgets[] = {
        {"one chunk, sorted on the device", nSmallest + c_nMiB},
        {"several chunks, sorted on the host", SeveralChunksFreeMemory(nSmallest, cPlanes.Count())}};
    for (const auto& [sName, nFreeGPUMemory] : aBudgets)
    {
        SCOPED_TRACE(sName);
        cRequest.nFreeGPUMemory = nFreeGPUMemory;
        const TraceOutcome c = Call(TraceMode::AllHits, cRequest);
        ASSERT_TRUE(Succeeded(c));
        EXPECT_EQ(c.aAllHits.size(), 128u << 20);
        EXPECT_TRUE(MatchesReference(TraceMode::AllHits, c, aReferences, c_fInf));
    }
}

// Whatever a call leaves behind in the process (the function table, pooled memory, OptiX's cache) must not
// change the next one. The hits of one ray do not depend on how the acceleration structure was built.
TEST_F(GpuTest, CallsInARowAnswerAlike)
{
    const TraceRequest cRequest(Scene().cSoup, Scene().cRays);
    const TraceOutcome cFirst = Call(TraceMode::AllHits, cRequest);
    ASSERT_TRUE(Succeeded(cFirst));
    const TraceOutcome cSecond = Call(TraceMode::BothIndices, cRequest);
    ASSERT_TRUE(Succeeded(cSecond));
    const TraceOutcome cThird = Call(TraceMode::AllHits, cRequest);
    ASSERT_TRUE(Succeeded(cThird));
    EXPECT_TRUE(MatchesReference(TraceMode::BothIndices, cSecond, Scene().References(true, false), c_fInf));
    EXPECT_TRUE(MatchesReference(TraceMode::AllHits, cThird, Scene().References(true, false), c_fInf));
    EXPECT_TRUE(SameAnswers(cFirst, cThird));
}
} // namespace

TEST(GpuFlavour, ReportsOptixVersion)
{
    EXPECT_EQ(GetOptixVersion(), std::make_tuple(9, 0, 0));
}

// A persistent scene, kept whole and on a budget that makes it build chunks per trace, answers every mode as
// the stateless call does, traced in a row on one scene.
TEST_F(GpuTest, SceneAnswersAsTheStatelessCall)
{
    for (const bool bTight : {false, true})
    {
        TraceRequest cRequest(Scene().cSoup, Scene().cRays);
        if (bTight)
            cRequest.nFreeGPUMemory = SeveralChunksFreeMemory(
                SmallestAcceptedFor(TraceMode::BothIndices, cRequest), Scene().cSoup.Count());
        std::unique_ptr<RayTracingScene> pScene;
        std::string sLog, sError;
        ASSERT_EQ(RayTracingScene::Create(pScene, Scene().cSoup.Count(), Scene().cSoup.Data(), 0, sLog,
                                          sError, true, cRequest.nFreeGPUMemory),
                  Success)
            << sError << sLog;
        for (TraceMode eMode : c_aAllTraceModes)
        {
            SCOPED_TRACE(std::string(TraceModeName(eMode)) + (bTight ? ", tight" : ", kept"));
            const TraceOutcome cStateless = Call(eMode, cRequest);
            TraceRequest cOnScene = cRequest;
            cOnScene.pScene = pScene.get();
            const TraceOutcome cScene = Call(eMode, cOnScene);
            ASSERT_TRUE(Succeeded(cStateless));
            ASSERT_TRUE(Succeeded(cScene));
            EXPECT_TRUE(SameAnswers(cStateless, cScene));
            EXPECT_EQ(pScene->KeptStructures(), !bTight);
        }
    }
}
