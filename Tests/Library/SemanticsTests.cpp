// What every mode answers, checked against the brute-force reference: plain calls, several triangle chunks,
// several ray batches, and deferred stream work (which exposes a missing synchronisation).
#include "ReferenceCheck.h"
#include "StandInTest.h"
#include "TraceCall.h"

#include <cmath>
#include <limits>

using TestReference::RaySet;
using TestReference::ReferenceTracer;
using TestReference::TriangleSoup;

namespace
{
constexpr float c_fInf = std::numeric_limits<float>::infinity();
constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();

RaySet WithDistances(RaySet c, float fUpTo)
{
    TestReference::SetRandomDistances(c, 99, fUpTo);
    return c;
}

// Scenes and rays of the cases below.
const auto Soup = [] { return TestReference::MakeRandomSoup(600, 1); };
const auto Sphere = [] { return TestReference::MakeIcosphere(3, 1.0f); };
const auto FineSoup = [] { return TestReference::MakeRandomSoup(2500, 31, 1.0f, 0.15f); };
const auto RaysInSoup = [] { return WithDistances(TestReference::MakeRaysInside(2000, 2, 1.2f), 2.5f); };
const auto RaysInSphere = [] { return WithDistances(TestReference::MakeRaysInside(2000, 3, 0.9f), 2.0f); };
const auto RaysAtSphere = []
{ return WithDistances(TestReference::MakeRaysOutside(2000, 4, 3.0f, 1.1f), 6.0f); };
const auto RaysAwayFromSoup = []
{
    RaySet c = TestReference::MakeRaysOutside(500, 5, 5.0f, 1.0f);
    for (float& f : c.aDirections)
        f = -f;
    return c;
};

struct SemanticCase
{
    const char* sName;
    TriangleSoup (*fnSoup)();
    RaySet (*fnRays)();
    bool bOrigins, bDistances;
    float fMaxDistance;
    bool bSomeRaysHit;                      // guards against a case that silently checks nothing
    std::uint32_t nMaxPrimitivesPerGas = 0; // 0: no limit; 1000 cuts the fine soup into three chunks
    int iComputeCapability = 86;            // below 75 the collected hits are sorted on the host
};

const SemanticCase c_aSemanticCases[] = {
    {"SoupFromInside", Soup, RaysInSoup, true, false, c_fInf, true},
    {"SoupWithoutOrigins", Soup, RaysInSoup, false, false, c_fInf, true},
    {"SoupWithDistancesAndFiniteMax", Soup, RaysInSoup, true, true, 1.5f, true},
    {"SphereFromInsideWithDistances", Sphere, RaysInSphere, true, true, c_fInf, true},
    {"SphereFromOutside", Sphere, RaysAtSphere, true, false, 1e30f, true},
    {"SphereFromOutsideWithDistances", Sphere, RaysAtSphere, true, true, c_fInf, true},
    {"SphereFromCentreWithoutOrigins", Sphere, RaysInSphere, false, true, 2.0f, true},
    {"ZeroMaxDistance", Soup, RaysInSoup, true, false, 0.0f, false},
    {"NegativeMaxDistanceWithDistances", Soup, RaysInSoup, true, true, -1.0f, false},
    {"NaNMaxDistance", Soup, RaysInSoup, true, false, c_fNaN, false},
    {"NaNMaxDistanceWithDistances", Sphere, RaysAtSphere, true, true, c_fNaN, true},
    {"RaysMissEverything", Soup, RaysAwayFromSoup, true, false, c_fInf, false},
    {"ThreeChunks", FineSoup, RaysInSoup, true, true, c_fInf, true, 1000},
    {"SphereBelowComputeCapability75", Sphere, RaysAtSphere, true, false, c_fInf, true, 0, 70},
};

void PrintTo(const SemanticCase& cCase, std::ostream* pStream)
{
    *pStream << cCase.sName;
}

// Runs the request and checks it against the reference; at most 3 % of rays may be too close to call.
void ExpectMatchesReference(TraceMode eMode, const TraceRequest& cRequest, const TriangleSoup& cReferenceSoup,
                            bool bSomeRaysHit)
{
    const auto aRefs =
        ReferenceTracer(cReferenceSoup)
            .TraceAll(*cRequest.pRays, cRequest.bOrigins, cRequest.bDistances, cRequest.fMaxDistance);
    const TraceOutcome c = RunTrace(eMode, cRequest);
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(eMode, c, aRefs, cRequest.fMaxDistance, &cSummary));
    EXPECT_LE(cSummary.nAmbiguous * 100, cSummary.nRays * 3) << "too many ambiguous rays to judge the answer";
    if (bSomeRaysHit)
        EXPECT_GE(cSummary.nWithHits * 5, cSummary.nRays) << "the case hardly hits anything";
    else
        EXPECT_EQ(cSummary.nWithHits, 0u);
}

class SemanticsTest : public StandInTest,
                      public ::testing::WithParamInterface<std::tuple<TraceMode, SemanticCase, bool>>
{
};
} // namespace

TEST_P(SemanticsTest, MatchesReference)
{
    const auto [eMode, cCase, bDefer] = GetParam();
    Configure(
        [&](RayTracingCpu::DeviceConfig& c)
        {
            c.bDeferStreams = bDefer;
            c.iComputeCapability = cCase.iComputeCapability;
            if (cCase.nMaxPrimitivesPerGas)
                c.nMaxPrimitivesPerGas = cCase.nMaxPrimitivesPerGas;
        });
    const TriangleSoup cSoup = cCase.fnSoup();
    const RaySet cRays = cCase.fnRays();
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bOrigins = cCase.bOrigins;
    cRequest.bDistances = cCase.bDistances;
    cRequest.fMaxDistance = cCase.fMaxDistance;
    cRequest.bUnusedPointers = true;
    ExpectMatchesReference(eMode, cRequest, cSoup, cCase.bSomeRaysHit);
    if (cCase.nMaxPrimitivesPerGas)
        EXPECT_EQ(RayTracingCpu::CallCount("optixAccelBuild"), eMode == TraceMode::AllHits ? 6u : 3u);
    ExpectNothingLeaked();
}

INSTANTIATE_TEST_SUITE_P(Library, SemanticsTest,
                         ::testing::Combine(::testing::ValuesIn(c_aAllTraceModes),
                                            ::testing::ValuesIn(c_aSemanticCases), ::testing::Bool()),
                         [](const auto& cInfo)
                         {
                             return std::string(TraceModeName(std::get<0>(cInfo.param))) + "_" +
                                    std::get<1>(cInfo.param).sName +
                                    (std::get<2>(cInfo.param) ? "_Deferred" : "");
                         });

namespace
{
class TraceDriverTest : public StandInTest
{
};

constexpr std::uint64_t c_nMiB = 1ull << 20;

// Budget that leaves just room for one chunk of a small mesh beside 2^20 rays of nBytesPerRay: the reserve of
// the default device (10 % of 8 GiB), 2^20 rays, the 256 MiB that chunk sizing keeps back, and 5 MiB for
// stack and acceleration structure.
std::uint64_t TightFreeMemory(std::uint64_t nBytesPerRay)
{
    return 858993460 + nBytesPerRay * c_nMiB + 256 * c_nMiB + 5 * c_nMiB;
}

// A long ray set repeating a short pattern, so that the reference stays small.
RaySet Repeat(const RaySet& cPattern, std::uint64_t nRays)
{
    RaySet c;
    while (c.Count() < nRays)
        c.Append(cPattern);
    c.aOrigins.resize(3 * nRays);
    c.aDirections.resize(3 * nRays);
    c.aDistances.resize(cPattern.aDistances.empty() ? 0 : nRays);
    return c;
}
} // namespace

// The second chunk repeats the first triangle for triangle, so every hit is tied across chunks: the earlier
// chunk's triangle must be kept for the nearest and the farthest hit, and both copies are counted.
TEST_F(TraceDriverTest, TiesAcrossChunksKeepTheEarlierChunksTriangle)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.nMaxPrimitivesPerGas = 1000; });
    const TriangleSoup cHalf = TestReference::MakeRandomSoup(1000, 41, 1.0f, 0.2f);
    TriangleSoup cSoup = cHalf;
    cSoup.Append(cHalf);
    const RaySet cRays = TestReference::MakeRaysInside(1500, 42, 1.2f);
    for (const TraceMode eMode : {TraceMode::NearestIndex, TraceMode::BothIndices})
    {
        SCOPED_TRACE(TraceModeName(eMode));
        ExpectMatchesReference(eMode, TraceRequest(cSoup, cRays), cHalf, true);
    }
    const TraceOutcome c = RunTrace(TraceMode::HitCount, TraceRequest(cSoup, cRays));
    const auto aRefs = ReferenceTracer(cHalf).TraceAll(cRays, true, false, c_fInf);
    ASSERT_EQ(c.eResult, Success) << c.sError;
    for (std::size_t i = 0; i < aRefs.size(); ++i)
        if (!aRefs[i].bAmbiguous)
            ASSERT_EQ(c.aCountHits[i], 2 * aRefs[i].CountHits()) << "ray " << i;
    ExpectNothingLeaked();
}

// A batch holds at least 2^20 + 2^28 / nBytesPerRay rays, so splitting the rays takes millions of them: 44
// bytes per ray (both ends with indices, origins, distances) and a budget just above the minimum give two
// batches for 7.5 million rays; two chunks on top make every batch merge.
TEST_F(TraceDriverTest, RayBatchesAndChunksTogetherGiveTheSameAnswers)
{
    Configure(
        [](RayTracingCpu::DeviceConfig& c)
        {
            c.nMaxPrimitivesPerGas = 1000;
            c.nMultiprocessors = 1;
            c.nThreadsPerMultiprocessor = 32;
        });
    const TriangleSoup cSoup = TestReference::MakeRandomSoup(1500, 61, 1.0f, 0.15f);
    RaySet cPattern = WithDistances(TestReference::MakeRaysInside(10007, 62, 1.2f), 3.0f);
    // Most rays untraced keeps it fast; they still travel through every batch.
    for (std::size_t i = 0; i < cPattern.aDistances.size(); ++i)
        if (i % 8 != 0)
            cPattern.aDistances[i] = 0.0f;
    const RaySet cRays = Repeat(cPattern, 7500000);
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bDistances = true;
    cRequest.nFreeGPUMemory = TightFreeMemory(44);
    RayTracingCpu::ResetCallCounts();
    const TraceOutcome c = RunTrace(TraceMode::BothIndices, cRequest);
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 2u * 2u) << "expected 2 chunks x 2 batches";
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(TraceMode::BothIndices, c,
                                 ReferenceTracer(cSoup).TraceAll(cPattern, true, true, c_fInf), c_fInf,
                                 &cSummary));
    EXPECT_GT(cSummary.nWithHits, cSummary.nRays / 20);
    ExpectNothingLeaked();
}

// The collecting run cuts batches by hits: 128 planes in the path of every ray make 12 bytes per hit (sorted
// on the device) outweigh the rays, so 2^18 rays that fit one counting batch need two collecting batches.
TEST_F(TraceDriverTest, CollectingRunSplitByHitsGivesTheSameAnswers)
{
    Configure(
        [](RayTracingCpu::DeviceConfig& c)
        {
            c.nMultiprocessors = 1;
            c.nThreadsPerMultiprocessor = 32;
        });
    const TriangleSoup cPlanes = TestReference::MakeParallelPlanes(128, 1.0f);
    RaySet cPattern = TestReference::MakeRaysInside(4099, 71, 0.9f);
    for (std::size_t i = 0; i < cPattern.Count(); ++i)
    {
        // Straight up from just below the first plane, away from the diagonal that splits each square.
        float* o = &cPattern.aOrigins[3 * i];
        float* d = &cPattern.aDirections[3 * i];
        o[2] = 0.5f;
        o[0] += std::abs(o[0] - o[1]) < 0.01f ? 0.05f : 0.0f;
        d[2] = 0.5f + std::abs(d[0]);
        d[0] = d[1] = 0.0f;
    }
    const RaySet cRays = Repeat(cPattern, 1u << 18);
    TraceRequest cRequest(cPlanes, cRays);
    cRequest.nFreeGPUMemory = TightFreeMemory(32);
    RayTracingCpu::ResetCallCounts();
    const TraceOutcome c = RunTrace(TraceMode::AllHits, cRequest);
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 1u + 2u)
        << "expected 1 counting and 2 collecting batches";
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(TraceMode::AllHits, c,
                                 ReferenceTracer(cPlanes).TraceAll(cPattern, true, false, c_fInf), c_fInf,
                                 &cSummary));
    EXPECT_EQ(cSummary.nAmbiguous, 0u);
    EXPECT_EQ(c.aAllHits.size(), 128u << 18);
    ExpectNothingLeaked();
}
