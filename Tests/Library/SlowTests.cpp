// Requests that need gigabytes and tens of seconds; registered under the ctest label "slow".
#include "StandInTest.h"
#include "TraceCall.h"

#include <algorithm>
#include <cmath>
#include <string>

using TestReference::RaySet;
using TestReference::TriangleSoup;

namespace
{
const std::string c_sNoRayBuffers = "Not enough free GPU memory for ray buffers.";
constexpr std::uint64_t c_nMiB = 1ull << 20;

class BudgetTest : public StandInTest
{
};
} // namespace

// The collecting run sizes its batches by hits: with the distances sorted on the device a hit costs 12 bytes,
// so one ray crossing more triangles than a twelfth of the smallest possible budget (2^20 rays beside the
// 256 MiB that chunk sizing keeps back) cannot be collected at all. The counting run has finished by then:
// its running sums stay in pCountHits and cAllHits keeps the zeros it was sized with.
TEST_F(BudgetTest, CollectingRunRefusesARayWhoseHitsAloneExceedTheBudget)
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
    TriangleSoup cSoup;
    cSoup.aVertices.reserve(9 * nTriangles);
    for (std::uint64_t i = 0; i < nTriangles; ++i)
    {
        cSoup.aVertices.insert(cSoup.aVertices.end(), {-1, -1, 1, 1, -1, 1, 0, 1, 1});
    }
    RaySet cRays;
    cRays.aDirections = {0, 0, 1};
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bOrigins = false;
    // 20 bytes per ray; the acceleration structure's share is the stand-in driver's estimate (output, scratch
    // and vertices) rounded up, so that the whole mesh is one chunk and the budget left for the rays is
    // minimal.
    const std::uint64_t nGasBytes = 132 * nTriangles + 1024;
    const std::uint64_t nReserve = static_cast<std::uint64_t>(std::ceil(0.1 * (32ull << 30)));
    cRequest.nFreeGPUMemory = nReserve + 20 * c_nMiB + 256 * c_nMiB + nGasBytes + c_nMiB;

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
