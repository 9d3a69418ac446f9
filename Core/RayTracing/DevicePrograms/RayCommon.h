// What every ray-generation program does alike: find its launch block, bound its ray and trace it.
#pragma once

#include "OptixDevice.h"

#include "LaunchParams.h"

// No-hit value of a farthest distance: the lowest finite float (bit pattern FF7FFFFF).
constexpr float c_fNoFarthestHit = -3.40282347e+38f;
// The counting and collecting runs start above 0, so that a hit at the origin is neither counted nor kept.
constexpr float c_fSmallestNormalFloat = 1.17549435e-38f;
constexpr unsigned int c_uNoTriangle = 0xFFFFFFFFu;

// Data word 0 of the ray-generation record holds the address of the launch block.
template <class Params> __device__ inline const Params& GetLaunchParams()
{
    const auto* pRecordData = reinterpret_cast<const unsigned long long*>(optixGetSbtDataPointer());
    return *reinterpret_cast<const Params*>(pRecordData[0]);
}

// fminf takes the other operand when one is NaN: a NaN per-ray distance leaves fMaxDistance, and a NaN
// fMaxDistance leaves the ray's own distance.
__device__ inline float RayIntervalEnd(const LaunchParamsCommon& params, unsigned int iRay)
{
    float fEnd = params.fMaxDistance;
    if (params.pRayDistances != nullptr)
    {
        fEnd = fminf(params.pRayDistances[iRay], fEnd);
    }
    return fEnd;
}

// A ray is traced only over a non-empty interval; the comparison is false for NaN as well.
__device__ inline bool IsTraced(float fIntervalEnd)
{
    return fIntervalEnd > 0.0f;
}

template <class... Payload>
__device__ inline void TraceRay(const LaunchParamsCommon& params, unsigned int iRay, float fTmin, float fTmax,
                                unsigned int uRayFlags, Payload&... payload)
{
    const float3 origin =
        params.pRayOrigins != nullptr ? params.pRayOrigins[iRay] : make_float3(0.0f, 0.0f, 0.0f);
    optixTrace(params.hTraversable, origin, params.pRayDirections[iRay], fTmin, fTmax, 0.0f, 255u, uRayFlags,
               0u, 1u, 0u, payload...);
}

__device__ inline unsigned long long JoinCounter(unsigned int uHi, unsigned int uLo)
{
    return (static_cast<unsigned long long>(uHi) << 32) | uLo;
}
