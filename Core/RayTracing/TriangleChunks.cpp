#include "TriangleChunks.h"

#include <algorithm>
#include <cstring>

#include "OptixApi.h"
#include "RayTracingChecks.h"
#include "ThrustExtra.h"

OptixBuildInput MakeTriangleBuildInput(const CUdeviceptr* pVertexBuffer, unsigned int numVertices,
                                       unsigned int vertexStrideInBytes, const unsigned int* pGeometryFlags,
                                       unsigned int primitiveIndexOffset)
{
    OptixBuildInput input; // a union: "= {}" would promise zeros only in its first member
    std::memset(&input, 0, sizeof(input));
    input.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
    input.triangleArray.vertexBuffers = pVertexBuffer;
    input.triangleArray.numVertices = numVertices;
    input.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
    input.triangleArray.vertexStrideInBytes = vertexStrideInBytes;
    input.triangleArray.flags = pGeometryFlags;
    input.triangleArray.numSbtRecords = 1;
    input.triangleArray.primitiveIndexOffset = primitiveIndexOffset;
    return input;
}

std::pair<std::size_t, std::size_t> FindTriangleChunkSize(OptixDeviceContext ctx, std::size_t nTriangles,
                                                          std::size_t nBudget, unsigned int uGeometryFlags,
                                                          const OptixAccelBuildOptions& opts)
{
    if (nBudget <= c_nChunkBudgetFloor)
        return {0, 0};
    unsigned int nMaxPrimitivesPerGas = 0;
    // clang-format off
    CHECK_OPTIX(optixDeviceContextGetProperty(ctx, OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS, &nMaxPrimitivesPerGas, sizeof(nMaxPrimitivesPerGas)));
    // clang-format on
    const std::size_t nInnerBudget = nBudget - c_nChunkBudgetFloor;

    // Only sizes are asked for, so the vertex address is a placeholder that is never read.
    const CUdeviceptr nPlaceholderVertices = 1024;
    auto EstimateChunkMemory = [&](std::size_t n) -> std::pair<bool, std::size_t>
    {
        if (n == 0)
            return {true, 0};
        const OptixBuildInput in = MakeTriangleBuildInput(
            &nPlaceholderVertices, static_cast<unsigned int>(3 * n), 12, &uGeometryFlags, 0);
        OptixAccelBufferSizes sizes = {};
        // clang-format off
        CHECK_OPTIX(optixAccelComputeMemoryUsage(ctx, &opts, &in, 1, &sizes));
        // clang-format on
        const std::size_t nBytes = sizes.outputSizeInBytes + sizes.tempSizeInBytes + 36 * n;
        return {nBytes <= nInnerBudget, nBytes};
    };

    const std::size_t nCandidate = std::min({nTriangles, static_cast<std::size_t>(nMaxPrimitivesPerGas),
                                             nInnerBudget / 64, c_nMaximumTrianglesPerChunk});
    const auto [bCandidateFits, nCandidateBytes] = EstimateChunkMemory(nCandidate);
    if (bCandidateFits)
        return {nCandidate, nCandidateBytes};

    // Halve down to a size that fits, then bisect between it and the last one that did not.
    std::size_t hi = nCandidate;
    std::size_t lo = nCandidate / 2;
    std::size_t nLoBytes = 0;
    for (;;)
    {
        const auto [bFits, nBytes] = EstimateChunkMemory(lo);
        if (bFits)
        {
            nLoBytes = nBytes;
            break;
        }
        hi = lo;
        lo = lo / 2;
    }
    while (lo + 1 < hi)
    {
        const std::size_t mid = (lo + hi) / 2;
        const auto [bFits, nBytes] = EstimateChunkMemory(mid);
        if (bFits)
        {
            lo = mid;
            nLoBytes = nBytes;
        }
        else
            hi = mid;
    }
    return {lo, nLoBytes};
}

ErrorResult BuildChunkGas(OptixDeviceContext hContext, CudaStream& cStream, bool bMemoryPoolsSupported,
                          const float* pTriangles, std::size_t iStart, std::size_t iEnd,
                          const unsigned int& uGeometryFlags, DeviceBuffer<char>& d_gas_temp,
                          DeviceBuffer<char>& d_gas_output, OptixTraversableHandle& gas_handle,
                          ErrorResult& cRunningResult)
{
    // Released on every exit; a plain cudaFree waits for the build that reads it.
    DeviceBuffer<float3> d_vertices(cStream.GetStream(), bMemoryPoolsSupported);
    d_vertices.resize((size_t)3 * (iEnd - iStart));
    // clang-format off
    CHECK_CUDA(cudaMemcpyAsync(d_vertices.data(), reinterpret_cast<const float3*>(pTriangles) + (size_t)3 * iStart, (size_t)3 * (iEnd - iStart) * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream()));
    // clang-format on

    const CUdeviceptr vertexBuffer = reinterpret_cast<CUdeviceptr>(d_vertices.data());
    const OptixBuildInput input =
        MakeTriangleBuildInput(&vertexBuffer, static_cast<unsigned int>(3 * (iEnd - iStart)), 0,
                               &uGeometryFlags, static_cast<unsigned int>(iStart));
    OptixAccelBuildOptions opts = {};
    opts.buildFlags = OPTIX_BUILD_FLAG_NONE;
    opts.operation = OPTIX_BUILD_OPERATION_BUILD;
    OptixAccelBufferSizes sizes = {};
    cRunningResult = MakeOptixError(optixAccelComputeMemoryUsage(hContext, &opts, &input, 1, &sizes),
                                    "optixAccelComputeMemoryUsage");
    if (cRunningResult.first != Success)
        return cRunningResult;

    d_gas_temp.resize(sizes.tempSizeInBytes);
    d_gas_output.resize(sizes.outputSizeInBytes);
    cRunningResult = MakeOptixError(optixAccelBuild(hContext, cStream.GetStream(), &opts, &input, 1,
                                                    reinterpret_cast<CUdeviceptr>(d_gas_temp.data()),
                                                    sizes.tempSizeInBytes,
                                                    reinterpret_cast<CUdeviceptr>(d_gas_output.data()),
                                                    sizes.outputSizeInBytes, &gas_handle, nullptr, 0),
                                    "optixAccelBuild");
    return cRunningResult;
}
