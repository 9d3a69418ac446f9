// The exact triangle test that decides every hit of the stand-in. Seen along the ray, each edge (a, b) of a
// triangle has the edge function det(a - o, b - o, d), whose sign this test computes exactly from the float
// coordinates (a floating-point filter, exact arithmetic where the filter cannot tell). A shared edge has
// exactly opposite functions in its two triangles, and all signs are those of the true geometry, so where a
// surface crosses the ray through edges and vertices exactly one triangle around them owns the crossing:
// the one that contains the ray moved by an infinitesimal step (first along the axis after the ray's
// dominant one, then along the last axis). Where the surface only touches the ray (a fold, a silhouette
// edge), both triangles or neither own it; triangles in the ray's plane own nothing.
#pragma once

#include "cuda_runtime.h"

namespace OptixStandIn
{
struct TestRay
{
    float3 origin;
    float3 direction;
    int kx, ky; // the step's axes: the two after the direction's largest component
};

TestRay MakeTestRay(float3 origin, float3 direction);

// Whether the ray's line meets the triangle (9 floats) and owns the crossing.
bool OwnsCrossing(const TestRay& cRay, const float* pTriangle);

// The same test, also giving the crossing's distance along the ray (to a few float steps) when owned.
bool OwnsCrossing(const TestRay& cRay, const float* pTriangle, double& fDistance);
} // namespace OptixStandIn
