#include <gtest/gtest.h>

#include <cmath>

#include "StandInHarness.h"

namespace
{
class AccelTest : public testing::Test
{
protected:
    AccelTest()
    {
        m_cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
        m_cInput.triangleArray.vertexBuffers = &m_pVertices;
        m_cInput.triangleArray.numVertices = 300;
        m_cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
        m_cInput.triangleArray.flags = &m_uFlags;
        m_cInput.triangleArray.numSbtRecords = 1;
        m_cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
    }

    OptixResult Sizes(OptixAccelBufferSizes& cSizes)
    {
        return Optix().optixAccelComputeMemoryUsage(m_cContext.Get(), &m_cOptions, &m_cInput, 1, &cSizes);
    }

    ContextOwner m_cContext;
    CUdeviceptr m_pVertices = 1024; // never read when only sizes are asked for
    unsigned int m_uFlags = OPTIX_GEOMETRY_FLAG_NONE;
    OptixBuildInput m_cInput{};
    OptixAccelBuildOptions m_cOptions{};
};

TEST_F(AccelTest, MemoryModelGrowsWithTheTriangleCount)
{
    OptixAccelBufferSizes cSmall{}, cLarge{};
    ASSERT_EQ(Sizes(cSmall), OPTIX_SUCCESS);
    m_cInput.triangleArray.numVertices = 3 * 100000;
    ASSERT_EQ(Sizes(cLarge), OPTIX_SUCCESS);
    EXPECT_GT(cLarge.outputSizeInBytes, cSmall.outputSizeInBytes);
    EXPECT_GT(cLarge.tempSizeInBytes, cSmall.tempSizeInBytes);
    EXPECT_GE(cLarge.outputSizeInBytes, 100000u * 36) << "the structure holds at least the vertices";
    EXPECT_EQ(cLarge.outputSizeInBytes % OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT, 0u);
    EXPECT_EQ(cLarge.tempSizeInBytes % OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT, 0u);
}

TEST_F(AccelTest, RefusesInputsItCannotBuild)
{
    OptixAccelBufferSizes cSizes{};
    m_cInput.triangleArray.numVertices = 301;
    EXPECT_EQ(Sizes(cSizes), OPTIX_ERROR_INVALID_VALUE);
    m_cInput.triangleArray.numVertices = 300;
    m_cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_HALF3;
    EXPECT_EQ(Sizes(cSizes), OPTIX_ERROR_NOT_SUPPORTED);
    m_cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
    m_cInput.triangleArray.flags = nullptr;
    EXPECT_EQ(Sizes(cSizes), OPTIX_ERROR_INVALID_VALUE);
    m_cInput.triangleArray.flags = &m_uFlags;
    m_cInput.triangleArray.numSbtRecords = 2;
    EXPECT_EQ(Sizes(cSizes), OPTIX_ERROR_NOT_SUPPORTED);
    m_cInput.triangleArray.numSbtRecords = 1;
    m_cInput.type = OPTIX_BUILD_INPUT_TYPE_INSTANCES;
    EXPECT_EQ(Sizes(cSizes), OPTIX_ERROR_NOT_SUPPORTED);
    m_cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
    Control().SetMaxPrimitivesPerGas(99);
    EXPECT_EQ(Sizes(cSizes), OPTIX_ERROR_INVALID_VALUE);
    Control().SetMaxPrimitivesPerGas(100);
    EXPECT_EQ(Sizes(cSizes), OPTIX_SUCCESS);
    Control().SetMaxPrimitivesPerGas(1u << 29);

    // The build itself also checks its buffers.
    std::vector<Triangle> aTriangles(100);
    void* pVertices = nullptr;
    void* pOutput = nullptr;
    void* pTemp = nullptr;
    ASSERT_EQ(cudaMalloc(&pVertices, aTriangles.size() * sizeof(Triangle)), cudaSuccess);
    ASSERT_EQ(cudaMalloc(&pOutput, cSizes.outputSizeInBytes + 128), cudaSuccess);
    ASSERT_EQ(cudaMalloc(&pTemp, cSizes.tempSizeInBytes), cudaSuccess);
    m_pVertices = reinterpret_cast<CUdeviceptr>(pVertices);
    const CUdeviceptr pOut = reinterpret_cast<CUdeviceptr>(pOutput);
    const CUdeviceptr pTmp = reinterpret_cast<CUdeviceptr>(pTemp);
    OptixTraversableHandle hTraversable = 0;
    auto build = [&](CUdeviceptr pTo, size_t nOutputSize)
    {
        return Optix().optixAccelBuild(m_cContext.Get(), nullptr, &m_cOptions, &m_cInput, 1, pTmp,
                                       cSizes.tempSizeInBytes, pTo, nOutputSize, &hTraversable, nullptr, 0);
    };
    EXPECT_EQ(build(pOut, cSizes.outputSizeInBytes - 1), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(build(pOut + 64, cSizes.outputSizeInBytes), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(build(pOut, cSizes.outputSizeInBytes), OPTIX_SUCCESS);
    EXPECT_EQ(hTraversable, pOut);
    cudaFree(pVertices);
    cudaFree(pOutput);
    cudaFree(pTemp);
}

TEST_F(AccelTest, TheBuildCopiesTheVerticesAndTheNextBuildReplacesIt)
{
    TestPipeline cPipeline(m_cContext.Get());
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    const Triangle cNear{{-1, -1, 1}, {1, -1, 1}, {0, 1, 1}};
    const Triangle cFar{{-1, -1, 3}, {1, -1, 3}, {0, 1, 3}};
    RayBatch cRays;
    cRays.aOrigins = {{0, 0, 0}};
    cRays.aDirections = {{0, 0, 1}};
    TestLaunch cLaunch{};
    cLaunch.fTmax = 100.0f;
    std::vector<RayResult> aResults;
    TestGas cGas(m_cContext.Get(), {cNear}, OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT, 0, stream);
    ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    cLaunch.hTraversable = cGas.Handle();
    ASSERT_EQ(LaunchTest(cPipeline, cLaunch, cRays, aResults, stream), cudaSuccess);
    EXPECT_FLOAT_EQ(aResults[0].fClosest, 1.0f);

    // A new build into the same output memory replaces the structure; it keeps no reference to the vertices.
    void* pVertices = nullptr;
    void* pTemp = nullptr;
    ASSERT_EQ(cudaMalloc(&pVertices, sizeof(Triangle)), cudaSuccess);
    ASSERT_EQ(cudaMemcpy(pVertices, &cFar, sizeof(cFar), cudaMemcpyHostToDevice), cudaSuccess);
    m_pVertices = reinterpret_cast<CUdeviceptr>(pVertices);
    m_cInput.triangleArray.numVertices = 3;
    m_uFlags = OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT;
    OptixAccelBufferSizes cSizes{};
    ASSERT_EQ(Sizes(cSizes), OPTIX_SUCCESS);
    ASSERT_EQ(cudaMalloc(&pTemp, cSizes.tempSizeInBytes), cudaSuccess);
    OptixTraversableHandle hTraversable = 0;
    ASSERT_EQ(Optix().optixAccelBuild(m_cContext.Get(), stream, &m_cOptions, &m_cInput, 1,
                                      reinterpret_cast<CUdeviceptr>(pTemp), cSizes.tempSizeInBytes,
                                      cLaunch.hTraversable, cSizes.outputSizeInBytes, &hTraversable, nullptr,
                                      0),
              OPTIX_SUCCESS);
    ASSERT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    const float aNaN[9] = {NAN, NAN, NAN, NAN, NAN, NAN, NAN, NAN, NAN};
    ASSERT_EQ(cudaMemcpy(pVertices, aNaN, sizeof(aNaN), cudaMemcpyHostToDevice), cudaSuccess);
    EXPECT_EQ(hTraversable, cLaunch.hTraversable);
    ASSERT_EQ(LaunchTest(cPipeline, cLaunch, cRays, aResults, stream), cudaSuccess);
    EXPECT_FLOAT_EQ(aResults[0].fClosest, 3.0f);
    cudaFree(pVertices);
    cudaFree(pTemp);
    cudaStreamDestroy(stream);
}
} // namespace
