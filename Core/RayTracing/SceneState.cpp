#include "SceneState.h"

#include "BatchPlanning.h"
#include "RequestMode.h"
#include "TriangleChunks.h"

SceneState::SceneState(std::uint64_t nTriangles, const float* pTriangles, int iGpuId, bool bDiagnostics)
    : nTriangles(nTriangles), aTriangles(pTriangles, pTriangles + 9 * nTriangles), iGpuId(iGpuId),
      bDiagnostics(bDiagnostics),
      context(MakeOptixHolder<OptixDeviceContext_t>(cReleaseResult, optixDeviceContextDestroy,
                                                    "optixDeviceContextDestroy(context)"))
{
}

ErrorResult SceneState::Prepare(std::uint64_t nFreeGPUMemory)
{
    if (nTriangles == 0)
        return SuccessResult();
    ErrorResult cResult = SetUpDevice(iGpuId, nFreeGPUMemory, cBudget);
    if (cResult.first != Success)
        return cResult;
    pStream = std::make_unique<CudaStream>();

    // The function table is process-wide: scenes created at the same time fill it one after another.
    {
        static std::mutex s_mutex;
        const std::lock_guard<std::mutex> cLock(s_mutex);
        cResult = MakeOptixError(optixInit(), "optixInit");
    }
    if (cResult.first != Success)
        return cResult;

    OptixDeviceContext context_raw = nullptr;
    cResult = CreateDeviceContext(bDiagnostics, aLog, context_raw);
    if (cResult.first == Success)
        context.reset(context_raw);
    return cResult;
}

ErrorResult SceneState::FindOrCreatePipeline(const ModuleChoice& cModule, std::uint64_t nBudget,
                                             KeptPipeline*& pPipeline)
{
    std::unique_ptr<KeptPipeline>& pKept = aPipelines[cModule.Index()];
    if (!pKept)
    {
        // Kept only when complete: a failed compile releases what it made.
        auto pNew = std::make_unique<KeptPipeline>();
        const ErrorResult cResult = CreatePipeline(pNew->programs, pNew->cReleaseResult, context, cModule,
                                                   iGpuId, nBudget, pNew->cStack);
        if (cResult.first != Success)
            return cResult;
        pKept = std::move(pNew);
    }
    pPipeline = pKept.get();
    return SuccessResult();
}

std::uint64_t SceneState::KeptBytes() const
{
    std::uint64_t nBytes = 0;
    for (const auto& pAccel : aAccels)
        nBytes += pAccel->nBytes;
    return nBytes;
}

// Keeps the structures of every chunk when they fit, with their build scratch, beside everything kept already
// and a minimum ray batch of the costliest mode; otherwise the driver builds chunk by chunk per trace.
ErrorResult SceneState::PrepareKeptAccel(unsigned int uGeometryFlags, std::uint64_t nBudget,
                                         const KeptAccel*& pAccel)
{
    pAccel = nullptr;
    for (const auto& pKept : aAccels)
        if (pKept->uGeometryFlags == uGeometryFlags)
        {
            pAccel = pKept.get();
            return SuccessResult();
        }

    const std::uint64_t nReserved = KeptBytes() + c_nCostliestBytesPerRay * c_nMinimumRaysPerBatch;
    if (nBudget <= nReserved + c_nChunkBudgetFloor)
        return SuccessResult();
    const std::uint64_t nRoom = nBudget - nReserved;
    OptixAccelBuildOptions accel_options = {};
    accel_options.buildFlags = OPTIX_BUILD_FLAG_NONE;
    accel_options.operation = OPTIX_BUILD_OPERATION_BUILD;
    const auto [nPerChunk, nChunkBytes] =
        FindTriangleChunkSize(context.get(), nTriangles, nRoom, uGeometryFlags, accel_options);
    if (nPerChunk == 0)
        return SuccessResult();
    const std::uint64_t nChunks = (nTriangles + nPerChunk - 1) / nPerChunk;
    if (nChunks * nChunkBytes > nRoom - c_nChunkBudgetFloor)
        return SuccessResult();

    auto pNew = std::make_unique<KeptAccel>();
    pNew->uGeometryFlags = uGeometryFlags;
    pNew->nTrianglesPerChunk = nPerChunk;
    DeviceBuffer<char> d_gas_temp(pStream->GetStream(), cBudget.bMemoryPoolsSupported);
    for (std::size_t iStart = 0; iStart < nTriangles; iStart += nPerChunk)
    {
        const std::size_t iEnd = std::min<std::size_t>(iStart + nPerChunk, nTriangles);
        auto pChunk = std::make_unique<KeptChunk>(pStream->GetStream(), cBudget.bMemoryPoolsSupported);
        ErrorResult cBuildResult = SuccessResult();
        BuildChunkGas(context.get(), *pStream, cBudget.bMemoryPoolsSupported, aTriangles.data(), iStart, iEnd,
                      pNew->uGeometryFlags, d_gas_temp, pChunk->d_gas_output, pChunk->gas_handle,
                      cBuildResult);
        if (cBuildResult.first != Success)
            return cBuildResult;
        pNew->nBytes += pChunk->d_gas_output.size();
        pNew->aChunks.push_back(std::move(pChunk));
    }
    aAccels.push_back(std::move(pNew));
    pAccel = aAccels.back().get();
    return SuccessResult();
}
