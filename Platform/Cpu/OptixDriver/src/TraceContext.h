// One optixTrace as Embree's callbacks see it. Embree proposes candidates from its enlarged triangles (see
// TriangleMargin.h); the exact test of EdgeOwnership.h decides which of them the ray owns, and only those
// reach the any-hit program or become the closest hit.
#pragma once

#include <embree3/rtcore.h>

#include "EdgeOwnership.h"
#include "LaunchContext.h"

namespace OptixStandIn
{
struct TraceContext
{
    RTCIntersectContext rtc; // first member: Embree's pointer is ours
    OptixHost::ProgramState* pState = nullptr;
    const Scene* pScene = nullptr;
    const HitGroupEntry* pHitGroup = nullptr;
    bool bEnforceAnyHit = false;
    bool bRunAnyHit = false; // owned candidates go to the any-hit program
    float3 origin{0, 0, 0};  // the ray as traced: the exact test's frame, the same in every scene
    float3 direction{0, 0, 0};
    double fDirectionSquared = 0.0;
    float fShift = 0.0f; // Embree's ray starts this far along the ray

    const TestRay& Ray();

private:
    bool m_bTestRay = false;
    TestRay m_cTestRay{};
};

// Embree's rounding grows with the distance from its ray origin to the triangles: an origin more than two
// radii before the scene's centre along the ray moves to two radii before it (nothing lies in between), so
// that Embree's ray starts within 3.3 radii of every triangle it can meet.
void PlaceEmbreeRay(const MarginPlan& cPlan, TraceContext& cContext);

// Context filter: drops the candidates that the ray does not own.
void OwnedOnlyFilter(const RTCFilterFunctionNArguments* pArgs);

// Context filter: drops the candidates that the ray does not own and runs the any-hit program on the
// others, dropping those it ignores.
void AnyHitFilter(const RTCFilterFunctionNArguments* pArgs);

// Whether the ray owns the closest hit that Embree found without a filter.
bool OwnsClosestHit(TraceContext& cContext, const RTCHit& cHit);
} // namespace OptixStandIn
