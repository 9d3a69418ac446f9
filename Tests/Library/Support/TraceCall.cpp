#include "TraceCall.h"

#include <cstring>

const char* TraceModeName(TraceMode eMode)
{
    switch (eMode)
    {
    case TraceMode::HitCount:
        return "HitCount";
    case TraceMode::AllHits:
        return "AllHits";
    case TraceMode::NearestDistance:
        return "NearestDistance";
    case TraceMode::NearestIndex:
        return "NearestIndex";
    case TraceMode::BothDistances:
        return "BothDistances";
    case TraceMode::BothIndices:
        return "BothIndices";
    }
    return "Unknown";
}

bool IsCountingMode(TraceMode eMode)
{
    return eMode == TraceMode::HitCount || eMode == TraceMode::AllHits;
}

bool HasIndices(TraceMode eMode)
{
    return eMode == TraceMode::NearestIndex || eMode == TraceMode::BothIndices;
}

bool HasFarthest(TraceMode eMode)
{
    return eMode == TraceMode::BothDistances || eMode == TraceMode::BothIndices;
}

std::uint32_t FloatBits(float f)
{
    std::uint32_t u;
    std::memcpy(&u, &f, sizeof(u));
    return u;
}

TraceOutcome RunTrace(TraceMode eMode, const TraceRequest& cRequest)
{
    const std::uint64_t nRays = cRequest.pRays ? cRequest.pRays->Count() : 0;
    const bool bCounting = IsCountingMode(eMode);
    TraceOutcome cOutcome;
    RayTracingResults cResults;
    // A stale collection from an earlier call must always be discarded.
    cResults.cAllHits.assign(3, c_fCollectedCanary);

    if (bCounting)
    {
        cResults.bCollectAllHits = eMode == TraceMode::AllHits;
        cOutcome.aCountHits.assign(nRays + (cResults.bCollectAllHits ? 1 : 0), c_nCountCanary);
    }
    const bool bFirst = !bCounting || cRequest.bUnusedPointers;
    const bool bFirstIndex = HasIndices(eMode) || (bCounting && cRequest.bUnusedPointers);
    const bool bLast = HasFarthest(eMode) || (bCounting && cRequest.bUnusedPointers);
    const bool bLastIndex =
        (HasFarthest(eMode) && HasIndices(eMode)) || (cRequest.bUnusedPointers && !HasFarthest(eMode));
    if (bFirst)
    {
        cOutcome.aFirstHit.assign(nRays, c_fHitCanary);
    }
    if (bFirstIndex)
    {
        cOutcome.aFirstIndex.assign(nRays, c_iIndexCanary);
    }
    if (bLast)
    {
        cOutcome.aLastHit.assign(nRays, c_fHitCanary);
    }
    if (bLastIndex)
    {
        cOutcome.aLastIndex.assign(nRays, c_iIndexCanary);
    }
    auto DataOrNull = [](auto& a) { return a.empty() ? nullptr : a.data(); };
    cResults.pCountHits = DataOrNull(cOutcome.aCountHits);
    cResults.pFirstHit = DataOrNull(cOutcome.aFirstHit);
    cResults.pFirstIndex = DataOrNull(cOutcome.aFirstIndex);
    cResults.pLastHit = DataOrNull(cOutcome.aLastHit);
    cResults.pLastIndex = DataOrNull(cOutcome.aLastIndex);

    const TestReference::RaySet* pRays = cRequest.pRays;
    const float* pOrigin = pRays && cRequest.bOrigins ? pRays->aOrigins.data() : nullptr;
    const float* pDirection = pRays ? pRays->aDirections.data() : nullptr;
    const float* pDistance = pRays && cRequest.bDistances ? pRays->aDistances.data() : nullptr;
    cOutcome.sError = "stale error";
    cOutcome.sLog = "stale log";
    if (cRequest.pScene != nullptr)
        cOutcome.eResult = cRequest.pScene->Trace(cResults, nRays, pOrigin, pDirection, pDistance,
                                                  cOutcome.sLog, cOutcome.sError, cRequest.fMaxDistance);
    else
        cOutcome.eResult = RayTracing(cResults, cRequest.nTriangles, cRequest.pTriangles, nRays, pOrigin,
                                      pDirection, pDistance, cRequest.iGpuId, cOutcome.sLog, cOutcome.sError,
                                      cRequest.bDiagnostics, cRequest.fMaxDistance, cRequest.nFreeGPUMemory);
    cOutcome.aAllHits = std::move(cResults.cAllHits);
    return cOutcome;
}
