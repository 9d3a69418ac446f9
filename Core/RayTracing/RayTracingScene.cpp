// The persistent entry point: a scene prepared once and traced by many requests through the same driver as
// RayTracing.
#include "RayTracingScene.h"

#include "GuardedCall.h"
#include "RequestMode.h"
#include "SceneState.h"
#include "TraceDriver.h"

RayTracingScene::RayTracingScene(std::unique_ptr<SceneState> pState) : m_pState(std::move(pState)) {}

RayTracingScene::~RayTracingScene() = default;

RayTracingErrorType RayTracingScene::Create(std::unique_ptr<RayTracingScene>& pScene,
                                            std::uint64_t nTriangles, const float* pTriangles, int iGpuId,
                                            std::string& sLog, std::string& sError, bool bDiagnostics,
                                            std::uint64_t nFreeGPUMemory)
{
    pScene.reset();
    sLog.clear();
    sError.clear();
    if (nTriangles > 0 && pTriangles == nullptr)
    {
        sError = "No triangles given for a scene of " + std::to_string(nTriangles) + ".";
        return Failure;
    }
    std::unique_ptr<SceneState> pState;
    const RayTracingErrorType nResult = RunGuarded(
        [&]
        {
            pState = std::make_unique<SceneState>(nTriangles, pTriangles, iGpuId, bDiagnostics);
            return pState->Prepare(nFreeGPUMemory);
        },
        sError);
    if (!pState)
        return nResult;
    const RayTracingErrorType nDelivered = DeliverLog(pState->aLog, sLog, nResult);
    pState->aLog.clear();
    if (nDelivered != Success)
        return nDelivered;
    pScene.reset(new RayTracingScene(std::move(pState)));
    return Success;
}

RayTracingErrorType RayTracingScene::Trace(RayTracingResults& cRayTracingResults, std::uint64_t nRays,
                                           const float* pOrigin, const float* pDirection,
                                           const float* pDistance, std::string& sLog, std::string& sError,
                                           float fMaxDistance)
{
    SceneState& cState = *m_pState;
    const std::lock_guard<std::mutex> cLock(cState.mutex);
    sLog.clear();
    sError.clear();
    RequestMode cMode;
    switch (PrepareRequest(cRayTracingResults, cState.nTriangles, nRays, pOrigin, pDirection, pDistance,
                           fMaxDistance, cMode))
    {
    case RequestState::Answered:
        return Success;
    case RequestState::Invalid:
        return Failure;
    case RequestState::NeedsDevice:
        break;
    }

    const TraceRequest cRequest{cRayTracingResults,
                                cState.nTriangles,
                                cState.aTriangles.data(),
                                nRays,
                                pOrigin,
                                pDirection,
                                pDistance,
                                fMaxDistance,
                                cMode};
    const RayTracingErrorType nResult = RunGuarded(
        [&]
        {
            // The calling thread may not have selected the scene's device.
            // clang-format off
            CHECK_CUDA(cudaSetDevice(cState.iGpuId));
            // clang-format on
            TraceDriver cDriver(cRequest, cState.cBudget, cState.iGpuId, cState.bDiagnostics, cState.aLog,
                                *cState.pStream, &cState);
            const ErrorResult cResult = cDriver.Run();
            cState.bLastTraceKept = cDriver.TracedKeptStructures();
            return cResult;
        },
        sError);
    const RayTracingErrorType nDelivered = DeliverLog(cState.aLog, sLog, nResult);
    cState.aLog.clear();
    return nDelivered;
}

std::uint64_t RayTracingScene::TriangleCount() const
{
    return m_pState->nTriangles;
}

bool RayTracingScene::KeptStructures() const
{
    const std::lock_guard<std::mutex> cLock(m_pState->mutex);
    return m_pState->bLastTraceKept;
}
