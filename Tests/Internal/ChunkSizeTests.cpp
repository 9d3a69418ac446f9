// The chunk search through the stand-in driver, whose size model is 256 + 64 n output and 256 + 32 n
// scratch bytes, each rounded up to 128; a chunk of n triangles also holds 36 n bytes of vertices.
#include <gtest/gtest.h>

#include "OptixApi.h"
#include "StandInTest.h"
#include "TriangleChunks.h"

namespace
{
std::size_t RoundUp128(std::size_t n)
{
    return (n + 127) / 128 * 128;
}
std::size_t ModelBytes(std::size_t n)
{
    return n == 0 ? 0 : RoundUp128(256 + 64 * n) + RoundUp128(256 + 32 * n) + 36 * n;
}

class ChunkSizeTest : public StandInTest
{
protected:
    void SetUp() override
    {
        StandInTest::SetUp();
        ASSERT_EQ(optixInit(), OPTIX_SUCCESS);
        ASSERT_EQ(optixDeviceContextCreate(0, nullptr, &m_context), OPTIX_SUCCESS);
        m_opts.operation = OPTIX_BUILD_OPERATION_BUILD;
    }
    void TearDown() override
    {
        optixDeviceContextDestroy(m_context);
        StandInTest::TearDown();
    }
    std::pair<std::size_t, std::size_t> Find(std::size_t nTriangles, std::size_t nBudget)
    {
        return FindTriangleChunkSize(m_context, nTriangles, nBudget, OPTIX_GEOMETRY_FLAG_NONE, m_opts);
    }
    OptixDeviceContext m_context = nullptr;
    OptixAccelBuildOptions m_opts = {};
};

TEST_F(ChunkSizeTest, NoChunkWithinTheFloor)
{
    EXPECT_EQ(Find(1000, c_nChunkBudgetFloor), std::make_pair(std::size_t(0), std::size_t(0)));
    EXPECT_EQ(RayTracingCpu::CallCount("optixAccelComputeMemoryUsage"), 0u);
}

TEST_F(ChunkSizeTest, WholeMeshWhenItFits)
{
    EXPECT_EQ(Find(1000, c_nChunkBudgetFloor + ModelBytes(1000)),
              std::make_pair(std::size_t(1000), ModelBytes(1000)));
    EXPECT_EQ(RayTracingCpu::CallCount("optixAccelComputeMemoryUsage"), 1u);
}

TEST_F(ChunkSizeTest, PrimitiveLimitCapsTheChunk)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.nMaxPrimitivesPerGas = 777; });
    EXPECT_EQ(Find(1000000, std::size_t(4) << 30).first, 777u);
}

TEST_F(ChunkSizeTest, LargestFittingSizeInLogarithmicallyManyQueries)
{
    for (const std::size_t nInner : {std::size_t(1000000), std::size_t(12345678), std::size_t(500)})
    {
        RayTracingCpu::ResetCallCounts();
        const auto [nChunk, nBytes] = Find(100000000, c_nChunkBudgetFloor + nInner);
        EXPECT_LE(ModelBytes(nChunk), nInner);
        EXPECT_GT(ModelBytes(nChunk + 1), nInner) << "not the largest";
        EXPECT_EQ(nBytes, ModelBytes(nChunk));
        // First candidate is inner / 64 triangles: about 2 log2 of it queries at most.
        EXPECT_LE(RayTracingCpu::CallCount("optixAccelComputeMemoryUsage"), 2 * 25u);
    }
}
} // namespace
