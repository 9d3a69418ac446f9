// Nearest hit with its triangle index, found by the traversal's own closest-hit search.
// Payload: slot 0 nearest index, slot 1 nearest distance.
#include "RayCommon.h"

RT_MODULE(OptixTriangleOneHit2, 2)

RT_PROGRAM(__raygen__rgFirst)
{
    const unsigned int iRay = optixGetLaunchIndex().x;
    const auto& params = GetLaunchParams<LaunchParamsOneHit2>();
    const bool bMerge = params.common.bMerge != 0;
    const unsigned int uStoredIndex =
        bMerge ? static_cast<unsigned int>(params.pRayFirstIndex[iRay]) : c_uNoTriangle;
    const float fStoredHit = bMerge ? params.pRayFirstHit[iRay] : params.common.fMaxDistance;

    unsigned int uIndex = uStoredIndex;
    unsigned int uHit = __float_as_uint(fStoredHit);
    const float fEnd = RayIntervalEnd(params.common, iRay);
    if (IsTraced(fEnd))
    {
        TraceRay(params.common, iRay, 0.0f, fEnd, OPTIX_RAY_FLAG_NONE, uIndex, uHit);
        // The traversal searched up to the ray's own end, not up to the earlier chunks' hit: only a strictly
        // nearer hit may replace theirs, so ties keep the earlier chunk's triangle.
        if (bMerge && !(__uint_as_float(uHit) < fStoredHit))
        {
            uIndex = uStoredIndex;
            uHit = __float_as_uint(fStoredHit);
        }
    }
    params.pRayFirstIndex[iRay] = static_cast<int>(uIndex);
    params.pRayFirstHit[iRay] = __uint_as_float(uHit);
}

RT_PROGRAM(__miss__ms) {}

RT_PROGRAM(__closesthit__ch)
{
    optixSetPayload_0(optixGetPrimitiveIndex());
    optixSetPayload_1(__float_as_uint(optixGetRayTmax()));
}
