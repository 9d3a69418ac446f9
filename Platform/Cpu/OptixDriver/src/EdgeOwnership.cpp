// Built with -ffp-contract=off: the filter's error bound and the exact arithmetic assume that every product
// and sum is rounded on its own.
#include "EdgeOwnership.h"

#include <cmath>
#include <initializer_list>

namespace OptixStandIn
{
namespace
{
constexpr double c_fEpsilon = 1.1102230246251565e-16; // 2^-53

double At(float3 v, int k)
{
    return k == 0 ? v.x : k == 1 ? v.y : v.z;
}

// A sum of doubles held exactly as a non-overlapping expansion (Shewchuk), smallest term first; its sign is
// that of its largest term.
class ExactSum
{
public:
    void Add(double b)
    {
        int n = 0;
        for (int i = 0; i < m_nTerms; ++i)
        {
            const double fSum = b + m_aTerms[i];
            const double fVirtualTerm = fSum - b;
            const double fError = (b - (fSum - fVirtualTerm)) + (m_aTerms[i] - fVirtualTerm);
            b = fSum;
            if (fError != 0.0)
                m_aTerms[n++] = fError;
        }
        if (b != 0.0)
            m_aTerms[n++] = b;
        m_nTerms = n;
    }
    // x * y exactly (fma gives the product's rounding error).
    void AddProduct(double x, double y)
    {
        const double fProduct = x * y;
        Add(std::fma(x, y, -fProduct));
        Add(fProduct);
    }
    int Sign() const { return m_nTerms == 0 ? 0 : m_aTerms[m_nTerms - 1] > 0.0 ? 1 : -1; }

private:
    double m_aTerms[40];
    int m_nTerms = 0;
};

// Adds det(a, b, c) of float vectors: each minor's products of two floats are exact doubles.
void AddDeterminant(ExactSum& cSum, float3 a, float3 b, float3 c)
{
    const double aA[3] = {a.x, a.y, a.z}, aB[3] = {b.x, b.y, b.z}, aC[3] = {c.x, c.y, c.z};
    for (int i = 0; i < 3; ++i)
    {
        const int j = (i + 1) % 3, k = (i + 2) % 3;
        cSum.AddProduct(aA[i], aB[j] * aC[k]);
        cSum.AddProduct(-aA[i], aB[k] * aC[j]);
    }
}

float3 Corner(const float* pTriangle, int i)
{
    return float3{pTriangle[3 * i], pTriangle[3 * i + 1], pTriangle[3 * i + 2]};
}

// Sign of the edge function det(a - o, b - o, d) = det(a, b, d) + det(o, a, d) + det(b, o, d); 2 for NaN.
int EdgeSign(const TestRay& cRay, float3 a, float3 b)
{
    const double aA[3] = {double(a.x) - cRay.origin.x, double(a.y) - cRay.origin.y,
                          double(a.z) - cRay.origin.z};
    const double aB[3] = {double(b.x) - cRay.origin.x, double(b.y) - cRay.origin.y,
                          double(b.z) - cRay.origin.z};
    const double aD[3] = {cRay.direction.x, cRay.direction.y, cRay.direction.z};
    double fValue = 0.0, fPermanent = 0.0;
    for (int i = 0; i < 3; ++i)
    {
        const int j = (i + 1) % 3, k = (i + 2) % 3;
        const double fLeft = aB[j] * aD[k], fRight = aB[k] * aD[j];
        fValue += aA[i] * (fLeft - fRight);
        fPermanent += std::fabs(aA[i]) * (std::fabs(fLeft) + std::fabs(fRight));
    }
    if (std::isnan(fValue))
        return 2;
    // The differences a - o and b - o, the products and the sums each round by a float step of the
    // permanent at most; a few dozen of them bound the error.
    const double fBound = 32.0 * c_fEpsilon * fPermanent;
    if (fValue > fBound)
        return 1;
    if (fValue < -fBound)
        return -1;
    ExactSum cSum;
    AddDeterminant(cSum, a, b, cRay.direction);
    AddDeterminant(cSum, cRay.origin, a, cRay.direction);
    AddDeterminant(cSum, b, cRay.origin, cRay.direction);
    return cSum.Sign();
}

// On which side of an edge (a, b) through the ray the step lies: minus the sign of step . ((b - a) x d),
// exactly, the step being along axis kx first and along ky where that is zero. 0 for an edge along the ray.
int StepSide(const TestRay& cRay, float3 a, float3 b)
{
    for (int k : {cRay.kx, cRay.ky})
    {
        const int m = (k + 1) % 3, n = (k + 2) % 3;
        // ((b - a) x d)_k = b_m d_n - a_m d_n - b_n d_m + a_n d_m, products of floats exact in double.
        ExactSum cSum;
        cSum.Add(At(b, m) * At(cRay.direction, n));
        cSum.Add(-At(a, m) * At(cRay.direction, n));
        cSum.Add(-At(b, n) * At(cRay.direction, m));
        cSum.Add(At(a, n) * At(cRay.direction, m));
        if (const int iSign = cSum.Sign())
            return -iSign;
    }
    return 0;
}

bool Decide(const TestRay& cRay, const float* pTriangle, double* pDistance)
{
    const float3 aCorners[3] = {Corner(pTriangle, 0), Corner(pTriangle, 1), Corner(pTriangle, 2)};
    // Edge i runs from corner i to corner i + 1.
    int aSign[3];
    for (int i = 0; i < 3; ++i)
        if ((aSign[i] = EdgeSign(cRay, aCorners[i], aCorners[(i + 1) % 3])) == 2)
            return false; // NaN

    const bool bPositive = aSign[0] > 0 || aSign[1] > 0 || aSign[2] > 0;
    const bool bNegative = aSign[0] < 0 || aSign[1] < 0 || aSign[2] < 0;
    if (bPositive == bNegative)
        return false; // outside, or a triangle seen edge-on
    const int iOrientation = bPositive ? 1 : -1;
    for (int i = 0; i < 3; ++i)
        if (aSign[i] == 0 && StepSide(cRay, aCorners[i], aCorners[(i + 1) % 3]) * iOrientation <= 0)
            return false;
    if (pDistance)
    {
        const float3 a = aCorners[0], b = aCorners[1], c = aCorners[2];
        const double e1[3] = {double(b.x) - a.x, double(b.y) - a.y, double(b.z) - a.z};
        const double e2[3] = {double(c.x) - a.x, double(c.y) - a.y, double(c.z) - a.z};
        const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                             e1[0] * e2[1] - e1[1] * e2[0]};
        const double aToA[3] = {double(a.x) - cRay.origin.x, double(a.y) - cRay.origin.y,
                                double(a.z) - cRay.origin.z};
        *pDistance = (n[0] * aToA[0] + n[1] * aToA[1] + n[2] * aToA[2]) /
                     (n[0] * cRay.direction.x + n[1] * cRay.direction.y + n[2] * cRay.direction.z);
    }
    return true;
}
} // namespace

TestRay MakeTestRay(float3 origin, float3 direction)
{
    const float fX = std::fabs(direction.x), fY = std::fabs(direction.y), fZ = std::fabs(direction.z);
    const int kz = fX > fY ? (fX > fZ ? 0 : 2) : (fY > fZ ? 1 : 2);
    return TestRay{origin, direction, (kz + 1) % 3, (kz + 2) % 3};
}

bool OwnsCrossing(const TestRay& cRay, const float* pTriangle)
{
    return Decide(cRay, pTriangle, nullptr);
}

bool OwnsCrossing(const TestRay& cRay, const float* pTriangle, double& fDistance)
{
    return Decide(cRay, pTriangle, &fDistance);
}
} // namespace OptixStandIn
