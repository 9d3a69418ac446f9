// Nearest hit distance only, found by the traversal's own closest-hit search.
// Payload: slot 0 nearest distance.
#include "RayCommon.h"

RT_MODULE(OptixTriangleOneHitDistance1, 1)

RT_PROGRAM(__raygen__rgFirstDistance)
{
    const unsigned int iRay = optixGetLaunchIndex().x;
    const auto& params = GetLaunchParams<LaunchParamsOneHitDistance1>();
    const bool bMerge = params.common.bMerge != 0;
    const float fStoredHit = bMerge ? params.pRayFirstHit[iRay] : params.common.fMaxDistance;

    unsigned int uHit = __float_as_uint(fStoredHit);
    const float fEnd = RayIntervalEnd(params.common, iRay);
    if (IsTraced(fEnd))
    {
        TraceRay(params.common, iRay, 0.0f, fEnd, OPTIX_RAY_FLAG_NONE, uHit);
        // The traversal searched up to the ray's own end: only a strictly nearer hit replaces the earlier
        // one.
        if (bMerge && !(__uint_as_float(uHit) < fStoredHit))
        {
            uHit = __float_as_uint(fStoredHit);
        }
    }
    params.pRayFirstHit[iRay] = __uint_as_float(uHit);
}

RT_PROGRAM(__miss__ms) {}

RT_PROGRAM(__closesthit__ch)
{
    optixSetPayload_0(__float_as_uint(optixGetRayTmax()));
}
