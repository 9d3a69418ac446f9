// The memory budget: reserve arithmetic of device set-up and the refusals of the trace driver.
#include "StandInTest.h"
#include "TraceCall.h"

#include <algorithm>
#include <string>

using TestReference::RaySet;
using TestReference::TriangleSoup;

namespace
{
const std::string c_sNoMemory = "Not enough free GPU memory.";
const std::string c_sNoRayBuffers = "Not enough free GPU memory for ray buffers.";
const std::string c_sNoChunk = "Not enough free GPU memory for any triangle chunk.";
constexpr std::uint64_t c_nMiB = 1ull << 20;

// Nearest distance without origins or distances: 16 bytes per ray.
struct SmallRequest
{
    TriangleSoup cSoup = TestReference::MakeRandomSoup(8, 11);
    RaySet cRays = TestReference::MakeRaysInside(64, 12, 1.0f);

    TraceOutcome Run(std::uint64_t nFreeGPUMemory) const
    {
        TraceRequest cRequest(cSoup, cRays);
        cRequest.bOrigins = false;
        cRequest.nFreeGPUMemory = nFreeGPUMemory;
        return RunTrace(TraceMode::NearestDistance, cRequest);
    }
};

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

enum class FreeMemorySource
{
    Argument,
    Measured,
};

class WorkedFigureTest : public StandInTest,
                         public ::testing::WithParamInterface<std::tuple<WorkedFigure, FreeMemorySource>>
{
};
} // namespace

TEST_P(WorkedFigureTest, RefusesUpToReservePlusMarginAndAcceptsOneByteMore)
{
    const auto [cFigure, eSource] = GetParam();
    const SmallRequest cRequest;
    for (const std::uint64_t nFree : {cFigure.nLargestRefusedFree, cFigure.nLargestRefusedFree + 1})
    {
        SCOPED_TRACE(nFree);
        Configure(
            [&](RayTracingCpu::DeviceConfig& c)
            {
                c.nTotalMemory = cFigure.nTotalMemory;
                c.nFreeMemory = eSource == FreeMemorySource::Measured ? nFree : cFigure.nTotalMemory;
                c.bMemoryPools = cFigure.bMemoryPools;
                c.iComputeCapability = cFigure.iComputeCapability;
            });
        RayTracingCpu::ResetCallCounts();
        const TraceOutcome c = cRequest.Run(eSource == FreeMemorySource::Measured ? 0 : nFree);
        EXPECT_EQ(c.eResult, OutOfMemory);
        EXPECT_EQ(c.sLog, "");
        if (nFree == cFigure.nLargestRefusedFree)
        {
            EXPECT_EQ(c.sError, c_sNoMemory);
            EXPECT_EQ(RayTracingCpu::CallCount("cudaStreamCreate"), 0u) << "refused before the stream exists";
        }
        else
        {
            // A budget of 256 MiB + 1 byte passes set-up but leaves no room for a chunk next to the rays.
            EXPECT_EQ(c.sError, c_sNoChunk);
        }
        ExpectNothingLeaked();
    }
}

INSTANTIATE_TEST_SUITE_P(Library, WorkedFigureTest,
                         ::testing::Combine(::testing::ValuesIn(c_aWorkedFigures),
                                            ::testing::Values(FreeMemorySource::Argument,
                                                              FreeMemorySource::Measured)),
                         [](const auto& cInfo)
                         {
                             return std::string(std::get<0>(cInfo.param).sName) +
                                    (std::get<1>(cInfo.param) == FreeMemorySource::Argument ? "_Argument"
                                                                                            : "_Measured");
                         });

class BudgetTest : public StandInTest
{
};

TEST_F(BudgetTest, CallersFigureIsTrustedOverMeasuredFreeMemory)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.nFreeMemory = 300 * c_nMiB; });
    const SmallRequest cRequest;
    EXPECT_EQ(cRequest.Run(0).sError, c_sNoMemory) << "300 MiB measured is below reserve and margin";
    const TraceOutcome c = cRequest.Run(4ull << 30);
    EXPECT_EQ(c.eResult, Success) << c.sError;
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
    const SmallRequest cRequest;
    auto Rank = [](const TraceOutcome& c)
    {
        if (c.eResult == Success)
        {
            return 3;
        }
        EXPECT_EQ(c.eResult, OutOfMemory) << c.sError;
        return c.sError == c_sNoMemory       ? 0
               : c.sError == c_sNoRayBuffers ? 1
               : c.sError == c_sNoChunk      ? 2
                                             : -1;
    };

    int aSeen[4] = {0, 0, 0, 0};
    int iLastRank = 0;
    auto Probe = [&](std::uint64_t nBudget)
    {
        RayTracingCpu::ResetCallCounts();
        const TraceOutcome c = cRequest.Run(nReserve + nBudget);
        const int iRank = Rank(c);
        EXPECT_GE(iRank, 0) << "unexpected message: " << c.sError;
        EXPECT_GE(iRank, iLastRank) << "budget " << nBudget << " gave '" << c.sError
                                    << "' after a later refusal";
        if (iRank >= 0 && iRank < 3)
        {
            EXPECT_EQ(RayTracingCpu::CallCount("optixAccelBuild"), 0u) << "refused before any chunk is built";
        }
        ExpectNothingLeaked();
        iLastRank = std::max(iLastRank, iRank);
        ++aSeen[std::max(iRank, 0)];
        return iRank;
    };
    // Coarse steps while the stack decides, then fine steps through the 16 MiB ray window, then coarse again.
    std::uint64_t nBudget = 264 * c_nMiB;
    std::uint64_t nLastStackRefusal = nBudget;
    while (Probe(nBudget) == 0 && nBudget < 16ull << 30)
    {
        nLastStackRefusal = nBudget;
        nBudget += 128 * c_nMiB;
    }
    iLastRank = 0; // walk up again from the last stack refusal
    for (nBudget = nLastStackRefusal + 4 * c_nMiB; iLastRank < 2 && nBudget < 16ull << 30;
         nBudget += 4 * c_nMiB)
    {
        Probe(nBudget);
    }
    for (; iLastRank < 3 && nBudget < 16ull << 30; nBudget += 64 * c_nMiB)
    {
        Probe(nBudget);
    }
    RecordProperty("probes", std::to_string(aSeen[0]) + "/" + std::to_string(aSeen[1]) + "/" +
                                 std::to_string(aSeen[2]) + "/" + std::to_string(aSeen[3]));
    EXPECT_GT(aSeen[0], 0) << "the stack estimate never refused";
    EXPECT_GT(aSeen[1], 0) << "the ray-buffer refusal was skipped";
    EXPECT_GT(aSeen[2], 0) << "the chunk refusal was skipped";
    EXPECT_EQ(iLastRank, 3) << "never succeeded";
}
