// Brute-force ray casting in double precision: the answer every library mode is checked against.
//
// The library intersects in single precision, so a ray whose answer could flip under rounding (it grazes an
// edge or vertex, a hit lies at the origin or at the end of the interval, or the nearest or farthest hit is
// nearly tied with another) is flagged ambiguous; tests skip such rays and count them.
#pragma once

#include "TestScenes.h"

#include <cstdint>
#include <vector>

namespace TestReference
{
struct ReferenceHit
{
    double fDistance = 0.0; // ray parameter t (not normalised by the direction's length)
    std::int32_t iTriangle = -1;
    double fTolerance = 0.0; // how far a single-precision t may stray from fDistance
};

struct RayReference
{
    std::vector<ReferenceHit> aHits; // every hit with t in [0, tmax], ascending by t
    bool bAmbiguous = false;

    // Hit counting and all-hits modes see only hits with t > 0.
    std::uint64_t CountHits() const;
    std::vector<ReferenceHit> CountedHits() const;
    // Nearest and farthest modes see [0, tmax]; null when nothing is hit.
    const ReferenceHit* Nearest() const;
    const ReferenceHit* Farthest() const;
};

// The interval end the library uses for a ray: min(distance, fMaxDistance) with a NaN operand ignored.
// pDistance may be null (no per-ray distances). A ray is traced only when this is greater than 0.
float EffectiveMaxDistance(float fMaxDistance, const float* pDistance);

class ReferenceTracer
{
public:
    ReferenceTracer(const float* pTriangles, std::uint64_t nTriangles);
    explicit ReferenceTracer(const TriangleSoup& cSoup) : ReferenceTracer(cSoup.Data(), cSoup.Count()) {}

    // One ray; a null pOrigin means (0, 0, 0). tmax <= 0 or NaN gives no hits.
    RayReference Trace(const float* pOrigin, const float* pDirection, float fMaxDistanceOfRay) const;

    // Every ray of the set, as the library would see it with or without the set's origins and distances.
    std::vector<RayReference> TraceAll(const RaySet& cRays, bool bOrigins, bool bDistances,
                                       float fMaxDistance) const;

private:
    struct Triangle
    {
        double v0[3], e1[3], e2[3];
        double fTwiceArea;
        double aAltitudes[3]; // distance of each corner from its opposite edge
    };
    std::vector<Triangle> m_aTriangles;
    double m_fSceneScale = 1.0;
};
} // namespace TestReference
