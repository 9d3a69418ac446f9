// Embree's view of a scene's triangles. Embree rounds differently from the exact test that decides hits,
// so it sees every triangle enlarged: scaled about its centroid so that each edge moves out by at least a
// margin well above its rounding. Then it presents every triangle that the exact test may give a ray (and
// some that the test rejects).
//
// A triangle grows by 2^c, the least power of two that moves each edge out by the margin (c is its class).
// How far from an enlarged triangle's edges a candidate must lie to be owned without the exact test depends
// on the growth, so Embree's triangles form two groups: the main group (the classes up to the one under
// which most of the area lies) and the thin group (the next four classes), told apart in Embree's hit by the
// winding it was given. Thinner triangles, and degenerate ones whose corners differ, are tested exactly
// without Embree's test; a triangle with two equal corners never owns a crossing.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "cuda_runtime.h"

namespace OptixStandIn
{
enum class TriangleGroup
{
    Main,
    Thin,
    Exact,
    Ignored, // invalid, or two equal corners
};

// A bounding box of triangles.
struct TriangleBounds
{
    float aMin[3] = {3.4e38f, 3.4e38f, 3.4e38f};
    float aMax[3] = {-3.4e38f, -3.4e38f, -3.4e38f};

    // Adds a valid triangle (within Embree's coordinate limit; others are never hit); false for an invalid
    // one, which is left out.
    bool Add(const float* pTriangle);
};

// How a sample of the triangles' area spreads over classes (taken for a margin of 1).
struct GrowthSample
{
    static constexpr int c_iClassOffset = 150; // classes for a margin of 1 lie in [-64, 140]
    std::array<double, 300> aAreas{};

    void Add(const float* pTriangle);
};

struct MarginPlan
{
    bool bEmpty = true;     // no valid triangle
    float3 centre{0, 0, 0}; // bounding sphere of the valid triangles
    float fRadius = 0.0f;
    float fMargin = 0.0f; // the least distance each edge moves out, a power of two
    int iMainClass = 0;   // the last class of the main group
    // Embree's barycentric error, met at normal incidence, over the triangle's growth (allowed for twice).
    float fErrorShare = 1.0f;

    float MainGrowth() const;
    float ThinGrowth() const;
};

// A plan from a sample of the triangles: its bounds and how its area spreads over classes.
MarginPlan PlanMargin(const TriangleBounds& cSampleBounds, const GrowthSample& cSample);

// Settles the plan on the bounds of all triangles (Embree's scene bounds). False when its margin is too
// small for them: then the plan has been redone for them and the triangles must be prepared again.
bool SettlePlan(MarginPlan& cPlan, const TriangleBounds& cBounds);

// Writes the triangle to pSlot: for Embree's groups scaled about its centroid by
// 1 + its class's growth (a coordinate that all three corners share stays exact, so axis-parallel triangles
// keep their plane), with the winding of its group (the largest component of cross(b - a, c - a) positive
// for the main group, negative for the thin one); for the others as given.
TriangleGroup PrepareTriangle(const MarginPlan& cPlan, const float* pTriangle, float* pSlot);

// PrepareTriangle for triangles [iBegin, iEnd) of a packed array into the same places of pSlots, listing the
// exact ones and those Embree does not see (the exact and the ignored ones).
void PrepareTriangles(const MarginPlan& cPlan, const float* pTriangles, size_t iBegin, size_t iEnd,
                      float* pSlots, std::vector<unsigned int>& aExact, std::vector<unsigned int>& aLeftOut);

// The group of an Embree hit on a triangle prepared above, from its geometric normal (Embree's sign
// convention: fNormalSign): Main, or Thin also where the largest components are too close to tell.
TriangleGroup GroupOfHit(float fNormalX, float fNormalY, float fNormalZ, float fNormalSign);
} // namespace OptixStandIn
