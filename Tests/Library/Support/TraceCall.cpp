#include "TraceCall.h"

#include <cstring>

const char* TraceModeName(TraceMode eMode)
{
    static const char* const c_aNames[] = {"HitCount",     "AllHits",       "NearestDistance",
                                           "NearestIndex", "BothDistances", "BothIndices"};
    return c_aNames[static_cast<int>(eMode)];
}

std::uint32_t FloatBits(float f)
{
    std::uint32_t u;
    std::memcpy(&u, &f, sizeof(u));
    return u;
}

TraceOutcome RunTrace(TraceMode eMode, const TraceRequest& cRequest)
{
    const TestReference::RaySet* pRays = cRequest.pRays;
    const std::uint64_t nRays = pRays ? pRays->Count() : 0;
    const bool bCounting = IsCountingMode(eMode);
    const bool bUnused = cRequest.bUnusedPointers;
    TraceOutcome c;
    RayTracingResults cResults;
    cResults.cAllHits.assign(3, -777.25f); // a stale collection must always be discarded
    cResults.bCollectAllHits = eMode == TraceMode::AllHits;
    if (bCounting)
        c.aCountHits.assign(nRays + (cResults.bCollectAllHits ? 1 : 0), c_nCountCanary);
    if (!bCounting || bUnused)
        c.aFirstHit.assign(nRays, c_fHitCanary);
    if (HasIndices(eMode) || (bCounting && bUnused))
        c.aFirstIndex.assign(nRays, c_iIndexCanary);
    if (HasFarthest(eMode) || (bCounting && bUnused))
        c.aLastHit.assign(nRays, c_fHitCanary);
    if ((HasFarthest(eMode) && HasIndices(eMode)) || (bUnused && !HasFarthest(eMode)))
        c.aLastIndex.assign(nRays, c_iIndexCanary);
    auto DataOrNull = [](auto& a) { return a.empty() ? nullptr : a.data(); };
    cResults.pCountHits = DataOrNull(c.aCountHits);
    cResults.pFirstHit = DataOrNull(c.aFirstHit);
    cResults.pFirstIndex = DataOrNull(c.aFirstIndex);
    cResults.pLastHit = DataOrNull(c.aLastHit);
    cResults.pLastIndex = DataOrNull(c.aLastIndex);

    c.sError = "stale error";
    c.sLog = "stale log";
    const float* pOrigin = pRays && cRequest.bOrigins ? pRays->aOrigins.data() : nullptr;
    const float* pDirection = pRays ? pRays->aDirections.data() : nullptr;
    const float* pDistance = pRays && cRequest.bDistances ? pRays->aDistances.data() : nullptr;
    if (cRequest.pScene != nullptr)
        c.eResult = cRequest.pScene->Trace(cResults, nRays, pOrigin, pDirection, pDistance, c.sLog, c.sError,
                                           cRequest.fMaxDistance);
    else
        c.eResult = RayTracing(cResults, cRequest.nTriangles, cRequest.pTriangles, nRays, pOrigin, pDirection,
                               pDistance, cRequest.iGpuId, c.sLog, c.sError, cRequest.bDiagnostics,
                               cRequest.fMaxDistance, cRequest.nFreeGPUMemory);
    c.aAllHits = std::move(cResults.cAllHits);
    return c;
}
