// Acceleration structures: the memory-size model and the build of an Embree scene on the caller's stream.
#include "Api.h"
#include "ApiSupport.h"

#include <cstdio>

#include "StandInStream.h"

namespace OptixStandIn
{
namespace
{
// Size model, linear in the triangle count like OptiX's uncompacted sizes: the output stands for the BVH
// with its copy of the vertices, the scratch for the builder's primitive references. The stand-in keeps
// its own scene in host memory, so the buffers are only reserved, never read.
constexpr size_t c_nOutputBytesBase = 256;
constexpr size_t c_nOutputBytesPerTriangle = 64;
constexpr size_t c_nTempBytesBase = 256;
constexpr size_t c_nTempBytesPerTriangle = 32;

size_t AlignedToAccelBuffer(size_t nBytes)
{
    return (nBytes + OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT - 1) &
           ~static_cast<size_t>(OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT - 1);
}

OptixAccelBufferSizes SizesFor(std::uint64_t nTriangles)
{
    OptixAccelBufferSizes cSizes{};
    cSizes.outputSizeInBytes =
        AlignedToAccelBuffer(c_nOutputBytesBase + c_nOutputBytesPerTriangle * nTriangles);
    cSizes.tempSizeInBytes = AlignedToAccelBuffer(c_nTempBytesBase + c_nTempBytesPerTriangle * nTriangles);
    cSizes.tempUpdateSizeInBytes = 0;
    return cSizes;
}

struct CheckedBuild
{
    OptixResult result = OPTIX_SUCCESS;
    std::string sError;
    std::uint64_t nTriangles = 0;
    std::vector<TriangleInput> aInputs;
};

CheckedBuild CheckBuild(const OptixAccelBuildOptions* pOptions, const OptixBuildInput* aInputs,
                        unsigned int nInputs, bool bBuild)
{
    CheckedBuild cBuild;
    auto fail = [&](OptixResult result, std::string sError)
    {
        cBuild.result = result;
        cBuild.sError = std::move(sError);
        return cBuild;
    };
    if (!pOptions || !aInputs || nInputs == 0)
        return fail(OPTIX_ERROR_INVALID_VALUE, "build options and at least one build input must be given");
    if (pOptions->operation == OPTIX_BUILD_OPERATION_UPDATE)
        return fail(OPTIX_ERROR_NOT_SUPPORTED, "updates are not supported");
    if (pOptions->operation != OPTIX_BUILD_OPERATION_BUILD)
        return fail(OPTIX_ERROR_INVALID_VALUE,
                    "invalid build operation " + std::to_string(pOptions->operation));
    if (pOptions->buildFlags & ~0xFFu)
        return fail(OPTIX_ERROR_INVALID_VALUE, "invalid buildFlags " + std::to_string(pOptions->buildFlags));
    if (pOptions->motionOptions.numKeys > 1)
        return fail(OPTIX_ERROR_NOT_SUPPORTED, "motion blur is not supported");

    for (unsigned int i = 0; i < nInputs; ++i)
    {
        const std::string sInput = "build input " + std::to_string(i) + ": ";
        if (aInputs[i].type != OPTIX_BUILD_INPUT_TYPE_TRIANGLES)
            return fail(OPTIX_ERROR_NOT_SUPPORTED, sInput + "only triangle build inputs are supported");
        const OptixBuildInputTriangleArray& cTriangles = aInputs[i].triangleArray;
        if (cTriangles.vertexFormat != OPTIX_VERTEX_FORMAT_FLOAT3)
            return fail(OPTIX_ERROR_NOT_SUPPORTED,
                        sInput + "the vertex format must be OPTIX_VERTEX_FORMAT_FLOAT3");
        if (cTriangles.indexBuffer != 0 || cTriangles.numIndexTriplets != 0 ||
            cTriangles.indexFormat != OPTIX_INDICES_FORMAT_NONE)
            return fail(OPTIX_ERROR_NOT_SUPPORTED, sInput + "index buffers are not supported");
        if (cTriangles.preTransform != 0 || cTriangles.transformFormat != OPTIX_TRANSFORM_FORMAT_NONE)
            return fail(OPTIX_ERROR_NOT_SUPPORTED, sInput + "pre-transforms are not supported");
        if (cTriangles.numVertices % 3 != 0)
            return fail(OPTIX_ERROR_INVALID_VALUE, sInput +
                                                       "numVertices must be a multiple of 3 without an index "
                                                       "buffer, not " +
                                                       std::to_string(cTriangles.numVertices));
        const unsigned int nStride =
            cTriangles.vertexStrideInBytes == 0 ? 12 : cTriangles.vertexStrideInBytes;
        if (nStride < 12 || nStride % 4 != 0)
            return fail(OPTIX_ERROR_INVALID_VALUE, sInput + "invalid vertexStrideInBytes " +
                                                       std::to_string(cTriangles.vertexStrideInBytes));
        if (cTriangles.numSbtRecords != 1)
            return fail(cTriangles.numSbtRecords == 0 ? OPTIX_ERROR_INVALID_VALUE : OPTIX_ERROR_NOT_SUPPORTED,
                        sInput + "exactly one SBT record is supported");
        if (!cTriangles.flags)
            return fail(OPTIX_ERROR_INVALID_VALUE, sInput + "the flags array is null");
        if (cTriangles.flags[0] & ~7u)
            return fail(OPTIX_ERROR_INVALID_VALUE,
                        sInput + "invalid geometry flags " + std::to_string(cTriangles.flags[0]));
        if (cTriangles.numVertices > 0 && !cTriangles.vertexBuffers)
            return fail(OPTIX_ERROR_INVALID_VALUE, sInput + "vertexBuffers is null");
        if (bBuild && cTriangles.numVertices > 0 &&
            (cTriangles.vertexBuffers[0] == 0 || cTriangles.vertexBuffers[0] % 4 != 0))
            return fail(OPTIX_ERROR_INVALID_VALUE,
                        sInput + "the vertex buffer is null or not 4-byte aligned");

        TriangleInput cInput;
        cInput.pVertices = cTriangles.numVertices > 0 ? cTriangles.vertexBuffers[0] : 0;
        cInput.nVertices = cTriangles.numVertices;
        cInput.nStrideInBytes = nStride;
        cInput.uGeometryFlags = cTriangles.flags[0];
        cInput.iPrimitiveIndexOffset = cTriangles.primitiveIndexOffset;
        cBuild.aInputs.push_back(cInput);
        cBuild.nTriangles += cTriangles.numVertices / 3;
    }
    const std::uint32_t nMax = Driver::Get().MaxPrimitivesPerGas();
    if (cBuild.nTriangles > nMax)
        return fail(OPTIX_ERROR_INVALID_VALUE, std::to_string(cBuild.nTriangles) +
                                                   " triangles exceed the limit of " + std::to_string(nMax) +
                                                   " primitives per GAS");
    return cBuild;
}
} // namespace

OptixResult AccelComputeMemoryUsage(OptixDeviceContext context, const OptixAccelBuildOptions* pOptions,
                                    const OptixBuildInput* aInputs, unsigned int nInputs,
                                    OptixAccelBufferSizes* pSizes)
{
    return GuardedCall("optixAccelComputeMemoryUsage",
                       [&]()
                       {
                           if (!IsLive(context))
                               return context ? OPTIX_ERROR_INVALID_DEVICE_CONTEXT
                                              : OPTIX_ERROR_INVALID_VALUE;
                           if (!pSizes)
                               return Fail(context, nullptr, OPTIX_ERROR_INVALID_VALUE,
                                           "optixAccelComputeMemoryUsage: bufferSizes is null");
                           const CheckedBuild cBuild = CheckBuild(pOptions, aInputs, nInputs, false);
                           if (cBuild.result != OPTIX_SUCCESS)
                               return Fail(context, nullptr, cBuild.result,
                                           "optixAccelComputeMemoryUsage: " + cBuild.sError);
                           *pSizes = SizesFor(cBuild.nTriangles);
                           return OPTIX_SUCCESS;
                       });
}

OptixResult AccelBuild(OptixDeviceContext context, CUstream stream, const OptixAccelBuildOptions* pOptions,
                       const OptixBuildInput* aInputs, unsigned int nInputs, CUdeviceptr pTemp,
                       size_t nTempSize, CUdeviceptr pOutput, size_t nOutputSize,
                       OptixTraversableHandle* pHandle, const OptixAccelEmitDesc* aEmitted,
                       unsigned int nEmitted)
{
    return GuardedCall(
        "optixAccelBuild",
        [&]()
        {
            if (!IsLive(context))
                return context ? OPTIX_ERROR_INVALID_DEVICE_CONTEXT : OPTIX_ERROR_INVALID_VALUE;
            auto fail = [&](OptixResult result, const std::string& sError)
            { return Fail(context, nullptr, result, "optixAccelBuild: " + sError); };
            if (!pHandle)
                return fail(OPTIX_ERROR_INVALID_VALUE, "outputHandle is null");
            CheckedBuild cBuild = CheckBuild(pOptions, aInputs, nInputs, true);
            if (cBuild.result != OPTIX_SUCCESS)
                return fail(cBuild.result, cBuild.sError);
            const OptixAccelBufferSizes cSizes = SizesFor(cBuild.nTriangles);
            if (pOutput == 0 || pOutput % OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT != 0)
                return fail(OPTIX_ERROR_INVALID_VALUE, "the output buffer is null or not 128-byte aligned");
            if (nOutputSize < cSizes.outputSizeInBytes)
                return fail(OPTIX_ERROR_INVALID_VALUE,
                            "the output buffer holds " + std::to_string(nOutputSize) +
                                " bytes, the build needs " + std::to_string(cSizes.outputSizeInBytes));
            if (pTemp == 0 || pTemp % OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT != 0)
                return fail(OPTIX_ERROR_INVALID_VALUE, "the temp buffer is null or not 128-byte aligned");
            if (nTempSize < cSizes.tempSizeInBytes)
                return fail(OPTIX_ERROR_INVALID_VALUE, "the temp buffer holds " + std::to_string(nTempSize) +
                                                           " bytes, the build needs " +
                                                           std::to_string(cSizes.tempSizeInBytes));
            if (nEmitted > 0 && !aEmitted)
                return fail(OPTIX_ERROR_INVALID_VALUE, "emittedProperties is null");
            std::vector<CUdeviceptr> aCompactedSizes;
            for (unsigned int i = 0; i < nEmitted; ++i)
            {
                if (aEmitted[i].type != OPTIX_PROPERTY_TYPE_COMPACTED_SIZE)
                    return fail(OPTIX_ERROR_NOT_SUPPORTED,
                                "only OPTIX_PROPERTY_TYPE_COMPACTED_SIZE can be emitted");
                if (aEmitted[i].result == 0 || aEmitted[i].result % 8 != 0)
                    return fail(OPTIX_ERROR_INVALID_VALUE,
                                "an emitted property's result is null or misaligned");
                aCompactedSizes.push_back(aEmitted[i].result);
            }

            // The handle names the output buffer; the scene behind it is replaced by the next build into it.
            *pHandle = pOutput;
            std::shared_ptr<SceneStore> pScenes = context->pScenes;
            std::shared_ptr<tbb::task_arena> pWorkers = Driver::Get().Workers();
            const std::uint64_t nOutputBytes = cSizes.outputSizeInBytes;
            auto build = [pScenes, pWorkers, hTraversable = pOutput, aInputs = std::move(cBuild.aInputs),
                          aCompactedSizes, nOutputBytes]() -> std::string
            {
                std::string sError;
                try
                {
                    pWorkers->execute([&]() { sError = pScenes->Build(hTraversable, aInputs); });
                }
                catch (const std::bad_alloc&)
                {
                    sError = "out of host memory";
                }
                if (sError.empty())
                    for (CUdeviceptr pResult : aCompactedSizes)
                        *reinterpret_cast<std::uint64_t*>(pResult) = nOutputBytes;
                return sError;
            };
            if (!stream)
            {
                // The null stream builds now, so a failure can be the call's result.
                const std::string sError = build();
                return sError.empty() ? OPTIX_SUCCESS
                                      : fail(OPTIX_ERROR_INTERNAL_ERROR, "the build failed: " + sError);
            }
            stream->Enqueue(
                [build = std::move(build), stream]()
                {
                    const std::string sError = build();
                    if (!sError.empty())
                    {
                        std::fprintf(stderr, "optixAccelBuild: the build failed: %s\n", sError.c_str());
                        stream->Fail(cudaErrorLaunchFailure);
                    }
                });
            return OPTIX_SUCCESS;
        });
}
} // namespace OptixStandIn
