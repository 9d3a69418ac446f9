// What a request asks for, read from the result pointers, and the answers that need no device.
#pragma once

#include <cstdint>

#include "RayTracing.h"

// Mode flags fixed at entry and read throughout a trace.
struct RequestMode
{
    bool bAllHits = false;      // pCountHits given
    bool bIndices = false;      // pFirstIndex given
    bool bFirstHitOnly = false; // pLastHit not given
    unsigned int uGeometryFlags = 0;
    std::uint64_t nBytesPerRay = 0; // device bytes one ray of a batch takes
};

enum class RequestState
{
    NeedsDevice,
    Answered, // on the host: no rays, or no triangles
    Invalid,
};

// Clears cAllHits, derives and validates the mode, and fills the no-hit answers when there are no triangles.
RequestState PrepareRequest(RayTracingResults& cRayTracingResults, std::uint64_t nTriangles,
                            std::uint64_t nRays, const float* pOrigin, const float* pDirection,
                            const float* pDistance, float fMaxDistance, RequestMode& cMode);

// Bytes of one ray in the hardest-working request: the minimum batch of any mode fits in this many per ray.
constexpr std::uint64_t c_nCostliestBytesPerRay =
    12 + 12 + 4 + 4 * 4; // direction, origin, distance, 4 results
