#include "TestScenes.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <utility>

namespace TestReference
{
namespace
{
using Vec3 = std::array<float, 3>;

Vec3 RandomUnitVector(std::mt19937& cRandom)
{
    std::normal_distribution<float> cNormal(0.0f, 1.0f);
    for (;;)
    {
        Vec3 v{cNormal(cRandom), cNormal(cRandom), cNormal(cRandom)};
        const float fLength = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        if (fLength > 1e-3f)
        {
            return {v[0] / fLength, v[1] / fLength, v[2] / fLength};
        }
    }
}

Vec3 RandomPointInBall(std::mt19937& cRandom, float fRadius)
{
    std::uniform_real_distribution<float> cUnit(0.0f, 1.0f);
    const Vec3 v = RandomUnitVector(cRandom);
    const float fScale = fRadius * std::cbrt(cUnit(cRandom));
    return {v[0] * fScale, v[1] * fScale, v[2] * fScale};
}

void PushVertex(std::vector<float>& a, const Vec3& v)
{
    a.insert(a.end(), v.begin(), v.end());
}

void PushRay(RaySet& cRays, const Vec3& vOrigin, const Vec3& vDirection)
{
    PushVertex(cRays.aOrigins, vOrigin);
    PushVertex(cRays.aDirections, vDirection);
}
} // namespace

void TriangleSoup::Append(const TriangleSoup& cOther)
{
    aVertices.insert(aVertices.end(), cOther.aVertices.begin(), cOther.aVertices.end());
}

void RaySet::Append(const RaySet& cOther)
{
    aOrigins.insert(aOrigins.end(), cOther.aOrigins.begin(), cOther.aOrigins.end());
    aDirections.insert(aDirections.end(), cOther.aDirections.begin(), cOther.aDirections.end());
    aDistances.insert(aDistances.end(), cOther.aDistances.begin(), cOther.aDistances.end());
}

TriangleSoup MakeRandomSoup(std::uint64_t nTriangles, std::uint32_t uSeed, float fExtent, float fTriangleSize)
{
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cCentre(-fExtent, fExtent);
    std::uniform_real_distribution<float> cCorner(-fTriangleSize, fTriangleSize);
    TriangleSoup cSoup;
    cSoup.aVertices.reserve(nTriangles * 9);
    for (std::uint64_t i = 0; i < nTriangles; ++i)
    {
        const Vec3 vCentre{cCentre(cRandom), cCentre(cRandom), cCentre(cRandom)};
        for (int iCorner = 0; iCorner < 3; ++iCorner)
        {
            PushVertex(cSoup.aVertices, {vCentre[0] + cCorner(cRandom), vCentre[1] + cCorner(cRandom),
                                         vCentre[2] + cCorner(cRandom)});
        }
    }
    return cSoup;
}

TriangleSoup MakeIcosphere(unsigned nSubdivisions, float fRadius)
{
    const float t = (1.0f + std::sqrt(5.0f)) / 2.0f;
    std::vector<Vec3> aPoints = {{-1, t, 0},  {1, t, 0},  {-1, -t, 0}, {1, -t, 0}, {0, -1, t},  {0, 1, t},
                                 {0, -1, -t}, {0, 1, -t}, {t, 0, -1},  {t, 0, 1},  {-t, 0, -1}, {-t, 0, 1}};
    std::vector<std::array<std::uint32_t, 3>> aFaces = {
        {0, 11, 5},  {0, 5, 1},  {0, 1, 7},  {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
        {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
        {3, 8, 9},   {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    auto Normalise = [](Vec3 v)
    {
        const float fLength = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        return Vec3{v[0] / fLength, v[1] / fLength, v[2] / fLength};
    };
    for (auto& v : aPoints)
    {
        v = Normalise(v);
    }
    for (unsigned iLevel = 0; iLevel < nSubdivisions; ++iLevel)
    {
        // Shared midpoints keep the mesh watertight: neighbouring faces use bit-identical vertices.
        std::map<std::pair<std::uint32_t, std::uint32_t>, std::uint32_t> aMidpoints;
        auto Midpoint = [&](std::uint32_t a, std::uint32_t b)
        {
            const std::pair<std::uint32_t, std::uint32_t> cKey(std::min(a, b), std::max(a, b));
            const auto it = aMidpoints.find(cKey);
            if (it != aMidpoints.end())
            {
                return it->second;
            }
            const Vec3& va = aPoints[a];
            const Vec3& vb = aPoints[b];
            aPoints.push_back(Normalise({(va[0] + vb[0]) / 2, (va[1] + vb[1]) / 2, (va[2] + vb[2]) / 2}));
            const auto iNew = static_cast<std::uint32_t>(aPoints.size() - 1);
            aMidpoints.emplace(cKey, iNew);
            return iNew;
        };
        std::vector<std::array<std::uint32_t, 3>> aFiner;
        for (const auto& f : aFaces)
        {
            const std::uint32_t a = Midpoint(f[0], f[1]);
            const std::uint32_t b = Midpoint(f[1], f[2]);
            const std::uint32_t c = Midpoint(f[2], f[0]);
            aFiner.push_back({f[0], a, c});
            aFiner.push_back({f[1], b, a});
            aFiner.push_back({f[2], c, b});
            aFiner.push_back({a, b, c});
        }
        aFaces = std::move(aFiner);
    }
    TriangleSoup cSoup;
    for (const auto& f : aFaces)
    {
        for (const std::uint32_t iPoint : f)
        {
            const Vec3& v = aPoints[iPoint];
            PushVertex(cSoup.aVertices, {v[0] * fRadius, v[1] * fRadius, v[2] * fRadius});
        }
    }
    return cSoup;
}

TriangleSoup MakeParallelPlanes(std::uint64_t nPlanes, float fHalfSize)
{
    TriangleSoup cSoup;
    cSoup.aVertices.reserve(nPlanes * 18);
    const float h = fHalfSize;
    for (std::uint64_t i = 0; i < nPlanes; ++i)
    {
        const float z = static_cast<float>(i + 1);
        PushVertex(cSoup.aVertices, {-h, -h, z});
        PushVertex(cSoup.aVertices, {h, -h, z});
        PushVertex(cSoup.aVertices, {h, h, z});
        PushVertex(cSoup.aVertices, {-h, -h, z});
        PushVertex(cSoup.aVertices, {h, h, z});
        PushVertex(cSoup.aVertices, {-h, h, z});
    }
    return cSoup;
}

RaySet MakeRaysInside(std::uint64_t nRays, std::uint32_t uSeed, float fRadius)
{
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cLength(0.5f, 2.0f);
    RaySet cRays;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        const Vec3 vOrigin = RandomPointInBall(cRandom, fRadius);
        const Vec3 vDirection = RandomUnitVector(cRandom);
        const float fLength = cLength(cRandom);
        PushRay(cRays, vOrigin, {vDirection[0] * fLength, vDirection[1] * fLength, vDirection[2] * fLength});
    }
    return cRays;
}

RaySet MakeRaysOutside(std::uint64_t nRays, std::uint32_t uSeed, float fOriginRadius, float fTargetRadius)
{
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cLength(0.5f, 2.0f);
    RaySet cRays;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        const Vec3 vUnit = RandomUnitVector(cRandom);
        const Vec3 vOrigin{vUnit[0] * fOriginRadius, vUnit[1] * fOriginRadius, vUnit[2] * fOriginRadius};
        const Vec3 vTarget = RandomPointInBall(cRandom, fTargetRadius);
        Vec3 vDirection{vTarget[0] - vOrigin[0], vTarget[1] - vOrigin[1], vTarget[2] - vOrigin[2]};
        const float fScale =
            cLength(cRandom) / std::sqrt(vDirection[0] * vDirection[0] + vDirection[1] * vDirection[1] +
                                         vDirection[2] * vDirection[2]);
        PushRay(cRays, vOrigin, {vDirection[0] * fScale, vDirection[1] * fScale, vDirection[2] * fScale});
    }
    return cRays;
}

void SetRandomDistances(RaySet& cRays, std::uint32_t uSeed, float fUpTo)
{
    const float aSpecial[] = {0.0f, -1.0f, std::numeric_limits<float>::quiet_NaN(),
                              std::numeric_limits<float>::infinity()};
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cDistance(0.0f, fUpTo);
    std::uniform_int_distribution<int> cKind(0, 19);
    cRays.aDistances.resize(cRays.Count());
    for (float& fDistance : cRays.aDistances)
    {
        const int iKind = cKind(cRandom);
        fDistance = iKind < 4 ? aSpecial[iKind] : cDistance(cRandom);
    }
}
} // namespace TestReference
