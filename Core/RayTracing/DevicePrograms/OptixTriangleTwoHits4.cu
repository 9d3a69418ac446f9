// Nearest and farthest hits with their triangle indices: the any-hit program sees every intersection in the
// interval and keeps the extremes. Payload: slot 0 nearest index, 1 nearest distance, 2 farthest index,
// 3 farthest distance.
#include "RayCommon.h"

RT_MODULE(OptixTriangleTwoHits4, 4)

RT_PROGRAM(__raygen__rgFirstLast)
{
    const unsigned int iRay = optixGetLaunchIndex().x;
    const auto& params = GetLaunchParams<LaunchParamsTwoHits4>();
    // Stored results of earlier chunks are the start values: strict comparisons then merge by themselves.
    const bool bMerge = params.common.bMerge != 0;
    unsigned int uFirstIndex =
        bMerge ? static_cast<unsigned int>(params.pRayFirstIndex[iRay]) : c_uNoTriangle;
    unsigned int uFirstHit = __float_as_uint(bMerge ? params.pRayFirstHit[iRay] : params.common.fMaxDistance);
    unsigned int uLastIndex = bMerge ? static_cast<unsigned int>(params.pRayLastIndex[iRay]) : c_uNoTriangle;
    unsigned int uLastHit = __float_as_uint(bMerge ? params.pRayLastHit[iRay] : c_fNoFarthestHit);

    const float fEnd = RayIntervalEnd(params.common, iRay);
    if (IsTraced(fEnd))
    {
        TraceRay(params.common, iRay, 0.0f, fEnd, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, uFirstIndex, uFirstHit,
                 uLastIndex, uLastHit);
    }
    params.pRayFirstIndex[iRay] = static_cast<int>(uFirstIndex);
    params.pRayFirstHit[iRay] = __uint_as_float(uFirstHit);
    params.pRayLastIndex[iRay] = static_cast<int>(uLastIndex);
    params.pRayLastHit[iRay] = __uint_as_float(uLastHit);
}

RT_PROGRAM(__miss__ms) {}

RT_PROGRAM(__anyhit__ah)
{
    const float fHit = optixGetRayTmax();
    // Both read before either is written: the first hit of a fresh ray sets nearest and farthest together.
    const float fFirstHit = __uint_as_float(optixGetPayload_1());
    const float fLastHit = __uint_as_float(optixGetPayload_3());
    if (fHit < fFirstHit)
    {
        optixSetPayload_0(optixGetPrimitiveIndex());
        optixSetPayload_1(__float_as_uint(fHit));
    }
    if (fHit > fLastHit)
    {
        optixSetPayload_2(optixGetPrimitiveIndex());
        optixSetPayload_3(__float_as_uint(fHit));
    }
    optixIgnoreIntersection();
}
