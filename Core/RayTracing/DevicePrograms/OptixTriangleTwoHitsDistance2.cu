// Nearest and farthest hit distances: the any-hit program sees every intersection in the interval and keeps
// the extremes. Payload: slot 0 nearest distance, slot 1 farthest distance.
#include "RayCommon.h"

RT_MODULE(OptixTriangleTwoHitsDistance2, 2)

RT_PROGRAM(__raygen__rgFirstLastDistance)
{
    const unsigned int iRay = optixGetLaunchIndex().x;
    const auto& params = GetLaunchParams<LaunchParamsTwoHitsDistance2>();
    // Stored results of earlier chunks are the start values: strict comparisons then merge by themselves.
    const bool bMerge = params.common.bMerge != 0;
    unsigned int uFirstHit = __float_as_uint(bMerge ? params.pRayFirstHit[iRay] : params.common.fMaxDistance);
    unsigned int uLastHit = __float_as_uint(bMerge ? params.pRayLastHit[iRay] : c_fNoFarthestHit);

    const float fEnd = RayIntervalEnd(params.common, iRay);
    if (IsTraced(fEnd))
    {
        TraceRay(params.common, iRay, 0.0f, fEnd, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, uFirstHit, uLastHit);
    }
    params.pRayFirstHit[iRay] = __uint_as_float(uFirstHit);
    params.pRayLastHit[iRay] = __uint_as_float(uLastHit);
}

RT_PROGRAM(__miss__ms) {}

RT_PROGRAM(__anyhit__ah)
{
    const float fHit = optixGetRayTmax();
    const float fFirstHit = __uint_as_float(optixGetPayload_0());
    const float fLastHit = __uint_as_float(optixGetPayload_1());
    if (fHit < fFirstHit)
    {
        optixSetPayload_0(__float_as_uint(fHit));
    }
    if (fHit > fLastHit)
    {
        optixSetPayload_1(__float_as_uint(fHit));
    }
    optixIgnoreIntersection();
}
