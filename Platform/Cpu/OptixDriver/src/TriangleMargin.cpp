#include "TriangleMargin.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace OptixStandIn
{
namespace
{
// Embree's coordinate limit (FLT_LARGE): a triangle with a corner beyond it is ignored by Embree.
constexpr float c_fEmbreeLimit = 1.844e18f;
// The margin: four to eight float steps (2^-21) of the extent, the largest |coordinate| plus five radii, from
// a sample of the triangles (at least two float steps of all triangles' extent, see SettlePlan).
// Embree's rounding of a triangle's position, seen from the ray, is about one float step of the distance
// between them, which the extent bounds with room to spare (origins farther away move closer, see
// PlaceEmbreeRay).
constexpr int c_iMarginExponent = -21;
// The main group holds the classes under which this share of the area lies; the thin group the next ones.
constexpr double c_fMainAreaShare = 0.9;
constexpr int c_nThinClasses = 4;
// No triangle grows beyond a quarter: thinner ones are tested exactly.
constexpr int c_iLastClass = -2;
constexpr int c_iNoClass = -1000;

float Dot(const float* a, const float* b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

// Binary exponent of a positive normal float.
int Exponent(float f)
{
    std::uint32_t uBits;
    std::memcpy(&uBits, &f, sizeof(uBits));
    return static_cast<int>((uBits >> 23) & 0xFF) - 127;
}

float PowerOfTwo(int iExponent)
{
    const auto uBits = static_cast<std::uint32_t>((iExponent < -126 ? -126 : iExponent) + 127) << 23;
    float f;
    std::memcpy(&f, &uBits, sizeof(f));
    return f;
}

// The class of a triangle for a margin of 1: scaled about its centroid by 1 + s, a triangle moves each edge
// out by a third of s times the edge's altitude, so the least c with 2^c >= 3 x longest edge / twice the
// area will do; from the binary exponent e of its square, which lies in [2^e, 2^(e+1)). c_iNoClass for a
// degenerate triangle, or one whose products overflow a float (near Embree's limit: tested exactly). Also
// gives the normal cross(b - a, c - a).
int ClassForUnitMargin(const float* p, float* n)
{
    const float e1[3] = {p[3] - p[0], p[4] - p[1], p[5] - p[2]};
    const float e2[3] = {p[6] - p[0], p[7] - p[1], p[8] - p[2]};
    const float e3[3] = {e2[0] - e1[0], e2[1] - e1[1], e2[2] - e1[2]};
    n[0] = e1[1] * e2[2] - e1[2] * e2[1];
    n[1] = e1[2] * e2[0] - e1[0] * e2[2];
    n[2] = e1[0] * e2[1] - e1[1] * e2[0];
    const float l1 = Dot(e1, e1), l2 = Dot(e2, e2), l3 = Dot(e3, e3);
    const float l12 = l1 > l2 ? l1 : l2;
    const float fLongest = 9.0f * (l12 > l3 ? l12 : l3);
    const float fTwiceAreaSquared = Dot(n, n);
    constexpr float c_fLeast = std::numeric_limits<float>::min(), c_fMost = std::numeric_limits<float>::max();
    if (!(fLongest >= c_fLeast && fLongest <= c_fMost && fTwiceAreaSquared >= c_fLeast &&
          fTwiceAreaSquared <= c_fMost))
        return c_iNoClass;
    // The binary exponent e of the ratio, without dividing: the exponents' difference, less one where the
    // numerator's significand is the smaller.
    std::uint32_t uLongest, uArea;
    std::memcpy(&uLongest, &fLongest, sizeof(uLongest));
    std::memcpy(&uArea, &fTwiceAreaSquared, sizeof(uArea));
    const int e = static_cast<int>(uLongest >> 23) - static_cast<int>(uArea >> 23) -
                  ((uLongest & 0x7FFFFF) < (uArea & 0x7FFFFF) ? 1 : 0);
    return (e + 2) >> 1; // the least c with 2c >= e + 1
}

// The largest |coordinate| of a triangle; NaN (failing every comparison) when a coordinate is NaN.
float MaxAbs(const float* p)
{
    float fMax = 0.0f;
    for (int j = 0; j < 9; ++j)
        fMax = std::fabs(p[j]) > fMax ? std::fabs(p[j]) : fMax;
    const float fSum = (p[0] + p[1] + p[2]) + (p[3] + p[4] + p[5]) + (p[6] + p[7] + p[8]);
    return fSum == fSum ? fMax : fSum;
}

// The triangle scaled about its centroid by 1 + fGrowth, corners b and c swapped when bSwap; false where it
// would leave Embree's coordinate limit.
bool EnlargeTriangle(const float* p, float fGrowth, float fMaxAbs, bool bSwap, float* pEnlarged)
{
    const int iB = bSwap ? 6 : 3, iC = bSwap ? 3 : 6;
    for (int k = 0; k < 3; ++k)
    {
        const float a = p[k], b = p[3 + k], c = p[6 + k];
        const float fScale = a == b && b == c ? 0.0f : fGrowth;
        const float fCentre = (a + b + c) * (1.0f / 3.0f);
        pEnlarged[k] = a + fScale * (a - fCentre);
        pEnlarged[iB + k] = b + fScale * (b - fCentre);
        pEnlarged[iC + k] = c + fScale * (c - fCentre);
    }
    // A corner moves by at most twice the growth times the largest |coordinate|.
    if ((1.0f + 2.0f * fGrowth) * fMaxAbs < c_fEmbreeLimit)
        return true;
    float fMax = 0.0f;
    for (int j = 0; j < 9; ++j)
        fMax = std::fabs(pEnlarged[j]) > fMax ? std::fabs(pEnlarged[j]) : fMax;
    return fMax < c_fEmbreeLimit;
}

// The sign of the normal's largest component, 0 where the two largest differ by less than a part in 64
// (Embree's normal may then have the other one largest).
int LargestComponentSign(float x, float y, float z)
{
    const float ax = std::fabs(x), ay = std::fabs(y), az = std::fabs(z);
    float fLargest = x, fAbs = ax, fNext = ay > az ? ay : az;
    if (ay > fAbs && ay >= az)
        fLargest = y, fAbs = ay, fNext = ax > az ? ax : az;
    else if (az > fAbs && az > ay)
        fLargest = z, fAbs = az, fNext = ax > ay ? ax : ay;
    if (!(fAbs > fNext * (1.0f + 1.0f / 64.0f)))
        return 0;
    return fLargest > 0.0f ? 1 : -1;
}

float Extent(const TriangleBounds& cBounds, float& fRadius)
{
    float aHalf[3], fMaxAbs = 0.0f;
    for (int k = 0; k < 3; ++k)
    {
        aHalf[k] = 0.5f * (cBounds.aMax[k] - cBounds.aMin[k]);
        fMaxAbs = std::fmax(fMaxAbs, std::fmax(-cBounds.aMin[k], cBounds.aMax[k]));
    }
    fRadius = std::sqrt(Dot(aHalf, aHalf));
    return fMaxAbs + 5.0f * fRadius;
}

float MarginFor(float fExtent)
{
    const int iExponent = fExtent > 0.0f && fExtent < std::numeric_limits<float>::infinity()
                              ? Exponent(fExtent) + 1 + c_iMarginExponent
                              : -126;
    return std::ldexp(1.0f, iExponent < -126 ? -126 : iExponent);
}
} // namespace

bool TriangleBounds::Add(const float* p)
{
    if (!(MaxAbs(p) < c_fEmbreeLimit))
        return false;
    for (int j = 0; j < 9; ++j)
    {
        aMin[j % 3] = std::fmin(aMin[j % 3], p[j]);
        aMax[j % 3] = std::fmax(aMax[j % 3], p[j]);
    }
    return true;
}

void GrowthSample::Add(const float* p)
{
    float n[3];
    const int iClass = ClassForUnitMargin(p, n);
    if (iClass != c_iNoClass)
        aAreas[iClass + c_iClassOffset] += 0.5 * std::sqrt(static_cast<double>(Dot(n, n)));
}

float MarginPlan::MainGrowth() const
{
    return PowerOfTwo(iMainClass);
}

float MarginPlan::ThinGrowth() const
{
    const int iLast = iMainClass + c_nThinClasses;
    return PowerOfTwo(iLast < c_iLastClass ? iLast : c_iLastClass);
}

MarginPlan PlanMargin(const TriangleBounds& cSampleBounds, const GrowthSample& cSample)
{
    MarginPlan cPlan;
    float fRadius;
    // Without a valid sample the least margin: settling the plan on Embree's bounds then raises it.
    cPlan.fMargin =
        MarginFor(cSampleBounds.aMin[0] <= cSampleBounds.aMax[0] ? Extent(cSampleBounds, fRadius) : 0.0f);
    double fTotal = 0.0;
    for (double fArea : cSample.aAreas)
        fTotal += fArea;
    double fCovered = 0.0;
    int iBin = 0;
    while (iBin + 1 < static_cast<int>(cSample.aAreas.size()) &&
           fCovered + cSample.aAreas[iBin] < c_fMainAreaShare * fTotal)
        fCovered += cSample.aAreas[iBin++];
    const int iMainClass = Exponent(cPlan.fMargin) + iBin - GrowthSample::c_iClassOffset;
    cPlan.iMainClass = iMainClass < c_iLastClass ? iMainClass : c_iLastClass;
    return cPlan;
}

bool SettlePlan(MarginPlan& cPlan, const TriangleBounds& cBounds)
{
    cPlan.bEmpty = !(cBounds.aMin[0] <= cBounds.aMax[0]);
    if (cPlan.bEmpty)
        return true;
    const float fExtent = Extent(cBounds, cPlan.fRadius);
    cPlan.centre =
        float3{0.5f * (cBounds.aMin[0] + cBounds.aMax[0]), 0.5f * (cBounds.aMin[1] + cBounds.aMax[1]),
               0.5f * (cBounds.aMin[2] + cBounds.aMax[2])};
    // The sample's margin will do down to half the planned one, two float steps of the extent (Embree's
    // bounds are those of the enlarged triangles, up to a quarter larger).
    const float fMargin = MarginFor(fExtent);
    if (fMargin > 2.0f * cPlan.fMargin)
    {
        cPlan.iMainClass += Exponent(fMargin) - Exponent(cPlan.fMargin);
        cPlan.iMainClass = cPlan.iMainClass < c_iLastClass ? cPlan.iMainClass : c_iLastClass;
        cPlan.fMargin = fMargin;
        return false;
    }
    // Embree's barycentric error at normal incidence: about one float step of the distance from Embree's ray
    // origin (below 3.3 radii) over the altitude, which is at least 3 margins / growth. Allowed twice over.
    constexpr float c_fFloatStep = 1.0f / 8388608.0f; // 2^-23
    cPlan.fErrorShare = std::fmin(1.0f, 2.0f * c_fFloatStep * 3.3f * cPlan.fRadius / (3.0f * cPlan.fMargin));
    return true;
}

namespace
{
inline TriangleGroup Prepare(const MarginPlan& cPlan, const float* p, float* pSlot)
{
    const float fMaxAbs = MaxAbs(p);
    if (!(fMaxAbs < c_fEmbreeLimit))
    {
        if (pSlot != p)
            std::memcpy(pSlot, p, 36);
        return TriangleGroup::Ignored;
    }
    float n[3];
    const int iForUnitMargin = ClassForUnitMargin(p, n);
    const int iClass = iForUnitMargin == c_iNoClass ? c_iNoClass : iForUnitMargin + Exponent(cPlan.fMargin);
    const int iLastThin = Exponent(cPlan.ThinGrowth());
    TriangleGroup eGroup = iClass == c_iNoClass || iClass > iLastThin ? TriangleGroup::Exact
                           : iClass > cPlan.iMainClass                ? TriangleGroup::Thin
                                                                      : TriangleGroup::Main;
    if (eGroup != TriangleGroup::Exact)
    {
        const bool bSwap = LargestComponentSign(n[0], n[1], n[2]) == (eGroup == TriangleGroup::Main ? -1 : 1);
        if (EnlargeTriangle(p, PowerOfTwo(iClass), fMaxAbs, bSwap, pSlot))
            return eGroup;
        eGroup = TriangleGroup::Exact;
    }
    else if (iClass == c_iNoClass)
    {
        const auto Equal = [&](int i, int j)
        { return p[i] == p[j] && p[i + 1] == p[j + 1] && p[i + 2] == p[j + 2]; };
        if (Equal(0, 3) || Equal(3, 6) || Equal(6, 0))
            eGroup = TriangleGroup::Ignored;
    }
    if (pSlot != p)
        std::memcpy(pSlot, p, 36);
    return eGroup;
}
} // namespace

TriangleGroup PrepareTriangle(const MarginPlan& cPlan, const float* pTriangle, float* pSlot)
{
    return Prepare(cPlan, pTriangle, pSlot);
}

void PrepareTriangles(const MarginPlan& cPlan, const float* pTriangles, size_t iBegin, size_t iEnd,
                      float* pSlots, std::vector<unsigned int>& aExact, std::vector<unsigned int>& aLeftOut)
{
    for (size_t i = iBegin; i != iEnd; ++i)
    {
        const TriangleGroup eGroup = Prepare(cPlan, pTriangles + 9 * i, pSlots + 9 * i);
        if (eGroup == TriangleGroup::Exact)
            aExact.push_back(static_cast<unsigned int>(i));
        if (eGroup == TriangleGroup::Exact || eGroup == TriangleGroup::Ignored)
            aLeftOut.push_back(static_cast<unsigned int>(i));
    }
}

TriangleGroup GroupOfHit(float fNormalX, float fNormalY, float fNormalZ, float fNormalSign)
{
    return LargestComponentSign(fNormalX, fNormalY, fNormalZ) * fNormalSign > 0.0f ? TriangleGroup::Main
                                                                                   : TriangleGroup::Thin;
}
} // namespace OptixStandIn
