#include <gtest/gtest.h>

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <random>

#include "StandInHarness.h"

namespace
{
class TraceTest : public testing::Test
{
protected:
    TraceTest() : m_cPipeline(m_cContext.Get()) { EXPECT_EQ(cudaStreamCreate(&m_stream), cudaSuccess); }
    ~TraceTest() override { cudaStreamDestroy(m_stream); }

    cudaError_t Trace(const TestGas& cGas, const RayBatch& cRays, TestLaunch cLaunch)
    {
        cLaunch.hTraversable = cGas.Handle();
        return LaunchTest(m_cPipeline, cLaunch, cRays, m_aResults, m_stream);
    }

    static TestLaunch Interval(float fTmin, float fTmax, unsigned int uRayFlags = 0, bool bIgnoreAll = false)
    {
        TestLaunch cLaunch{};
        cLaunch.fTmin = fTmin;
        cLaunch.fTmax = fTmax;
        cLaunch.uRayFlags = uRayFlags;
        cLaunch.bIgnoreAll = bIgnoreAll ? 1 : 0;
        return cLaunch;
    }

    ContextOwner m_cContext;
    TestPipeline m_cPipeline;
    cudaStream_t m_stream = nullptr;
    std::vector<RayResult> m_aResults;
};

RayBatch AlongZ(std::vector<float3> aOrigins)
{
    RayBatch cRays;
    cRays.aOrigins = std::move(aOrigins);
    cRays.aDirections.assign(cRays.aOrigins.size(), float3{0, 0, 1});
    return cRays;
}

// Triangles in the planes z = 1, 2, ..., n, all covering the z axis.
std::vector<Triangle> Stack(unsigned int n)
{
    std::vector<Triangle> aTriangles;
    for (unsigned int i = 1; i <= n; ++i)
    {
        const float z = static_cast<float>(i);
        aTriangles.push_back(Triangle{{-1, -1, z}, {1, -1, z}, {0, 1, z}});
    }
    return aTriangles;
}

TEST_F(TraceTest, ClosestHitMatchesBruteForce)
{
    const std::vector<Triangle> aTriangles = RandomTriangles(3000, 7);
    const RayBatch cRays = RandomRays(2000, 8);
    TestGas cGas(m_cContext.Get(), aTriangles, OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT);
    ASSERT_EQ(Trace(cGas, cRays, Interval(0.0f, 10.0f)), cudaSuccess);
    unsigned int nHits = 0;
    for (size_t i = 0; i < cRays.aDirections.size(); ++i)
    {
        const auto aReference =
            ReferenceHits(aTriangles, cRays.aOrigins[i], cRays.aDirections[i], 0.0f, 10.0f);
        const RayResult& cResult = m_aResults[i];
        EXPECT_EQ(cResult.nAnyHits, 0u) << "any hit is disabled on the geometry";
        if (aReference.empty())
        {
            EXPECT_EQ(cResult.iClosest, c_uNoPrimitive) << "ray " << i;
            EXPECT_EQ(cResult.bMissed, 1u);
            continue;
        }
        ++nHits;
        EXPECT_EQ(cResult.bMissed, 0u);
        EXPECT_NEAR(cResult.fClosest, aReference[0].second, 1e-5) << "ray " << i;
        if (aReference.size() < 2 || aReference[1].second - aReference[0].second > 1e-4)
            EXPECT_EQ(cResult.iClosest, aReference[0].first) << "ray " << i;
    }
    EXPECT_GT(nHits, 500u) << "the scene should be hit by many rays";
}

TEST_F(TraceTest, IgnoringEveryCandidateVisitsEachTriangleOnce)
{
    const std::vector<Triangle> aTriangles = RandomTriangles(3000, 11);
    const RayBatch cRays = RandomRays(2000, 12);
    TestGas cGas(m_cContext.Get(), aTriangles, OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL);
    ASSERT_EQ(Trace(cGas, cRays, Interval(0.0f, 10.0f, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, true)),
              cudaSuccess);
    for (size_t i = 0; i < cRays.aDirections.size(); ++i)
    {
        const auto aReference =
            ReferenceHits(aTriangles, cRays.aOrigins[i], cRays.aDirections[i], 0.0f, 10.0f);
        const RayResult& cResult = m_aResults[i];
        ASSERT_EQ(cResult.nAnyHits, aReference.size()) << "ray " << i;
        EXPECT_EQ(cResult.iClosest, c_uNoPrimitive) << "closest hit is disabled by the ray flags";
        EXPECT_EQ(cResult.bMissed, 1u) << "every candidate was ignored";
        const unsigned int nRecorded = std::min(cResult.nAnyHits, c_nMaxRecordedHits);
        std::vector<unsigned int> aSeen(cResult.aHits, cResult.aHits + nRecorded);
        std::sort(aSeen.begin(), aSeen.end());
        EXPECT_EQ(std::adjacent_find(aSeen.begin(), aSeen.end()), aSeen.end())
            << "a triangle was presented twice";
    }
}

TEST_F(TraceTest, AcceptedAnyHitsEndInTheClosestHit)
{
    TestGas cGas(m_cContext.Get(), Stack(5), OPTIX_GEOMETRY_FLAG_NONE);
    ASSERT_EQ(Trace(cGas, AlongZ({{0, 0, 0}}), Interval(0.0f, 10.0f)), cudaSuccess);
    const RayResult& cResult = m_aResults[0];
    EXPECT_GE(cResult.nAnyHits, 1u);
    EXPECT_LE(cResult.nAnyHits, 5u);
    EXPECT_EQ(cResult.iClosest, 0u);
    EXPECT_FLOAT_EQ(cResult.fClosest, 1.0f);
    for (unsigned int i = 0; i < std::min(cResult.nAnyHits, c_nMaxRecordedHits); ++i)
        EXPECT_FLOAT_EQ(cResult.aHitDistances[i], static_cast<float>(cResult.aHits[i] + 1))
            << "candidate distance";

    // The ray flag turns the any-hit program off even where the geometry allows it.
    ASSERT_EQ(Trace(cGas, AlongZ({{0, 0, 0}}), Interval(0.0f, 10.0f, OPTIX_RAY_FLAG_DISABLE_ANYHIT)),
              cudaSuccess);
    EXPECT_EQ(m_aResults[0].nAnyHits, 0u);
    EXPECT_EQ(m_aResults[0].iClosest, 0u);
}

TEST_F(TraceTest, IntervalIncludesBothEnds)
{
    TestGas cGas(m_cContext.Get(), Stack(1), OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT);
    const RayBatch cRay = AlongZ({{0, 0, 0}});
    // The traversal decides the ends on the exact distance 1 to within a float step or so.
    const float fBelow = 1.0f - 1e-6f;
    const float fAbove = 1.0f + 1e-6f;
    struct Case
    {
        float fTmin, fTmax;
        bool bHit;
    };
    const Case aCases[] = {{0.0f, 1.0f, true},     {0.0f, fBelow, false},       {1.0f, 5.0f, true},
                           {fAbove, 5.0f, false},  {1.0f, 1.0f, true},          {2.0f, 1.5f, false},
                           {0.0f, NAN, false},     {NAN, 5.0f, false},          {0.0f, FLT_MAX, true},
                           {0.0f, INFINITY, true}, {INFINITY, INFINITY, false}, {-5.0f, -1.0f, false},
                           {-5.0f, 5.0f, true},    {0.0f, -INFINITY, false}};
    for (const Case& cCase : aCases)
    {
        ASSERT_EQ(Trace(cGas, cRay, Interval(cCase.fTmin, cCase.fTmax)), cudaSuccess);
        EXPECT_EQ(m_aResults[0].iClosest == 0u, cCase.bHit)
            << "[" << cCase.fTmin << ", " << cCase.fTmax << "]";
        EXPECT_EQ(m_aResults[0].bMissed == 1u, !cCase.bHit);
        if (!cCase.bHit && !std::isnan(cCase.fTmax))
            EXPECT_EQ(m_aResults[0].fMissTmax, cCase.fTmax) << "the miss program sees the trace's tmax";
    }

    // Rays the traversal cannot take (NaN or huge coordinates) miss instead of failing.
    RayBatch cBad = AlongZ({{NAN, 0, 0}, {0, 0, 0}, {1e30f, 0, 0}});
    cBad.aDirections[1] = float3{0, INFINITY, 1};
    ASSERT_EQ(Trace(cGas, cBad, Interval(0.0f, 10.0f)), cudaSuccess);
    for (const RayResult& cResult : m_aResults)
        EXPECT_EQ(cResult.bMissed, 1u);
}

TEST_F(TraceTest, PrimitiveIndexIncludesTheOffset)
{
    const std::uint32_t iOffset = 1000000;
    TestGas cGas(m_cContext.Get(), Stack(3), OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL, iOffset);
    ASSERT_EQ(Trace(cGas, AlongZ({{0, 0, 1.5f}}), Interval(0.0f, 10.0f, 0, true)), cudaSuccess);
    ASSERT_EQ(m_aResults[0].nAnyHits, 2u);
    std::vector<unsigned int> aSeen(m_aResults[0].aHits, m_aResults[0].aHits + 2);
    std::sort(aSeen.begin(), aSeen.end());
    EXPECT_EQ(aSeen, (std::vector<unsigned int>{iOffset + 1, iOffset + 2}));

    ASSERT_EQ(Trace(cGas, AlongZ({{0, 0, 1.5f}}), Interval(0.0f, 10.0f)), cudaSuccess);
    EXPECT_EQ(m_aResults[0].iClosest, iOffset + 1);
    EXPECT_FLOAT_EQ(m_aResults[0].fClosest, 0.5f);
}

TEST_F(TraceTest, SharedEdgesAreWatertight)
{
    // Two triangles of a quad; rays through the diagonal and the shared corners must not slip through.
    const std::vector<Triangle> aQuad = {Triangle{{-1, -1, 1}, {1, -1, 1}, {1, 1, 1}},
                                         Triangle{{-1, -1, 1}, {1, 1, 1}, {-1, 1, 1}}};
    TestGas cGas(m_cContext.Get(), aQuad, OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL);
    const RayBatch cRays = AlongZ({{0, 0, 0}, {0.5f, 0.5f, 0}, {-0.25f, -0.25f, 0}, {0.1f, 0.1f, 0}});
    ASSERT_EQ(Trace(cGas, cRays, Interval(0.0f, 10.0f, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, true)),
              cudaSuccess);
    for (size_t i = 0; i < cRays.aDirections.size(); ++i)
    {
        EXPECT_GE(m_aResults[i].nAnyHits, 1u) << "ray " << i;
        EXPECT_LE(m_aResults[i].nAnyHits, 2u) << "ray " << i << ": at most once per triangle";
    }
}

TEST_F(TraceTest, ObliqueRaysThroughInteriorEdgesOfATiltedGridNeverSlipThrough)
{
    // A tilted, offset grid makes the edge points inexact in float; plain (non-robust) Embree lets several
    // percent of these rays through, where a GPU's watertight test hits a triangle every time.
    constexpr int n = 32;
    const auto Point = [](float x, float y) {
        return float3{0.1f * x + 0.013f, 0.1f * y - 0.007f, 0.1f * (0.3f * x + 0.7f * y)};
    };
    std::vector<Triangle> aGrid;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
        {
            const float x = static_cast<float>(i);
            const float y = static_cast<float>(j);
            aGrid.push_back(Triangle{Point(x, y), Point(x + 1, y), Point(x + 1, y + 1)});
            aGrid.push_back(Triangle{Point(x, y), Point(x + 1, y + 1), Point(x, y + 1)});
        }
    TestGas cGas(m_cContext.Get(), aGrid, OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL);

    std::mt19937 cRandom(5);
    std::uniform_int_distribution<int> cCell(1, n - 2);
    std::uniform_real_distribution<float> cAlong(0.01f, 0.99f);
    std::uniform_real_distribution<float> cTilt(-0.5f, 0.5f);
    RayBatch cRays;
    for (int k = 0; k < 30000; ++k)
    {
        const float x = static_cast<float>(cCell(cRandom));
        const float y = static_cast<float>(cCell(cRandom));
        const float t = cAlong(cRandom);
        // Diagonal, horizontal and vertical edges, vertices excluded.
        const float3 cTarget = k % 3 == 0   ? Point(x + t, y + t)
                               : k % 3 == 1 ? Point(x + t, y)
                                            : Point(x, y + t);
        float3 cDirection{cTilt(cRandom), cTilt(cRandom), 1.0f};
        const float fLength = std::sqrt(cDirection.x * cDirection.x + cDirection.y * cDirection.y + 1.0f);
        cDirection = float3{cDirection.x / fLength, cDirection.y / fLength, cDirection.z / fLength};
        cRays.aOrigins.push_back(
            float3{cTarget.x - 3 * cDirection.x, cTarget.y - 3 * cDirection.y, cTarget.z - 3 * cDirection.z});
        cRays.aDirections.push_back(cDirection);
    }
    ASSERT_EQ(Trace(cGas, cRays, Interval(0.0f, 10.0f, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, true)),
              cudaSuccess);
    unsigned int nSlipped = 0;
    for (size_t i = 0; i < cRays.aDirections.size(); ++i)
        nSlipped += m_aResults[i].nAnyHits == 0;
    EXPECT_EQ(nSlipped, 0u) << "of " << cRays.aDirections.size() << " rays";
}

TEST_F(TraceTest, DeviceAssertionFailsTheLaunchAtTheNextSynchronisation)
{
    TestPipeline::Programs cAssertPrograms;
    cAssertPrograms.sModuleText = c_sAssertModuleText;
    cAssertPrograms.sRaygen = "__raygen__assert";
    cAssertPrograms.sMiss = nullptr;
    cAssertPrograms.sClosestHit = nullptr;
    cAssertPrograms.sAnyHit = nullptr;
    cAssertPrograms.nPayloadValues = 1;
    TestPipeline cPipeline(m_cContext.Get(), cAssertPrograms);
    const RayBatch cRays = AlongZ(std::vector<float3>(100, float3{0, 0, 0}));
    TestLaunch cLaunch{};
    cLaunch.iFailingRay = 1000;
    EXPECT_EQ(LaunchTest(cPipeline, cLaunch, cRays, m_aResults, m_stream), cudaSuccess);
    EXPECT_EQ(m_aResults[99].nAnyHits, 1u);

    cLaunch.iFailingRay = 42;
    EXPECT_EQ(LaunchTest(cPipeline, cLaunch, cRays, m_aResults, m_stream), cudaErrorAssert);
    // On the null stream the launch runs inside the call, which then reports the failure itself.
    OptixResult result = OPTIX_SUCCESS;
    LaunchTest(cPipeline, cLaunch, cRays, m_aResults, nullptr, &result);
    EXPECT_EQ(result, OPTIX_ERROR_LAUNCH_FAILURE);
}

TEST_F(TraceTest, LaunchRefusesBadArgumentsAndFailsOnForeignRecords)
{
    TestGas cGas(m_cContext.Get(), Stack(1), OPTIX_GEOMETRY_FLAG_NONE);
    alignas(16) char aRecord[48] = {};
    OptixShaderBindingTable cSbt{};
    cSbt.raygenRecord = reinterpret_cast<CUdeviceptr>(aRecord);
    EXPECT_EQ(Optix().optixLaunch(m_cPipeline.Get(), m_stream, 0, 16, &cSbt, 1, 1, 1),
              OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(Optix().optixLaunch(m_cPipeline.Get(), m_stream, 0, 0, nullptr, 1, 1, 1),
              OPTIX_ERROR_INVALID_VALUE);
    cSbt.raygenRecord += 8;
    EXPECT_EQ(Optix().optixLaunch(m_cPipeline.Get(), m_stream, 0, 0, &cSbt, 1, 1, 1),
              OPTIX_ERROR_INVALID_VALUE);
    cSbt.raygenRecord -= 8;
    EXPECT_EQ(Optix().optixLaunch(m_cPipeline.Get(), m_stream, 0, 0, &cSbt, 1u << 16, 1u << 16, 1),
              OPTIX_ERROR_INVALID_VALUE);

    // A record whose header no group of the pipeline wrote fails the launch, like a GPU fault.
    EXPECT_EQ(Optix().optixLaunch(m_cPipeline.Get(), m_stream, 0, 0, &cSbt, 1, 1, 1), OPTIX_SUCCESS);
    EXPECT_EQ(cudaStreamSynchronize(m_stream), cudaErrorLaunchFailure);
}
} // namespace
