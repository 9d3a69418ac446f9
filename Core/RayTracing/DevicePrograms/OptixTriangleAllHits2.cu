// Hit collecting: every intersection in the interval stores its distance in the slot just below the ray's
// counter, so the ray's stretch of the hit list fills from its end downwards, chunk after chunk, and the
// counter ends at the ray's first slot. Payload: the 64-bit counter, low word in slot 0, high word in slot 1.
#include "RayCommon.h"

RT_MODULE(OptixTriangleAllHits2, 2)

RT_PROGRAM(__raygen__rgAllHits)
{
    const unsigned int iRay = optixGetLaunchIndex().x;
    const auto& params = GetLaunchParams<LaunchParamsAllHits2>();
    const unsigned long long nCounter = params.pRayCountHits[iRay];
    unsigned int lo = static_cast<unsigned int>(nCounter);
    unsigned int hi = static_cast<unsigned int>(nCounter >> 32);

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
    const auto* hg = reinterpret_cast<const HitGroupData*>(optixGetSbtDataPointer());
    const float hitDistance = optixGetRayTmax();
    unsigned int lo = optixGetPayload_0();
    unsigned int hi = optixGetPayload_1();
    RT_DEVICE_ASSERT("OptixTriangleAllHits2", 0.0f < hitDistance);
    // The batch's stretch starts at nStart: a counter at or below it has no free slot left.
    RT_DEVICE_ASSERT("OptixTriangleAllHits2", hg->nStart < (((uint64_t)hi << 32) | lo));
    hi -= lo == 0u ? 1u : 0u;
    lo -= 1u;
    RT_DEVICE_ASSERT("OptixTriangleAllHits2", hg->nStart <= (((uint64_t)hi << 32) | lo));
    hg->pAllHits[JoinCounter(hi, lo) - hg->nStart] = hitDistance;
    optixSetPayload_0(lo);
    optixSetPayload_1(hi);
    optixIgnoreIntersection();
}
