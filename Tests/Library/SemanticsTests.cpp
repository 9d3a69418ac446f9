// What every mode answers, checked against the brute-force reference: plain calls, several triangle chunks,
// several ray batches, and deferred stream work (which exposes a missing synchronisation).
#include "ReferenceCheck.h"
#include "StandInTest.h"
#include "TraceCall.h"

#include <chrono>
#include <cmath>
#include <functional>
#include <limits>

using TestReference::RayReference;
using TestReference::RaySet;
using TestReference::ReferenceTracer;
using TestReference::TriangleSoup;

namespace
{
constexpr float c_fInf = std::numeric_limits<float>::infinity();
constexpr float c_fNaN = std::numeric_limits<float>::quiet_NaN();

struct SemanticCase
{
    const char* sName;
    std::function<TriangleSoup()> fnSoup;
    std::function<RaySet()> fnRays;
    bool bOrigins;
    bool bDistances;
    float fMaxDistance;
    bool bSomeRaysHit; // guards against a case that silently checks nothing
};

void PrintTo(const SemanticCase& cCase, std::ostream* pStream)
{
    *pStream << cCase.sName;
}

TriangleSoup Soup()
{
    return TestReference::MakeRandomSoup(600, 1);
}

TriangleSoup Sphere()
{
    return TestReference::MakeIcosphere(3, 1.0f);
}

RaySet WithDistances(RaySet c, float fUpTo)
{
    TestReference::SetRandomDistances(c, 99, fUpTo);
    return c;
}

RaySet RaysInSoup()
{
    return WithDistances(TestReference::MakeRaysInside(2000, 2, 1.2f), 2.5f);
}

RaySet RaysInSphere()
{
    return WithDistances(TestReference::MakeRaysInside(2000, 3, 0.9f), 2.0f);
}

RaySet RaysAtSphere()
{
    return WithDistances(TestReference::MakeRaysOutside(2000, 4, 3.0f, 1.1f), 6.0f);
}

RaySet RaysAwayFromSoup()
{
    RaySet c = TestReference::MakeRaysOutside(500, 5, 5.0f, 1.0f);
    for (float& f : c.aDirections)
    {
        f = -f;
    }
    return c;
}

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
};

// Runs the request and checks it against the reference; at most 3 % of rays may be too close to call.
void ExpectMatchesReference(TraceMode eMode, const TraceRequest& cRequest,
                            const std::vector<RayReference>& aRefs, bool bSomeRaysHit)
{
    const TraceOutcome c = RunTrace(eMode, cRequest);
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(eMode, c, aRefs, cRequest.fMaxDistance, &cSummary));
    EXPECT_LE(cSummary.nAmbiguous * 100, cSummary.nRays * 3) << "too many ambiguous rays to judge the answer";
    if (bSomeRaysHit)
    {
        EXPECT_GE(cSummary.nWithHits * 5, cSummary.nRays) << "the case hardly hits anything";
    }
    else
    {
        EXPECT_EQ(cSummary.nWithHits, 0u);
    }
}

std::string ParamName(TraceMode eMode, const char* sCase, bool bDefer)
{
    return std::string(TraceModeName(eMode)) + "_" + sCase + (bDefer ? "_Deferred" : "");
}

class SemanticsTest : public StandInTest,
                      public ::testing::WithParamInterface<std::tuple<TraceMode, SemanticCase, bool>>
{
};
} // namespace

TEST_P(SemanticsTest, MatchesReference)
{
    const auto [eMode, cCase, bDefer] = GetParam();
    Configure([&](RayTracingCpu::DeviceConfig& c) { c.bDeferStreams = bDefer; });
    const TriangleSoup cSoup = cCase.fnSoup();
    const RaySet cRays = cCase.fnRays();
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bOrigins = cCase.bOrigins;
    cRequest.bDistances = cCase.bDistances;
    cRequest.fMaxDistance = cCase.fMaxDistance;
    cRequest.bUnusedPointers = true;
    const auto aRefs =
        ReferenceTracer(cSoup).TraceAll(cRays, cCase.bOrigins, cCase.bDistances, cCase.fMaxDistance);
    ExpectMatchesReference(eMode, cRequest, aRefs, cCase.bSomeRaysHit);
    ExpectNothingLeaked();
}

INSTANTIATE_TEST_SUITE_P(Library, SemanticsTest,
                         ::testing::Combine(::testing::ValuesIn(c_aAllTraceModes),
                                            ::testing::ValuesIn(c_aSemanticCases), ::testing::Bool()),
                         [](const auto& cInfo) {
                             return ParamName(std::get<0>(cInfo.param), std::get<1>(cInfo.param).sName,
                                              std::get<2>(cInfo.param));
                         });

// A device limit of 1000 triangles per acceleration structure cuts 2500 triangles into three chunks; the
// answers, indices included, must be those of the whole mesh.
class ChunkedTest : public StandInTest, public ::testing::WithParamInterface<std::tuple<TraceMode, bool>>
{
};

TEST_P(ChunkedTest, ChunksMergeIntoTheWholeMeshsAnswer)
{
    const auto [eMode, bDefer] = GetParam();
    Configure(
        [&](RayTracingCpu::DeviceConfig& c)
        {
            c.nMaxPrimitivesPerGas = 1000;
            c.bDeferStreams = bDefer;
        });
    const TriangleSoup cSoup = TestReference::MakeRandomSoup(2500, 31, 1.0f, 0.15f);
    const RaySet cRays = WithDistances(TestReference::MakeRaysInside(1500, 32, 1.2f), 3.0f);
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bDistances = true;
    RayTracingCpu::ResetCallCounts();
    ExpectMatchesReference(eMode, cRequest, ReferenceTracer(cSoup).TraceAll(cRays, true, true, c_fInf), true);
    const std::uint64_t nRuns = eMode == TraceMode::AllHits ? 2 : 1;
    EXPECT_EQ(RayTracingCpu::CallCount("optixAccelBuild"), 3 * nRuns);
    ExpectNothingLeaked();
}

INSTANTIATE_TEST_SUITE_P(Library, ChunkedTest,
                         ::testing::Combine(::testing::ValuesIn(c_aAllTraceModes), ::testing::Bool()),
                         [](const auto& cInfo) {
                             return ParamName(std::get<0>(cInfo.param), "Chunked", std::get<1>(cInfo.param));
                         });

class TraceDriverTest : public StandInTest
{
};

// The second chunk repeats the first triangle for triangle, so every hit is tied across chunks: the earlier
// chunk's triangle must be kept for the nearest and the farthest hit, and both copies are counted.
TEST_F(TraceDriverTest, TiesAcrossChunksKeepTheEarlierChunksTriangle)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.nMaxPrimitivesPerGas = 1000; });
    const TriangleSoup cHalf = TestReference::MakeRandomSoup(1000, 41, 1.0f, 0.2f);
    TriangleSoup cSoup = cHalf;
    cSoup.Append(cHalf);
    const RaySet cRays = TestReference::MakeRaysInside(1500, 42, 1.2f);
    const auto aRefs = ReferenceTracer(cHalf).TraceAll(cRays, true, false, c_fInf);
    for (const TraceMode eMode : {TraceMode::NearestIndex, TraceMode::BothIndices})
    {
        SCOPED_TRACE(TraceModeName(eMode));
        ExpectMatchesReference(eMode, TraceRequest(cSoup, cRays), aRefs, true);
    }
    const TraceOutcome c = RunTrace(TraceMode::HitCount, TraceRequest(cSoup, cRays));
    ASSERT_EQ(c.eResult, Success) << c.sError;
    for (std::size_t i = 0; i < aRefs.size(); ++i)
    {
        if (!aRefs[i].bAmbiguous)
        {
            ASSERT_EQ(c.aCountHits[i], 2 * aRefs[i].CountHits()) << "ray " << i;
        }
    }
    ExpectNothingLeaked();
}

// Below compute capability 7.5 the collected distances are sorted on the host even with one chunk.
TEST_F(TraceDriverTest, AllHitsSortedOnTheHostBelowComputeCapability75)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.iComputeCapability = 70; });
    const TriangleSoup cSoup = Sphere();
    const RaySet cRays = TestReference::MakeRaysOutside(1000, 51, 3.0f, 1.1f);
    ExpectMatchesReference(TraceMode::AllHits, TraceRequest(cSoup, cRays),
                           ReferenceTracer(cSoup).TraceAll(cRays, true, false, c_fInf), true);
    ExpectNothingLeaked();
}

namespace
{
constexpr std::uint64_t c_nMiB = 1ull << 20;
// Reserve of the default stand-in device: 10 % of 8 GiB.
constexpr std::uint64_t c_nReserve = 858993460;
// Budget that leaves just room for one chunk of a small mesh beside 2^20 rays of nBytesPerRay, plus nSlack:
// 2^20 rays, the 256 MiB that chunk sizing keeps back, and 1 MiB for stack and acceleration structure.
std::uint64_t TightFreeMemory(std::uint64_t nBytesPerRay, std::uint64_t nSlack)
{
    return c_nReserve + nBytesPerRay * c_nMiB + 256 * c_nMiB + c_nMiB + nSlack;
}

// A long ray set that repeats a short pattern of nPattern rays, so that the reference stays small.
RaySet Repeat(const RaySet& cPattern, std::uint64_t nRays)
{
    RaySet c;
    const std::uint64_t nPattern = cPattern.Count();
    c.aOrigins.reserve(3 * nRays);
    c.aDirections.reserve(3 * nRays);
    c.aDistances.reserve(cPattern.aDistances.empty() ? 0 : nRays);
    for (std::uint64_t i = 0; i < nRays; i += nPattern)
    {
        const std::uint64_t n = std::min(nPattern, nRays - i);
        c.aOrigins.insert(c.aOrigins.end(), cPattern.aOrigins.begin(), cPattern.aOrigins.begin() + 3 * n);
        c.aDirections.insert(c.aDirections.end(), cPattern.aDirections.begin(),
                             cPattern.aDirections.begin() + 3 * n);
        if (!cPattern.aDistances.empty())
        {
            c.aDistances.insert(c.aDistances.end(), cPattern.aDistances.begin(),
                                cPattern.aDistances.begin() + n);
        }
    }
    return c;
}

double SecondsSince(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}
} // namespace

// A batch holds at least 2^20 + 2^28 / nBytesPerRay rays, so splitting the rays of the first run takes
// millions of them: 44 bytes per ray (both ends with indices, origins, distances) and a budget just above the
// minimum give two batches for 7.5 million rays; two chunks on top make every batch merge.
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
    for (std::size_t i = 0; i < cPattern.aDistances.size(); ++i)
    {
        // Most rays are not traced, which keeps the test fast; they still travel through every batch.
        cPattern.aDistances[i] = i % 8 == 0 ? cPattern.aDistances[i] : 0.0f;
    }
    const RaySet cRays = Repeat(cPattern, 7500000);
    TraceRequest cRequest(cSoup, cRays);
    cRequest.bDistances = true;
    cRequest.nFreeGPUMemory = TightFreeMemory(44, 4 * c_nMiB);
    const auto aRefs = ReferenceTracer(cSoup).TraceAll(cPattern, true, true, c_fInf);

    const auto tStart = std::chrono::steady_clock::now();
    RayTracingCpu::ResetCallCounts();
    const TraceOutcome c = RunTrace(TraceMode::BothIndices, cRequest);
    RecordProperty("seconds", std::to_string(SecondsSince(tStart)));
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 2u * 2u) << "expected 2 chunks x 2 batches";
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(TraceMode::BothIndices, c, aRefs, c_fInf, &cSummary));
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
        if (std::abs(o[0] - o[1]) < 0.01f)
        {
            o[0] += 0.05f;
        }
        d[2] = 0.5f + std::abs(d[0]);
        d[0] = d[1] = 0.0f;
    }
    const RaySet cRays = Repeat(cPattern, 1u << 18);
    TraceRequest cRequest(cPlanes, cRays);
    cRequest.nFreeGPUMemory = TightFreeMemory(32, 4 * c_nMiB);
    const auto aRefs = ReferenceTracer(cPlanes).TraceAll(cPattern, true, false, c_fInf);

    const auto tStart = std::chrono::steady_clock::now();
    RayTracingCpu::ResetCallCounts();
    const TraceOutcome c = RunTrace(TraceMode::AllHits, cRequest);
    RecordProperty("seconds", std::to_string(SecondsSince(tStart)));
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 1u + 2u)
        << "expected 1 counting and 2 collecting batches";
    ReferenceCheckSummary cSummary;
    EXPECT_TRUE(MatchesReference(TraceMode::AllHits, c, aRefs, c_fInf, &cSummary));
    EXPECT_EQ(cSummary.nAmbiguous, 0u);
    EXPECT_EQ(c.aAllHits.size(), 128u << 18);
    ExpectNothingLeaked();
}
