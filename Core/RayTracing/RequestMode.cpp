#include "RequestMode.h"

#include <algorithm>
#include <limits>

#include "OptixTypes.h"

namespace
{
// Farthest distance of a ray without hits: the lowest finite float, bit pattern 0xFF7FFFFF.
constexpr float c_fNoFarthestHit = -std::numeric_limits<float>::max();

std::uint64_t BytesPerRay(const RayTracingResults& cRayTracingResults, const float* pOrigin,
                          const float* pDistance)
{
    std::uint64_t nBytesPerRay = 12; // direction
    if (cRayTracingResults.pCountHits)
        nBytesPerRay += 8;
    for (const void* pResult : {static_cast<const void*>(cRayTracingResults.pFirstIndex),
                                static_cast<const void*>(cRayTracingResults.pFirstHit),
                                static_cast<const void*>(cRayTracingResults.pLastIndex),
                                static_cast<const void*>(cRayTracingResults.pLastHit)})
        if (pResult)
            nBytesPerRay += 4;
    if (pOrigin)
        nBytesPerRay += 12;
    if (pDistance)
        nBytesPerRay += 4;
    return nBytesPerRay;
}
} // namespace

RequestState PrepareRequest(RayTracingResults& cRayTracingResults, std::uint64_t nTriangles,
                            std::uint64_t nRays, const float* pOrigin, const float* pDirection,
                            const float* pDistance, float fMaxDistance, RequestMode& cMode)
{
    cRayTracingResults.cAllHits.clear();
    if (nRays == 0)
        return RequestState::Answered;

    cMode.bAllHits = cRayTracingResults.pCountHits != nullptr;
    cMode.bIndices = cRayTracingResults.pFirstIndex != nullptr;
    cMode.bFirstHitOnly = cRayTracingResults.pLastHit == nullptr;
    cMode.nBytesPerRay = BytesPerRay(cRayTracingResults, pOrigin, pDistance);
    if (cMode.bAllHits)
    {
        if (nTriangles == 0)
        {
            std::fill_n(cRayTracingResults.pCountHits, nRays + (cRayTracingResults.bCollectAllHits ? 1 : 0),
                        0);
            return RequestState::Answered;
        }
        if (pDirection == nullptr)
            return RequestState::Invalid;
        cMode.uGeometryFlags = OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL;
        return RequestState::NeedsDevice;
    }

    if (cRayTracingResults.bCollectAllHits)
        return RequestState::Invalid;
    if (cRayTracingResults.pFirstHit == nullptr)
        return RequestState::Invalid;
    if (pDirection == nullptr)
        return RequestState::Invalid;
    if (cRayTracingResults.pLastHit != nullptr &&
        (cRayTracingResults.pFirstIndex == nullptr) != (cRayTracingResults.pLastIndex == nullptr))
        return RequestState::Invalid;
    if (nTriangles == 0)
    {
        if (cMode.bIndices)
            std::fill_n(cRayTracingResults.pFirstIndex, nRays, -1);
        std::fill_n(cRayTracingResults.pFirstHit, nRays, fMaxDistance);
        if (!cMode.bFirstHitOnly)
        {
            if (cMode.bIndices)
                std::fill_n(cRayTracingResults.pLastIndex, nRays, -1);
            std::fill_n(cRayTracingResults.pLastHit, nRays, c_fNoFarthestHit);
        }
        return RequestState::Answered;
    }
    cMode.uGeometryFlags =
        cMode.bFirstHitOnly ? OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT : OPTIX_GEOMETRY_FLAG_NONE;
    return RequestState::NeedsDevice;
}
