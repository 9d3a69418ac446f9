// optixTrace on the host: one Embree query per trace (two when the closest candidate is not the ray's),
// with the any-hit program in Embree's intersection filter and the closest-hit or miss program afterwards.
// Nothing here allocates per ray.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "TraceContext.h"

namespace OptixHost
{
__thread ProgramState* t_pProgramState = nullptr;
}

namespace OptixStandIn
{
namespace
{
using OptixHost::ProgramState;

struct SceneCache
{
    std::uint64_t nLaunch;
    OptixTraversableHandle hTraversable;
    const Scene* pScene;
};
__thread SceneCache t_cSceneCache = {0, 0, nullptr};

constexpr unsigned int c_uSupportedRayFlags = OPTIX_RAY_FLAG_DISABLE_ANYHIT | OPTIX_RAY_FLAG_ENFORCE_ANYHIT |
                                              OPTIX_RAY_FLAG_TERMINATE_ON_FIRST_HIT |
                                              OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT;

// Embree accepts tnear < t <= tfar and needs tnear >= 0: one float step below tmin, so that tmin itself is
// in. A hit at exactly t = 0 is therefore never reported. Distances are Embree's (a few ulps of rounding).
float EmbreeTnear(float fTmin)
{
    if (!(fTmin > 0.0f))
        return 0.0f;
    if (std::isinf(fTmin))
        return fTmin;
    std::uint32_t uBits;
    std::memcpy(&uBits, &fTmin, sizeof(uBits));
    --uBits;
    std::memcpy(&fTmin, &uBits, sizeof(uBits));
    return fTmin;
}

// Embree's limit for ray coordinates (beyond it, or NaN, its queries are undefined): such rays miss.
bool IsTraceable(float3 v)
{
    constexpr float c_fLimit = 1.0e18f;
    return std::fabs(v.x) < c_fLimit && std::fabs(v.y) < c_fLimit && std::fabs(v.z) < c_fLimit;
}

const Scene* FindScene(OptixHost::LaunchContext& cLaunch, OptixTraversableHandle hTraversable)
{
    SceneCache& cCache = t_cSceneCache;
    if (cCache.nLaunch == cLaunch.nSerial && cCache.hTraversable == hTraversable)
        return cCache.pScene;
    std::shared_ptr<const Scene> pScene = cLaunch.pScenes->Find(hTraversable);
    if (!pScene)
        return nullptr;
    {
        std::lock_guard<std::mutex> lock(cLaunch.mutex);
        cLaunch.aHeldScenes.push_back(pScene);
    }
    cCache = SceneCache{cLaunch.nSerial, hTraversable, pScene.get()};
    return pScene.get();
}

} // namespace
} // namespace OptixStandIn

void OptixHost::LaunchContext::Fail(cudaError_t eCode, const std::string& sWhy)
{
    if (bFailed.exchange(true))
        return;
    std::lock_guard<std::mutex> lock(mutex);
    eError = eCode;
    sFailure = sWhy;
}

namespace OptixHost
{
void DeviceAssertFailed(const char* sExpression, const char* sFile, unsigned int nLine)
{
    ProgramState* pState = t_pProgramState;
    char sMessage[1024];
    std::snprintf(sMessage, sizeof(sMessage),
                  "%s:%u: block: [0,0,0], thread: [%u,%u,%u] Assertion `%s` failed.", sFile, nLine,
                  pState ? pState->launchIndex.x : 0u, pState ? pState->launchIndex.y : 0u,
                  pState ? pState->launchIndex.z : 0u, sExpression);
    if (pState && pState->pLaunch)
        pState->pLaunch->Fail(cudaErrorAssert, sMessage);
    else
        std::fprintf(stderr, "%s\n", sMessage);
}

unsigned int InvalidPayloadAccess(unsigned int iSlot)
{
    ProgramState* pState = t_pProgramState;
    if (pState && pState->pLaunch)
        pState->pLaunch->Fail(cudaErrorLaunchFailure, "payload slot " + std::to_string(iSlot) +
                                                          " accessed, but the trace passed " +
                                                          std::to_string(pState->nPayloadValues) + " values");
    return 0;
}

void Trace(OptixTraversableHandle hTraversable, float3 origin, float3 direction, float fTmin, float fTmax,
           float /*fRayTime*/, OptixVisibilityMask /*uVisibilityMask*/, unsigned int uRayFlags,
           unsigned int iSbtOffset, unsigned int /*nSbtStride*/, unsigned int iMissSbtIndex,
           unsigned int* aPayload, unsigned int nPayloadValues)
{
    using namespace OptixStandIn;
    ProgramState* pOuter = t_pProgramState;
    LaunchContext& cLaunch = *pOuter->pLaunch;
    if (cLaunch.bFailed.load(std::memory_order_relaxed))
        return;
    if (pOuter->nTraceDepth >= cLaunch.nMaxTraceDepth)
        return cLaunch.Fail(cudaErrorLaunchFailure,
                            "optixTrace nested deeper than the pipeline's maxTraceDepth " +
                                std::to_string(cLaunch.nMaxTraceDepth));
    if (nPayloadValues > cLaunch.nPayloadValues)
        return cLaunch.Fail(cudaErrorLaunchFailure, "optixTrace passes " + std::to_string(nPayloadValues) +
                                                        " payload values, the pipeline was compiled for " +
                                                        std::to_string(cLaunch.nPayloadValues));
    if (uRayFlags & ~c_uSupportedRayFlags)
        return cLaunch.Fail(cudaErrorLaunchFailure,
                            "optixTrace: the stand-in does not support the ray flags " +
                                std::to_string(uRayFlags));
    const Scene* pScene = FindScene(cLaunch, hTraversable);
    if (!pScene)
        return cLaunch.Fail(cudaErrorIllegalAddress,
                            "optixTrace: " + std::to_string(hTraversable) +
                                " is not the handle of a built acceleration structure");
    // One SBT record per geometry, no instances: the hit group is the trace's SBT offset.
    if (iSbtOffset >= cLaunch.aHitGroups.size() || !cLaunch.aHitGroups[iSbtOffset].bValid)
        return cLaunch.Fail(cudaErrorLaunchFailure, "optixTrace: no valid hit group record at SBT index " +
                                                        std::to_string(iSbtOffset));
    const HitGroupEntry& cHitGroup = cLaunch.aHitGroups[iSbtOffset];

    ProgramState cInner;
    cInner.pPayload = aPayload;
    cInner.nPayloadValues = nPayloadValues;
    cInner.iPrimitive = 0;
    cInner.fRayTmax = fTmax;
    cInner.bIgnored = false;
    cInner.nTraceDepth = pOuter->nTraceDepth + 1;
    cInner.pSbtData = cHitGroup.pData;
    cInner.launchIndex = pOuter->launchIndex;
    cInner.pLaunch = &cLaunch;
    t_pProgramState = &cInner;

    TraceContext cContext;
    rtcInitIntersectContext(&cContext.rtc);
    cContext.pState = &cInner;
    cContext.pScene = pScene;
    cContext.pHitGroup = &cHitGroup;
    cContext.bEnforceAnyHit = (uRayFlags & OPTIX_RAY_FLAG_ENFORCE_ANYHIT) != 0;
    cContext.bRunAnyHit =
        cHitGroup.fnAnyHit && (cContext.bEnforceAnyHit ||
                               (!(uRayFlags & OPTIX_RAY_FLAG_DISABLE_ANYHIT) && pScene->AnyHitPossible()));
    cContext.origin = origin;
    cContext.direction = direction;
    cContext.fDirectionSquared = static_cast<double>(direction.x) * direction.x +
                                 static_cast<double>(direction.y) * direction.y +
                                 static_cast<double>(direction.z) * direction.z;

    RTCRayHit cRayHit;
    cRayHit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    // An empty or NaN interval, or a ray Embree cannot take, meets nothing.
    if (fTmin <= fTmax && IsTraceable(origin) && IsTraceable(direction))
    {
        PlaceEmbreeRay(pScene->Plan(), cContext);
        const float fShift = cContext.fShift;
        const auto Intersect = [&]()
        {
            // In double: the moved origin must stay on the ray to within its own float step.
            cRayHit.ray.org_x = static_cast<float>(origin.x + static_cast<double>(fShift) * direction.x);
            cRayHit.ray.org_y = static_cast<float>(origin.y + static_cast<double>(fShift) * direction.y);
            cRayHit.ray.org_z = static_cast<float>(origin.z + static_cast<double>(fShift) * direction.z);
            cRayHit.ray.tnear = std::fmax(EmbreeTnear(fTmin) - fShift, 0.0f);
            cRayHit.ray.dir_x = direction.x;
            cRayHit.ray.dir_y = direction.y;
            cRayHit.ray.dir_z = direction.z;
            cRayHit.ray.time = 0.0f;
            cRayHit.ray.tfar = fTmax - fShift;
            cRayHit.ray.mask = 0xFFFFFFFFu;
            cRayHit.ray.id = 0;
            cRayHit.ray.flags = 0;
            cRayHit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            cRayHit.hit.primID = RTC_INVALID_GEOMETRY_ID;
            cRayHit.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(pScene->Handle(), &cContext.rtc, &cRayHit);
        };
        cContext.rtc.filter = cContext.bRunAnyHit ? &AnyHitFilter : nullptr;
        Intersect();
        // Without a filter Embree's closest candidate may lie in an enlarged triangle's margin, or be a
        // neighbour's at a shared edge: then the query runs again, confirming every candidate.
        if (!cContext.bRunAnyHit && cRayHit.hit.geomID != RTC_INVALID_GEOMETRY_ID &&
            !OwnsClosestHit(cContext, cRayHit.hit))
        {
            cContext.rtc.filter = &OwnedOnlyFilter;
            Intersect();
        }
    }

    if (!cLaunch.bFailed.load(std::memory_order_relaxed))
    {
        if (cRayHit.hit.geomID != RTC_INVALID_GEOMETRY_ID)
        {
            if (cHitGroup.fnClosestHit && !(uRayFlags & OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT))
            {
                const GeometryInfo& cGeometry = pScene->Geometry(cRayHit.hit.geomID);
                cInner.iPrimitive = cGeometry.Triangle(cRayHit.hit.primID) + cGeometry.iPrimitiveIndexOffset;
                cInner.fRayTmax = cContext.fShift + cRayHit.ray.tfar;
                cInner.pSbtData = cHitGroup.pData;
                cHitGroup.fnClosestHit();
            }
        }
        else if (iMissSbtIndex >= cLaunch.aMisses.size() || !cLaunch.aMisses[iMissSbtIndex].bValid)
        {
            cLaunch.Fail(cudaErrorLaunchFailure,
                         "optixTrace: no valid miss record at index " + std::to_string(iMissSbtIndex));
        }
        else if (const MissEntry& cMiss = cLaunch.aMisses[iMissSbtIndex]; cMiss.fnMiss)
        {
            cInner.fRayTmax = fTmax;
            cInner.pSbtData = cMiss.pData;
            cMiss.fnMiss();
        }
    }
    t_pProgramState = pOuter;
}
} // namespace OptixHost
