// The memory budget: reserve arithmetic of device set-up and the refusals of the trace driver.
#include "StandInTest.h"
#include "TraceCall.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace
{
const std::string c_sNoMemory = "Not enough free GPU memory.";
const std::string c_sNoRayBuffers = "Not enough free GPU memory for ray buffers.";
const std::string c_sNoChunk = "Not enough free GPU memory for any triangle chunk.";
constexpr std::uint64_t c_nMiB = 1ull << 20;

// Nearest distance without origins or distances: 16 bytes per ray.
TraceOutcome SmallRequest(std::uint64_t nFreeGPUMemory)
{
    static const TestReference::TriangleSoup c_cSoup = TestReference::MakeRandomSoup(8, 11);
    static const TestReference::RaySet c_cRays = TestReference::MakeRaysInside(64, 12, 1.0f);
    TraceRequest cRequest(c_cSoup, c_cRays);
    cRequest.bOrigins = false;
    cRequest.nFreeGPUMemory = nFreeGPUMemory;
    return RunTrace(TraceMode::NearestDistance, cRequest);
}

struct WorkedFigure
{
    const char* sName;
    std::uint64_t nTotalMemory;
    bool bMemoryPools;
    int iComputeCapability;
    std::uint64_t nLargestRefusedFree; // reserve + 256 MiB
};

const WorkedFigure c_aWorkedFigures[] = {
    {"Pools_CC86", 8ull << 30, true, 86, 1127428916},    {"Pools_CC75", 8ull << 30, true, 75, 1127428916},
    {"Pools_CC70", 8ull << 30, true, 70, 4133906023},    {"Pools_CC72", 8ull << 30, true, 72, 4133906023},
    {"NoPools_Floor", 4ull << 30, false, 86, 805306368}, {"NoPools_CC70", 16ull << 30, false, 70, 1127428916},
};

// The free figure comes from the caller, or is measured when the caller passes 0.
class WorkedFigureTest : public StandInTest,
                         public ::testing::WithParamInterface<std::tuple<WorkedFigure, bool>>
{
};
} // namespace

TEST_P(WorkedFigureTest, RefusesUpToReservePlusMarginAndAcceptsOneByteMore)
{
    const auto [cFigure, bMeasured] = GetParam();
    for (const std::uint64_t nFree : {cFigure.nLargestRefusedFree, cFigure.nLargestRefusedFree + 1})
    {
        Configure(
            [&](RayTracingCpu::DeviceConfig& c)
            {
                c.nTotalMemory = cFigure.nTotalMemory;
                c.nFreeMemory = bMeasured ? nFree : cFigure.nTotalMemory;
                c.bMemoryPools = cFigure.bMemoryPools;
                c.iComputeCapability = cFigure.iComputeCapability;
            });
        RayTracingCpu::ResetCallCounts();
        const TraceOutcome c = SmallRequest(bMeasured ? 0 : nFree);
        EXPECT_EQ(c.eResult, OutOfMemory);
        EXPECT_EQ(c.sLog, "");
        // A budget of 256 MiB + 1 byte passes set-up but leaves no room for a chunk next to the rays.
        EXPECT_EQ(c.sError, nFree == cFigure.nLargestRefusedFree ? c_sNoMemory : c_sNoChunk) << nFree;
        if (nFree == cFigure.nLargestRefusedFree)
            EXPECT_EQ(RayTracingCpu::CallCount("cudaStreamCreate"), 0u) << "refused before the stream exists";
        ExpectNothingLeaked();
    }
}

INSTANTIATE_TEST_SUITE_P(Library, WorkedFigureTest,
                         ::testing::Combine(::testing::ValuesIn(c_aWorkedFigures), ::testing::Bool()),
                         [](const auto& cInfo)
                         {
                             return std::string(std::get<0>(cInfo.param).sName) +
                                    (std::get<1>(cInfo.param) ? "_Measured" : "_Argument");
                         });

class BudgetTest : public StandInTest
{
};

TEST_F(BudgetTest, CallersFigureIsTrustedOverMeasuredFreeMemory)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.nFreeMemory = 300 * c_nMiB; });
    EXPECT_EQ(SmallRequest(0).sError, c_sNoMemory) << "300 MiB measured is below reserve and margin";
    EXPECT_EQ(SmallRequest(4ull << 30).eResult, Success);
    ExpectNothingLeaked();
}

// With 2^21 threads on the device every byte of continuation stack costs 2 MiB of budget, so the stack
// estimate dominates small budgets. Raising the budget must then pass through the refusals in their order:
// stack, ray buffers (less than 2^20 rays fit beside the stack), triangle chunk, and finally success.
TEST_F(BudgetTest, RefusalsFollowTheBudgetFromStackToRaysToChunk)
{
    Configure(
        [](RayTracingCpu::DeviceConfig& c)
        {
            c.nMultiprocessors = 1024;
            c.nThreadsPerMultiprocessor = 2048;
        });
    const std::uint64_t nReserve = 858993460; // 8 GiB with pools, compute capability 8.6
    const std::string aRefusals[] = {c_sNoMemory, c_sNoRayBuffers, c_sNoChunk};
    int aSeen[4] = {0, 0, 0, 0};
    int iLastRank = 0;
    auto Probe = [&](std::uint64_t nBudget)
    {
        RayTracingCpu::ResetCallCounts();
        const TraceOutcome c = SmallRequest(nReserve + nBudget);
        const int iRank = c.eResult == Success
                              ? 3
                              : static_cast<int>(std::find(aRefusals, aRefusals + 3, c.sError) - aRefusals);
        EXPECT_TRUE(c.eResult == Success || (c.eResult == OutOfMemory && iRank < 3)) << c.sError;
        EXPECT_GE(iRank, iLastRank) << "budget " << nBudget << " gave '" << c.sError
                                    << "' after a later refusal";
        if (iRank < 3)
            EXPECT_EQ(RayTracingCpu::CallCount("optixAccelBuild"), 0u) << "refused before any chunk is built";
        ExpectNothingLeaked();
        iLastRank = std::max(iLastRank, iRank);
        ++aSeen[std::min(iRank, 3)];
        return iRank;
    };
    // Coarse steps while the stack decides, then fine steps through the 16 MiB ray window, then coarse again.
    std::uint64_t nBudget = 264 * c_nMiB;
    std::uint64_t nLastStackRefusal = nBudget;
    for (; Probe(nBudget) == 0 && nBudget < 16ull << 30; nBudget += 128 * c_nMiB)
        nLastStackRefusal = nBudget;
    iLastRank = 0; // walk up again from the last stack refusal
    for (nBudget = nLastStackRefusal + 4 * c_nMiB; iLastRank < 2 && nBudget < 16ull << 30;
         nBudget += 4 * c_nMiB)
        Probe(nBudget);
    for (; iLastRank < 3 && nBudget < 16ull << 30; nBudget += 64 * c_nMiB)
        Probe(nBudget);
    EXPECT_GT(aSeen[0], 0) << "the stack estimate never refused";
    EXPECT_GT(aSeen[1], 0) << "the ray-buffer refusal was skipped";
    EXPECT_GT(aSeen[2], 0) << "the chunk refusal was skipped";
    EXPECT_EQ(iLastRank, 3) << "never succeeded";
}

// Gigabytes and tens of seconds: registered under the ctest label "slow".
using SlowBudgetTest = BudgetTest;

// The collecting run sizes its batches by hits: with the distances sorted on the device a hit costs 12 bytes,
// so one ray crossing more triangles than a twelfth of the smallest possible budget (2^20 rays beside the
// 256 MiB that chunk sizing keeps back) cannot be collected at all. The counting run has finished by then:
// its running sums stay in pCountHits and cAllHits keeps the zeros it was sized with.
TEST_F(SlowBudgetTest, CollectingRunRefusesARayWhoseHitsAloneExceedTheBudget)
{
    Configure(
        [](RayTracingCpu::DeviceConfig& c)
        {
            c.nMultiprocessors = 1;
            c.nThreadsPerMultiprocessor = 32;
            c.nTotalMemory = 32ull << 30;
            c.nFreeMemory = 32ull << 30;
        });
    // Every ray from the origin along +z crosses all copies of one triangle at z = 1.
    constexpr std::uint64_t nTriangles = 24500000;
    TestReference::TriangleSoup cSoup;
    cSoup.aVertices.reserve(9 * nTriangles);
    for (std::uint64_t i = 0; i < nTriangles; ++i)
        cSoup.aVertices.insert(cSoup.aVertices.end(), {-1, -1, 1, 1, -1, 1, 0, 1, 1});
    TestReference::RaySet cRays;
    cRays.aDirections = {0, 0, 1};
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bOrigins = false;
    // 20 bytes per ray; the acceleration structure's share is the stand-in driver's estimate (output, scratch
    // and vertices) rounded up, so that the whole mesh is one chunk and the budget left for the rays is
    // minimal.
    const std::uint64_t nGasBytes = 132 * nTriangles + 1024;
    const std::uint64_t nReserve = static_cast<std::uint64_t>(std::ceil(0.1 * (32ull << 30)));
    cRequest.nFreeGPUMemory = nReserve + (20 + 256 + 1) * (1ull << 20) + nGasBytes;

    RayTracingCpu::ResetCallCounts();
    const TraceOutcome c = RunTrace(TraceMode::AllHits, cRequest);
    EXPECT_EQ(c.eResult, OutOfMemory);
    EXPECT_EQ(c.sError, c_sNoRayBuffers);
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 1u) << "only the counting run traces";
    EXPECT_EQ(RayTracingCpu::CallCount("optixAccelBuild"), 1u) << "one chunk, built once";
    ASSERT_EQ(c.aCountHits.size(), 2u);
    EXPECT_EQ(c.aCountHits[0], nTriangles);
    EXPECT_EQ(c.aCountHits[1], nTriangles);
    EXPECT_EQ(c.aAllHits.size(), nTriangles);
    EXPECT_TRUE(std::all_of(c.aAllHits.begin(), c.aAllHits.end(), [](float f) { return f == 0.0f; }));
    ExpectNothingLeaked();
}
