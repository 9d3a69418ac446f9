#include "ReferenceTracer.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <thread>

namespace TestReference
{
namespace
{
// Single-precision intersection stays within a few hundred ulps of the scene's magnitude; anything closer to
// a decision boundary than this is treated as undecidable.
constexpr double c_fRelativeTolerance = 1e-5;
// Below this cosine between ray and triangle normal the hit point is too ill-conditioned to judge.
constexpr double c_fSmallestCosine = 1e-6;

void Sub(const double* a, const double* b, double* r)
{
    r[0] = a[0] - b[0];
    r[1] = a[1] - b[1];
    r[2] = a[2] - b[2];
}

void Cross(const double* a, const double* b, double* r)
{
    r[0] = a[1] * b[2] - a[2] * b[1];
    r[1] = a[2] * b[0] - a[0] * b[2];
    r[2] = a[0] * b[1] - a[1] * b[0];
}

double Dot(const double* a, const double* b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

double Length(const double* a)
{
    return std::sqrt(Dot(a, a));
}

bool NearlyTied(const ReferenceHit& a, const ReferenceHit& b)
{
    return std::abs(a.fDistance - b.fDistance) <= a.fTolerance + b.fTolerance;
}
} // namespace

std::uint64_t RayReference::CountHits() const
{
    return static_cast<std::uint64_t>(
        std::count_if(aHits.begin(), aHits.end(), [](const ReferenceHit& h) { return h.fDistance > 0.0; }));
}

std::vector<ReferenceHit> RayReference::CountedHits() const
{
    std::vector<ReferenceHit> aCounted;
    std::copy_if(aHits.begin(), aHits.end(), std::back_inserter(aCounted),
                 [](const ReferenceHit& h) { return h.fDistance > 0.0; });
    return aCounted;
}

const ReferenceHit* RayReference::Nearest() const
{
    return aHits.empty() ? nullptr : &aHits.front();
}

const ReferenceHit* RayReference::Farthest() const
{
    return aHits.empty() ? nullptr : &aHits.back();
}

float EffectiveMaxDistance(float fMaxDistance, const float* pDistance)
{
    if (pDistance == nullptr || std::isnan(*pDistance))
    {
        return fMaxDistance;
    }
    if (std::isnan(fMaxDistance))
    {
        return *pDistance;
    }
    return std::min(*pDistance, fMaxDistance);
}

ReferenceTracer::ReferenceTracer(const float* pTriangles, std::uint64_t nTriangles)
{
    m_aTriangles.resize(nTriangles);
    for (std::uint64_t i = 0; i < nTriangles; ++i)
    {
        const float* p = pTriangles + 9 * i;
        double v[3][3];
        for (int iCorner = 0; iCorner < 3; ++iCorner)
        {
            for (int iAxis = 0; iAxis < 3; ++iAxis)
            {
                v[iCorner][iAxis] = p[3 * iCorner + iAxis];
                m_fSceneScale = std::max(m_fSceneScale, std::abs(v[iCorner][iAxis]));
            }
        }
        Triangle& t = m_aTriangles[i];
        std::copy(v[0], v[0] + 3, t.v0);
        Sub(v[1], v[0], t.e1);
        Sub(v[2], v[0], t.e2);
        double aNormal[3], aOpposite[3];
        Cross(t.e1, t.e2, aNormal);
        t.fTwiceArea = Length(aNormal);
        Sub(v[2], v[1], aOpposite);
        const double aEdgeLengths[3] = {Length(aOpposite), Length(t.e2), Length(t.e1)};
        for (int iCorner = 0; iCorner < 3; ++iCorner)
        {
            t.aAltitudes[iCorner] = aEdgeLengths[iCorner] > 0.0 ? t.fTwiceArea / aEdgeLengths[iCorner] : 0.0;
        }
    }
}

RayReference ReferenceTracer::Trace(const float* pOrigin, const float* pDirection,
                                    float fMaxDistanceOfRay) const
{
    RayReference cResult;
    if (!(fMaxDistanceOfRay > 0.0f))
    {
        return cResult;
    }
    const double fMax = fMaxDistanceOfRay;
    const double o[3] = {pOrigin ? pOrigin[0] : 0.0, pOrigin ? pOrigin[1] : 0.0, pOrigin ? pOrigin[2] : 0.0};
    const double d[3] = {pDirection[0], pDirection[1], pDirection[2]};
    const double fDirectionLength = Length(d);
    if (fDirectionLength == 0.0)
    {
        return cResult;
    }
    const double fTolGeometric =
        c_fRelativeTolerance * std::max({m_fSceneScale, std::abs(o[0]), std::abs(o[1]), std::abs(o[2])});

    for (std::size_t iTriangle = 0; iTriangle < m_aTriangles.size(); ++iTriangle)
    {
        const Triangle& tri = m_aTriangles[iTriangle];
        if (tri.fTwiceArea == 0.0)
        {
            continue; // a degenerate triangle covers no area and is never hit
        }
        double p[3], s[3], q[3];
        Cross(d, tri.e2, p);
        const double fDet = Dot(tri.e1, p);
        const double fCosine = std::abs(fDet) / (fDirectionLength * tri.fTwiceArea);
        if (fCosine == 0.0)
        {
            continue;
        }
        Sub(o, tri.v0, s);
        Cross(s, tri.e1, q);
        const double u = Dot(s, p) / fDet;
        const double v = Dot(d, q) / fDet;
        const double t = Dot(tri.e2, q) / fDet;

        const double fConditioning = std::max(fCosine, c_fSmallestCosine);
        const double fTolInPlane = fTolGeometric / fConditioning;
        const double fTolT = fTolGeometric / (fConditioning * fDirectionLength);
        const double aWeights[3] = {1.0 - u - v, u, v};
        bool bOutside = false;
        bool bOnBoundary = false;
        for (int iCorner = 0; iCorner < 3; ++iCorner)
        {
            const double fEpsilon = tri.aAltitudes[iCorner] > 0.0 ? fTolInPlane / tri.aAltitudes[iCorner]
                                                                  : std::numeric_limits<double>::infinity();
            if (aWeights[iCorner] < -fEpsilon)
            {
                bOutside = true;
            }
            else if (aWeights[iCorner] <= fEpsilon)
            {
                bOnBoundary = true;
            }
        }
        if (bOutside || t < -fTolT || t > fMax + fTolT)
        {
            continue;
        }
        if (bOnBoundary || std::abs(t) <= fTolT || (std::isfinite(fMax) && std::abs(t - fMax) <= fTolT))
        {
            cResult.bAmbiguous = true;
        }
        if (t >= 0.0 && t <= fMax)
        {
            cResult.aHits.push_back({t, static_cast<std::int32_t>(iTriangle), fTolT});
        }
    }

    std::sort(cResult.aHits.begin(), cResult.aHits.end(),
              [](const ReferenceHit& a, const ReferenceHit& b) {
                  return a.fDistance < b.fDistance ||
                         (a.fDistance == b.fDistance && a.iTriangle < b.iTriangle);
              });
    const std::size_t nHits = cResult.aHits.size();
    if (nHits >= 2 && (NearlyTied(cResult.aHits[0], cResult.aHits[1]) ||
                       NearlyTied(cResult.aHits[nHits - 2], cResult.aHits[nHits - 1])))
    {
        cResult.bAmbiguous = true;
    }
    return cResult;
}

std::vector<RayReference> ReferenceTracer::TraceAll(const RaySet& cRays, bool bOrigins, bool bDistances,
                                                    float fMaxDistance) const
{
    const std::uint64_t nRays = cRays.Count();
    std::vector<RayReference> aResults(nRays);
    auto TraceRange = [&](std::uint64_t iBegin, std::uint64_t iEnd)
    {
        for (std::uint64_t i = iBegin; i < iEnd; ++i)
        {
            const float fMax =
                EffectiveMaxDistance(fMaxDistance, bDistances ? cRays.aDistances.data() + i : nullptr);
            aResults[i] = Trace(bOrigins ? cRays.aOrigins.data() + 3 * i : nullptr,
                                cRays.aDirections.data() + 3 * i, fMax);
        }
    };
    const std::uint64_t nThreads = std::max(1u, std::thread::hardware_concurrency());
    const std::uint64_t nPerThread = (nRays + nThreads - 1) / nThreads;
    std::vector<std::thread> aThreads;
    for (std::uint64_t iBegin = 0; iBegin < nRays; iBegin += nPerThread)
    {
        aThreads.emplace_back(TraceRange, iBegin, std::min(nRays, iBegin + nPerThread));
    }
    for (auto& cThread : aThreads)
    {
        cThread.join();
    }
    return aResults;
}
} // namespace TestReference
