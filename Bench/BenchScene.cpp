#include "BenchScene.h"

#include <cmath>
#include <random>

namespace
{
constexpr float c_fPi = 3.14159265358979f;
const Vec3 c_aBlobCenters[] = {
    {-0.35f, 0.0f, 0.0f}, {0.35f, 0.1f, 0.0f}, {0.0f, -0.3f, 0.3f}, {0.0f, 0.3f, -0.3f}};

Vec3 RandomUnitVector(std::mt19937_64& cRandom)
{
    std::normal_distribution<float> cNormal;
    Vec3 cVector;
    do
        cVector = {cNormal(cRandom), cNormal(cRandom), cNormal(cRandom)};
    while (Length(cVector) < 1e-6f);
    return Normalize(cVector);
}

Vec3 RandomPointInBall(std::mt19937_64& cRandom, float fRadius)
{
    std::uniform_real_distribution<float> cUniform(0.0f, 1.0f);
    return RandomUnitVector(cRandom) * (fRadius * std::cbrt(cUniform(cRandom)));
}
} // namespace

Mesh BuildBlobs(std::uint64_t nTriangles)
{
    // Each blob is a latitude-longitude sphere with 2 * nLongitudes * nLatitudes triangles, nLongitudes = 2 *
    // nLatitudes.
    const int nLatitudes = std::max(2, static_cast<int>(std::lround(std::sqrt(nTriangles / 16.0))));
    const int nLongitudes = 2 * nLatitudes;
    Mesh cMesh;
    cMesh.aTriangles.reserve(std::size(c_aBlobCenters) * 2 * nLongitudes * nLatitudes * 9);
    int iBlob = 0;
    for (const Vec3& cCenter : c_aBlobCenters)
    {
        const float fPhase = 1.7f * iBlob++;
        const auto Point = [&](int iLongitude, int iLatitude)
        {
            const float fTheta = c_fPi * iLatitude / nLatitudes,
                        fPhi = 2.0f * c_fPi * iLongitude / nLongitudes;
            const float fRadius = 0.6f + 0.08f * std::sin(5.0f * fPhi + fPhase) * std::sin(4.0f * fTheta) +
                                  0.03f * std::sin(23.0f * fPhi) * std::sin(19.0f * fTheta + fPhase);
            return cCenter + Vec3{std::sin(fTheta) * std::cos(fPhi), std::cos(fTheta),
                                  std::sin(fTheta) * std::sin(fPhi)} *
                                 fRadius;
        };
        AddLatitudeLongitudeGrid(cMesh, nLongitudes, nLatitudes, Point);
    }
    return cMesh;
}

Rays RandomRays(std::uint64_t nRays)
{
    std::mt19937_64 cRandom(20240917);
    Rays cRays;
    cRays.aOrigins.reserve(nRays * 3);
    cRays.aDirections.reserve(nRays * 3);
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        if (i % 2 == 0)
        {
            const Vec3& cCenter = c_aBlobCenters[(i / 2) % std::size(c_aBlobCenters)];
            cRays.Add(cCenter + RandomPointInBall(cRandom, 0.4f), RandomUnitVector(cRandom));
        }
        else
        {
            const Vec3 cOrigin = RandomUnitVector(cRandom) * 4.0f;
            cRays.Add(cOrigin, Normalize(RandomPointInBall(cRandom, 0.9f) - cOrigin));
        }
    }
    return cRays;
}
