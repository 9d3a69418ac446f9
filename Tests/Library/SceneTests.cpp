// The persistent scene against the stateless call: same answers in every mode, kept or rebuilt structures,
// failures with the same codes and messages, nothing leaked, and calls from several threads.
#include "RayTracingScene.h"
#include "ReferenceCheck.h"
#include "StandInTest.h"
#include "TestScenes.h"
#include "TraceCall.h"

#include <cmath>
#include <memory>
#include <thread>

namespace
{
using namespace TestReference;

// After the reserve: the chunk floor, a minimum batch of the costliest mode and 1 MiB, too little to keep the
// soup's structures (about 0.8 MB) beside a batch of every mode, enough to build them in chunks per trace.
const std::uint64_t c_nTightFreeMemory =
    static_cast<std::uint64_t>(std::ceil(8.0 * (1ull << 30) * 0.1)) + ((256ull + 44 + 1) << 20);

struct SceneLayout
{
    const char* sName;
    std::uint32_t nMaxPrimitivesPerGas;
    std::uint64_t nFreeGPUMemory;
    bool bKept;
};

class SceneTest : public StandInTest
{
protected:
    TriangleSoup cSoup = MakeRandomSoup(6000, 21);
    RaySet cRays = MakeRaysOutside(3000, 22, 3.0f, 1.0f);

    void SetUp() override
    {
        StandInTest::SetUp();
        cRays.Append(MakeRaysInside(3000, 23, 1.0f));
        SetRandomDistances(cRays, 24, 4.0f);
    }

    std::unique_ptr<RayTracingScene> Create(std::uint64_t nFreeGPUMemory = 0)
    {
        std::unique_ptr<RayTracingScene> pScene;
        std::string sLog, sError;
        EXPECT_EQ(RayTracingScene::Create(pScene, cSoup.Count(), cSoup.Data(), 0, sLog, sError, false,
                                          nFreeGPUMemory),
                  Success)
            << sError;
        return pScene;
    }

    TraceRequest Request(RayTracingScene* pScene, bool bDistances, std::uint64_t nFreeGPUMemory = 0) const
    {
        TraceRequest cRequest(cSoup, cRays);
        cRequest.bDistances = bDistances;
        cRequest.fMaxDistance = 3.5f;
        cRequest.nFreeGPUMemory = nFreeGPUMemory;
        cRequest.pScene = pScene;
        return cRequest;
    }
};

class SceneLayoutTest : public SceneTest, public ::testing::WithParamInterface<SceneLayout>
{
};

TEST_P(SceneLayoutTest, AnswersAsTheStatelessCallInEveryModeTracedInARow)
{
    const SceneLayout& cLayout = GetParam();
    Configure([&](RayTracingCpu::DeviceConfig& c) { c.nMaxPrimitivesPerGas = cLayout.nMaxPrimitivesPerGas; });
    {
        std::unique_ptr<RayTracingScene> pScene = Create(cLayout.nFreeGPUMemory);
        ASSERT_TRUE(pScene);
        EXPECT_EQ(pScene->TriangleCount(), cSoup.Count());
        // Every mode twice, the second time on what the first left; distances only every other time.
        for (int iPass = 0; iPass < 2; ++iPass)
            for (TraceMode eMode : c_aAllTraceModes)
            {
                SCOPED_TRACE(TraceModeName(eMode));
                const bool bDistances = (iPass + static_cast<int>(eMode)) % 2 == 0;
                const TraceOutcome cStateless =
                    RunTrace(eMode, Request(nullptr, bDistances, cLayout.nFreeGPUMemory));
                const TraceOutcome cScene = RunTrace(eMode, Request(pScene.get(), bDistances));
                ASSERT_EQ(cStateless.eResult, Success) << cStateless.sError;
                EXPECT_TRUE(SameAnswers(cStateless, cScene));
                EXPECT_EQ(pScene->KeptStructures(), cLayout.bKept);
            }
    }
    ExpectNothingLeaked();
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, SceneLayoutTest,
    ::testing::Values(SceneLayout{"KeptWhole", 1u << 29, 0, true}, SceneLayout{"KeptInChunks", 1500, 0, true},
                      SceneLayout{"RebuiltPerTrace", 1u << 29, c_nTightFreeMemory, false}),
    [](const auto& cInfo) { return std::string(cInfo.param.sName); });

TEST_F(SceneTest, ZeroTrianglesAnswerOnTheHostWithoutTouchingTheDevice)
{
    std::unique_ptr<RayTracingScene> pScene;
    std::string sLog, sError;
    ASSERT_EQ(RayTracingScene::Create(pScene, 0, nullptr, 0, sLog, sError, false, 0), Success);
    TraceRequest cEmpty = Request(nullptr, false);
    cEmpty.nTriangles = 0;
    for (TraceMode eMode : c_aAllTraceModes)
        EXPECT_TRUE(SameAnswers(RunTrace(eMode, cEmpty), RunTrace(eMode, Request(pScene.get(), false))));
    EXPECT_EQ(RayTracingCpu::CallCount("cudaSetDevice"), 0u);
    EXPECT_EQ(RayTracingScene::Create(pScene, 5, nullptr, 0, sLog, sError, false, 0), Failure);
    EXPECT_FALSE(pScene);
}

struct PlatformFault
{
    const char* sFunction;
    int nCode;
    RayTracingErrorType eExpected;
    const char* sMessageNames = ""; // the call the message quotes, where it fails
};

class SceneCreateFaultTest : public SceneTest, public ::testing::WithParamInterface<PlatformFault>
{
};

TEST_P(SceneCreateFaultTest, LeavesNoSceneAndNothingBehind)
{
    RayTracingCpu::InjectFault(GetParam().sFunction, 1, GetParam().nCode);
    std::unique_ptr<RayTracingScene> pScene;
    std::string sLog, sError;
    EXPECT_EQ(RayTracingScene::Create(pScene, cSoup.Count(), cSoup.Data(), 0, sLog, sError, false, 0),
              GetParam().eExpected);
    EXPECT_FALSE(pScene);
    if (GetParam().eExpected == Failure)
        EXPECT_NE(sError.find(GetParam().sMessageNames), std::string::npos) << sError;
    ExpectNothingLeaked();
}

INSTANTIATE_TEST_SUITE_P(Faults, SceneCreateFaultTest,
                         ::testing::Values(PlatformFault{"cudaSetDevice", 101, Failure,
                                                         "CUDA call (cudaSetDevice(iGpuId) )"},
                                           PlatformFault{"cudaMemGetInfo", 999, Failure, "cudaMemGetInfo"},
                                           PlatformFault{"cudaStreamCreate", 2, OutOfMemory},
                                           PlatformFault{"optixQueryFunctionTable", 7801, Failure,
                                                         "Optix call \"optixInit\" failed."},
                                           PlatformFault{"optixDeviceContextCreate", 7003, Failure,
                                                         "Optix call \"optixDeviceContextCreate\" failed."}),
                         [](const auto& cInfo) { return std::string(cInfo.param.sFunction); });

class SceneTraceFaultTest : public SceneTest, public ::testing::WithParamInterface<PlatformFault>
{
};

// The trace's own failure reads as the stateless call's at the same step, and the scene answers the next
// trace.
TEST_P(SceneTraceFaultTest, FailsLikeTheStatelessCallThenAnswersAgain)
{
    {
        std::unique_ptr<RayTracingScene> pScene = Create();
        ASSERT_TRUE(pScene);
        for (TraceMode eMode : {TraceMode::AllHits, TraceMode::BothIndices})
        {
            SCOPED_TRACE(TraceModeName(eMode));
            RayTracingCpu::InjectFault(GetParam().sFunction, 1, GetParam().nCode);
            const TraceOutcome cStateless = RunTrace(eMode, Request(nullptr, true));
            RayTracingCpu::InjectFault(GetParam().sFunction, 1, GetParam().nCode);
            const TraceOutcome cFailed = RunTrace(eMode, Request(pScene.get(), true));
            RayTracingCpu::ClearFaults();
            EXPECT_EQ(cFailed.eResult, GetParam().eExpected);
            EXPECT_EQ(cFailed.eResult, cStateless.eResult);
            EXPECT_EQ(cFailed.sError, cStateless.sError);
            EXPECT_TRUE(SameAnswers(RunTrace(eMode, Request(nullptr, true)),
                                    RunTrace(eMode, Request(pScene.get(), true))));
        }
    }
    ExpectNothingLeaked();
}

INSTANTIATE_TEST_SUITE_P(Faults, SceneTraceFaultTest,
                         ::testing::Values(PlatformFault{"optixModuleCreate", 7200, Failure},
                                           PlatformFault{"optixAccelBuild", 7001, Failure},
                                           PlatformFault{"cudaMallocAsync", 2, Failure},
                                           PlatformFault{"cudaMemcpyAsync", 700, Failure},
                                           PlatformFault{"optixLaunch", 7900, Failure}),
                         [](const auto& cInfo) { return std::string(cInfo.param.sFunction); });

TEST_F(SceneTest, ThreadsShareOneSceneOrTraceTheirOwn)
{
    {
        std::unique_ptr<RayTracingScene> pFirst = Create();
        std::unique_ptr<RayTracingScene> pSecond = Create();
        ASSERT_TRUE(pFirst && pSecond);
        const TraceOutcome cExpected = RunTrace(TraceMode::AllHits, Request(nullptr, false));
        TraceOutcome aOutcomes[4];
        RayTracingScene* aScenes[4] = {pFirst.get(), pFirst.get(), pFirst.get(), pSecond.get()};
        std::vector<std::thread> aThreads;
        for (int i = 0; i < 4; ++i)
            aThreads.emplace_back(
                [&, i] { aOutcomes[i] = RunTrace(TraceMode::AllHits, Request(aScenes[i], false)); });
        for (std::thread& cThread : aThreads)
            cThread.join();
        for (const TraceOutcome& cOutcome : aOutcomes)
            EXPECT_TRUE(SameAnswers(cExpected, cOutcome));
    }
    ExpectNothingLeaked();
}
} // namespace
