// Embree's candidates, decided: the callbacks of one trace and where Embree's ray starts.
#include <cmath>

#include "TraceContext.h"

namespace OptixStandIn
{
namespace
{
using OptixHost::ProgramState;

// Whether a candidate lies inside the triangle as given (Embree's triangle grew by 1 + fGrowth): its least
// barycentric in the enlarged triangle exceeds a third of the growth (the margin) plus Embree's barycentric
// error, which grows as the ray turns towards the triangle's plane.
bool DeepInside(const TraceContext& cContext, const GeometryInfo& cGeometry, float fGrowth, float fLeast,
                const double* aNormal)
{
    const double fExcess = fLeast - fGrowth / 3.0;
    if (!(fExcess > 0.0))
        return false;
    const float3 d = cContext.direction;
    const double fAlong = d.x * aNormal[0] + d.y * aNormal[1] + d.z * aNormal[2];
    const double fNormalSquared = aNormal[0] * aNormal[0] + aNormal[1] * aNormal[1] + aNormal[2] * aNormal[2];
    const double fError = fGrowth * cGeometry.fErrorShare;
    // fExcess >= fError / cos(angle between ray and normal), squared.
    return fExcess * fExcess * fAlong * fAlong >=
           fError * fError * cContext.fDirectionSquared * fNormalSquared;
}

// The exact test confirms only candidates near an edge of the enlarged triangle, or met at a grazing angle:
// the others lie inside the triangle as given by more than the margin plus both tests' rounding.
bool Owned(TraceContext& cContext, const GeometryInfo& cGeometry, unsigned int iPrimitive, float u, float v,
           float fNormalX, float fNormalY, float fNormalZ)
{
    if (cGeometry.Exact())
        return true; // tested exactly when found
    if (fNormalX == 0.0f && fNormalY == 0.0f && fNormalZ == 0.0f)
        return false; // a triangle left out, or degenerate: the exact geometry decides those
    const float w = 1.0f - u - v;
    const float fLeast = u < v ? (u < w ? u : w) : (v < w ? v : w);
    const double aNormal[3] = {fNormalX, fNormalY, fNormalZ};
    if (DeepInside(cContext, cGeometry, cGeometry.fThinGrowth, fLeast, aNormal) ||
        (GroupOfHit(fNormalX, fNormalY, fNormalZ, cGeometry.fNormalSign) == TriangleGroup::Main &&
         DeepInside(cContext, cGeometry, cGeometry.fMainGrowth, fLeast, aNormal)))
        return true;
    return OwnsCrossing(cContext.Ray(), cGeometry.pTriangles + 9 * static_cast<size_t>(iPrimitive));
}

bool OwnedCandidate(const RTCFilterFunctionNArguments* pArgs, const GeometryInfo*& pGeometry)
{
    auto& cContext = *reinterpret_cast<TraceContext*>(pArgs->context);
    pGeometry = &cContext.pScene->Geometry(RTCHitN_geomID(pArgs->hit, pArgs->N, 0));
    RTCHitN* pHit = pArgs->hit;
    const unsigned int N = pArgs->N;
    return Owned(cContext, *pGeometry, RTCHitN_primID(pHit, N, 0), RTCHitN_u(pHit, N, 0),
                 RTCHitN_v(pHit, N, 0), RTCHitN_Ng_x(pHit, N, 0), RTCHitN_Ng_y(pHit, N, 0),
                 RTCHitN_Ng_z(pHit, N, 0));
}

// Runs the any-hit program on an owned candidate; false when the program ignored it or the launch failed.
bool OfferToAnyHit(TraceContext& cContext, const GeometryInfo& cGeometry, unsigned int iTriangle,
                   float fDistance)
{
    if (!cContext.bEnforceAnyHit && (cGeometry.uFlags & OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT))
        return true;
    ProgramState* pState = cContext.pState;
    pState->iPrimitive = iTriangle + cGeometry.iPrimitiveIndexOffset;
    pState->fRayTmax = fDistance;
    pState->bIgnored = false;
    pState->pSbtData = cContext.pHitGroup->pData;
    cContext.pHitGroup->fnAnyHit();
    return !pState->bIgnored && !pState->pLaunch->bFailed.load(std::memory_order_relaxed);
}

float Dot(float3 a, float3 b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
} // namespace

const TestRay& TraceContext::Ray()
{
    if (!m_bTestRay)
    {
        m_cTestRay = MakeTestRay(origin, direction);
        m_bTestRay = true;
    }
    return m_cTestRay;
}

void PlaceEmbreeRay(const MarginPlan& cPlan, TraceContext& cContext)
{
    cContext.fShift = 0.0f;
    if (cPlan.bEmpty)
        return;
    const float3 o = cContext.origin;
    const float3 d = cContext.direction;
    const float3 toCentre{cPlan.centre.x - o.x, cPlan.centre.y - o.y, cPlan.centre.z - o.z};
    const float fAlong = Dot(toCentre, d);
    const float fLengthSquared = Dot(d, d);
    if (fAlong > 0.0f && fAlong * fAlong > 4.0f * cPlan.fRadius * cPlan.fRadius * fLengthSquared)
        cContext.fShift = fAlong / fLengthSquared - 2.0f * cPlan.fRadius / std::sqrt(fLengthSquared);
}

void OwnedOnlyFilter(const RTCFilterFunctionNArguments* pArgs)
{
    const GeometryInfo* pGeometry;
    if (pArgs->valid[0] != 0 && !OwnedCandidate(pArgs, pGeometry))
        pArgs->valid[0] = 0;
}

void AnyHitFilter(const RTCFilterFunctionNArguments* pArgs)
{
    if (pArgs->valid[0] == 0)
        return;
    const GeometryInfo* pGeometry;
    if (!OwnedCandidate(pArgs, pGeometry))
    {
        pArgs->valid[0] = 0;
        return;
    }
    auto& cContext = *reinterpret_cast<TraceContext*>(pArgs->context);
    // Embree sets tfar to the candidate's distance and restores it when the candidate is rejected.
    const float fDistance = cContext.fShift + RTCRayN_tfar(pArgs->ray, pArgs->N, 0);
    if (!OfferToAnyHit(cContext, *pGeometry, pGeometry->Triangle(RTCHitN_primID(pArgs->hit, pArgs->N, 0)),
                       fDistance))
        pArgs->valid[0] = 0; // rejected: the traversal goes on
}

bool OwnsClosestHit(TraceContext& cContext, const RTCHit& cHit)
{
    return Owned(cContext, cContext.pScene->Geometry(cHit.geomID), cHit.primID, cHit.u, cHit.v, cHit.Ng_x,
                 cHit.Ng_y, cHit.Ng_z);
}

void IntersectExactTriangles(const RTCIntersectFunctionNArguments* pArgs)
{
    if (pArgs->valid[0] == 0)
        return;
    auto& cContext = *reinterpret_cast<TraceContext*>(pArgs->context);
    const GeometryInfo& cGeometry = cContext.pScene->Geometry(pArgs->geomID);
    const unsigned int iTriangle = cGeometry.Triangle(pArgs->primID);
    double fDistance;
    if (!OwnsCrossing(cContext.Ray(), cGeometry.pTriangles + 9 * static_cast<size_t>(iTriangle), fDistance))
        return;
    RTCRayN* pRay = RTCRayHitN_RayN(pArgs->rayhit, pArgs->N);
    RTCHitN* pHit = RTCRayHitN_HitN(pArgs->rayhit, pArgs->N);
    const auto fAlong = static_cast<float>(fDistance - cContext.fShift);
    if (!(fAlong >= RTCRayN_tnear(pRay, pArgs->N, 0) && fAlong <= RTCRayN_tfar(pRay, pArgs->N, 0)))
        return;
    if (cContext.bRunAnyHit && !OfferToAnyHit(cContext, cGeometry, iTriangle, cContext.fShift + fAlong))
        return;
    RTCRayN_tfar(pRay, pArgs->N, 0) = fAlong;
    RTCHitN_u(pHit, pArgs->N, 0) = 0.0f;
    RTCHitN_v(pHit, pArgs->N, 0) = 0.0f;
    RTCHitN_Ng_x(pHit, pArgs->N, 0) = 0.0f;
    RTCHitN_Ng_y(pHit, pArgs->N, 0) = 0.0f;
    RTCHitN_Ng_z(pHit, pArgs->N, 0) = 0.0f;
    RTCHitN_primID(pHit, pArgs->N, 0) = pArgs->primID;
    RTCHitN_geomID(pHit, pArgs->N, 0) = pArgs->geomID;
    RTCHitN_instID(pHit, pArgs->N, 0, 0) = cContext.rtc.instID[0];
}
} // namespace OptixStandIn
