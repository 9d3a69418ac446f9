#include "Flavour.h"
#include "ToolError.h"
#include "TraceRunner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <optional>
#include <random>

namespace
{
// Two parallel squares across the z axis at z = 5 and z = 8.
Mesh TwoSquares()
{
    Mesh cMesh;
    for (float z : {5.0f, 8.0f})
    {
        cMesh.AddTriangle({-1, -1, z}, {1, -1, z}, {1, 1, z});
        cMesh.AddTriangle({-1, -1, z}, {1, 1, z}, {-1, 1, z});
    }
    return cMesh;
}

Mesh RandomSoup(std::uint64_t nTriangles, std::mt19937& cRandom)
{
    std::uniform_real_distribution<float> cCoordinate(-1.0f, 1.0f);
    Mesh cMesh;
    for (std::uint64_t i = 0; i < nTriangles; ++i)
    {
        const Vec3 cCorner{cCoordinate(cRandom), cCoordinate(cRandom), cCoordinate(cRandom)};
        const auto Near = [&] {
            return cCorner + Vec3{cCoordinate(cRandom), cCoordinate(cRandom), cCoordinate(cRandom)} * 0.3f;
        };
        cMesh.AddTriangle(cCorner, Near(), Near());
    }
    return cMesh;
}

Rays RandomRays(std::uint64_t nRays, std::mt19937& cRandom)
{
    std::uniform_real_distribution<float> cCoordinate(-1.0f, 1.0f);
    Rays cRays;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        const Vec3 cOrigin{cCoordinate(cRandom) * 2, cCoordinate(cRandom) * 2, cCoordinate(cRandom) * 2};
        cRays.Add(cOrigin,
                  Normalize(Vec3{cCoordinate(cRandom), cCoordinate(cRandom), cCoordinate(cRandom)} * 0.5f -
                            cOrigin));
        cRays.aDistances.push_back(i % 5 == 0 ? 1.0f : 100.0f);
    }
    return cRays;
}

void ExpectNear(const std::vector<float>& aActual, const std::vector<float>& aExpected)
{
    ASSERT_EQ(aActual.size(), aExpected.size());
    for (std::size_t i = 0; i < aActual.size(); ++i)
        EXPECT_FLOAT_EQ(aActual[i], aExpected[i]) << "element " << i;
}

#ifdef RAYCAST_HAVE_CPU_FLAVOUR
class TraceRunner : public testing::Test
{
protected:
    void SetUp() override { m_cFlavour.emplace(Flavour::Load(DeviceChoice::Cpu, 0)); }
    TraceResults Run(const Mesh& cMesh, const Rays& cRays, TraceMode eMode, std::uint64_t nSliceRays)
    {
        TraceRequest cRequest;
        cRequest.eMode = eMode;
        cRequest.fMaxDistance = 50.0f;
        cRequest.nSliceRays = nSliceRays;
        TraceResults cResults;
        const TraceStatistics cStatistics = Trace(m_cFlavour->RayTracing(), cMesh, cRays, cRequest, cResults);
        EXPECT_EQ(cStatistics.nCalls, nSliceRays == 0 ? 1 : (cRays.Count() + nSliceRays - 1) / nSliceRays);
        return cResults;
    }
    std::optional<Flavour> m_cFlavour;
};
#endif

RayTracingErrorType FailingCall(RayTracingResults&, std::uint64_t, const float*, std::uint64_t, const float*,
                                const float*, const float*, int, std::string&, std::string& sError, bool,
                                float, std::uint64_t)
{
    sError = "Triangle chunk does not fit.\n";
    return OutOfMemory;
}

RayTracingErrorType ThrowingCall(RayTracingResults&, std::uint64_t, const float*, std::uint64_t, const float*,
                                 const float*, const float*, int, std::string&, std::string&, bool, float,
                                 std::uint64_t)
{
    throw std::string("cudaSetDevice(iGpuId) failed: invalid device ordinal\n");
}
} // namespace

#ifdef RAYCAST_HAVE_CPU_FLAVOUR
TEST_F(TraceRunner, EveryModeAnswersTwoSquares)
{
    Rays cRays;
    cRays.Add({0.2f, 0.3f, 0}, {0, 0, 1});  // through both squares
    cRays.Add({0.2f, 0.3f, 0}, {0, 0, -1}); // away from them
    cRays.Add({0.2f, 0.3f, 0}, {0, 0, 2});  // unnormalised: distances are ray parameters
    cRays.aDistances = {100.0f, 100.0f, 3.0f};
    const Mesh cMesh = TwoSquares();

    const TraceResults cBoth = Run(cMesh, cRays, TraceMode::BothIndex, 0);
    ExpectNear(cBoth.aNearestDistance, {5.0f, 50.0f, 2.5f});
    ExpectNear(cBoth.aFarthestDistance, {8.0f, std::numeric_limits<float>::lowest(), 2.5f});
    EXPECT_LT(cBoth.aNearestIndex[0], 2);
    EXPECT_GE(cBoth.aFarthestIndex[0], 2);
    EXPECT_EQ(cBoth.aNearestIndex[1], -1);
    EXPECT_EQ(cBoth.aFarthestIndex[1], -1);

    EXPECT_EQ(Run(cMesh, cRays, TraceMode::Count, 0).aCounts, (std::vector<std::uint64_t>{2, 0, 1}));
    const TraceResults cAll = Run(cMesh, cRays, TraceMode::All, 0);
    EXPECT_EQ(cAll.aCounts, (std::vector<std::uint64_t>{0, 2, 2, 3}));
    ExpectNear(cAll.aAllHits, {5.0f, 8.0f, 2.5f});
}

TEST_F(TraceRunner, SlicedCallsGiveTheAnswersOfOneCall)
{
    std::mt19937 cRandom(7);
    const Mesh cMesh = RandomSoup(300, cRandom);
    const Rays cRays = RandomRays(1001, cRandom);
    for (TraceMode eMode : AllModes())
    {
        SCOPED_TRACE(ModeName(eMode));
        const TraceResults cWhole = Run(cMesh, cRays, eMode, 0);
        const TraceResults cSliced = Run(cMesh, cRays, eMode, 97);
        EXPECT_EQ(cSliced.aNearestDistance, cWhole.aNearestDistance);
        EXPECT_EQ(cSliced.aNearestIndex, cWhole.aNearestIndex);
        EXPECT_EQ(cSliced.aFarthestDistance, cWhole.aFarthestDistance);
        EXPECT_EQ(cSliced.aFarthestIndex, cWhole.aFarthestIndex);
        EXPECT_EQ(cSliced.aCounts, cWhole.aCounts);
        EXPECT_EQ(cSliced.aAllHits, cWhole.aAllHits);
    }
    // The soup is dense enough that all-hits offsets really need rebasing.
    EXPECT_GT(Run(cMesh, cRays, TraceMode::All, 0).aAllHits.size(), 1001u);
}

#endif

TEST(TraceRunnerFailures, TheLibrarysResultAndMessageAreShownAsTheyAre)
{
    Rays cRays;
    cRays.Add({}, {0, 0, 1});
    TraceResults cResults;
    try
    {
        Trace(FailingCall, TwoSquares(), cRays, TraceRequest(), cResults);
        ADD_FAILURE() << "no error";
    }
    catch (const ToolError& cError)
    {
        EXPECT_STREQ(cError.what(), "RayTracing returned 2 (OutOfMemory): Triangle chunk does not fit.");
    }
    try
    {
        Trace(ThrowingCall, TwoSquares(), cRays, TraceRequest(), cResults);
        ADD_FAILURE() << "no error";
    }
    catch (const ToolError& cError)
    {
        EXPECT_STREQ(cError.what(),
                     "RayTracing failed: cudaSetDevice(iGpuId) failed: invalid device ordinal");
    }
}
