// Hit counting: the any-hit program counts every intersection in the interval. Payload: the ray's 64-bit
// count, low word in slot 0 and high word in slot 1.
#include "RayCommon.h"

RT_MODULE(OptixTriangleCountHits2, 2)

RT_PROGRAM(__raygen__rgCountHits)
{
    const unsigned int iRay = optixGetLaunchIndex().x;
    const auto& params = GetLaunchParams<LaunchParamsCountHits2>();
    const unsigned long long nCount = params.common.bMerge != 0 ? params.pRayCountHits[iRay] : 0ull;
    unsigned int lo = static_cast<unsigned int>(nCount);
    unsigned int hi = static_cast<unsigned int>(nCount >> 32);

    const float fEnd = RayIntervalEnd(params.common, iRay);
    if (IsTraced(fEnd))
    {
        TraceRay(params.common, iRay, c_fSmallestNormalFloat, fEnd, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, lo,
                 hi);
    }
    params.pRayCountHits[iRay] = JoinCounter(hi, lo);
}

RT_PROGRAM(__miss__ms) {}

RT_PROGRAM(__anyhit__ah)
{
    RT_DEVICE_ASSERT("OptixTriangleCountHits2", 0.0f < optixGetRayTmax());
    const unsigned int lo = optixGetPayload_0() + 1u;
    const unsigned int hi = optixGetPayload_1() + (lo == 0u ? 1u : 0u);
    optixSetPayload_0(lo);
    optixSetPayload_1(hi);
    optixIgnoreIntersection();
}
