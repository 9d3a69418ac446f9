#include "DemoScene.h"

#include <algorithm>
#include <cmath>

namespace
{
constexpr float c_fPi = 3.14159265358979f;
constexpr float c_fTerrainHalfSize = 40.0f;

float SmoothStep(float fEdge0, float fEdge1, float f)
{
    const float t = std::clamp((f - fEdge0) / (fEdge1 - fEdge0), 0.0f, 1.0f);
    return t * t * (3.0f - 2.0f * t);
}

// Hills that flatten towards the centre, where the objects stand.
float TerrainHeight(float x, float z)
{
    const float fHills = 2.6f * std::sin(0.15f * x) * std::cos(0.12f * z) +
                         1.3f * std::sin(0.37f * x + 0.5f) * std::sin(0.29f * z) +
                         0.35f * std::sin(1.1f * x) * std::sin(0.9f * z + 1.0f);
    return fHills * SmoothStep(10.0f, 28.0f, std::sqrt(x * x + z * z));
}

// A closed tube or surface of revolution from a grid of nU x nV points that wraps around in both directions.
template <typename Surface> void AddWrappedGrid(Mesh& cMesh, int nU, int nV, Surface Point)
{
    for (int iU = 0; iU < nU; ++iU)
        for (int iV = 0; iV < nV; ++iV)
        {
            const Vec3 a = Point(iU, iV), b = Point((iU + 1) % nU, iV);
            const Vec3 c = Point((iU + 1) % nU, (iV + 1) % nV), d = Point(iU, (iV + 1) % nV);
            cMesh.AddTriangle(a, b, c);
            cMesh.AddTriangle(a, c, d);
        }
}

void AddTerrain(Mesh& cMesh, int nCells)
{
    const float fStep = 2.0f * c_fTerrainHalfSize / nCells;
    const auto Point = [&](int iX, int iZ)
    {
        const float x = -c_fTerrainHalfSize + iX * fStep, z = -c_fTerrainHalfSize + iZ * fStep;
        return Vec3{x, TerrainHeight(x, z), z};
    };
    for (int iX = 0; iX < nCells; ++iX)
        for (int iZ = 0; iZ < nCells; ++iZ)
        {
            cMesh.AddTriangle(Point(iX, iZ), Point(iX, iZ + 1), Point(iX + 1, iZ + 1));
            cMesh.AddTriangle(Point(iX, iZ), Point(iX + 1, iZ + 1), Point(iX + 1, iZ));
        }
}

// Sphere as a latitude-longitude grid; the poles' degenerate triangles are harmless to a ray caster.
void AddSphere(Mesh& cMesh, Vec3 cCenter, float fRadius, int nLongitudes, int nLatitudes)
{
    const auto Point = [&](int iLongitude, int iLatitude)
    {
        const float fTheta = c_fPi * iLatitude / nLatitudes, fPhi = 2.0f * c_fPi * iLongitude / nLongitudes;
        return cCenter +
               Vec3{std::sin(fTheta) * std::cos(fPhi), std::cos(fTheta), std::sin(fTheta) * std::sin(fPhi)} *
                   fRadius;
    };
    AddLatitudeLongitudeGrid(cMesh, nLongitudes, nLatitudes, Point);
}

// Upright torus facing the scene's centre.
void AddTorus(Mesh& cMesh, Vec3 cCenter, Vec3 cAxis, float fMajor, float fMinor, int nAround, int nTube)
{
    const Vec3 cNormal = Normalize(cAxis);
    const Vec3 cU = Normalize(Cross(cNormal, std::fabs(cNormal.y) < 0.9f ? Vec3{0, 1, 0} : Vec3{1, 0, 0}));
    const Vec3 cV = Cross(cNormal, cU);
    AddWrappedGrid(cMesh, nAround, nTube,
                   [&](int iAround, int iTube)
                   {
                       const float fA = 2.0f * c_fPi * iAround / nAround, fB = 2.0f * c_fPi * iTube / nTube;
                       const Vec3 cRadial = cU * std::cos(fA) + cV * std::sin(fA);
                       return cCenter + cRadial * (fMajor + fMinor * std::cos(fB)) +
                              cNormal * (fMinor * std::sin(fB));
                   });
}

// (p, q) torus knot as a tube, with a frame from the curve's tangent and its direction to the knot's axis.
void AddTorusKnot(Mesh& cMesh, Vec3 cCenter, float fScale, float fTube, int p, int q, int nAlong, int nAround)
{
    const auto Curve = [&](float t)
    {
        const float r = 2.0f + std::cos(q * t);
        return Vec3{r * std::cos(p * t), -std::sin(q * t), r * std::sin(p * t)} * fScale;
    };
    AddWrappedGrid(cMesh, nAlong, nAround,
                   [&](int iAlong, int iAround)
                   {
                       const float t = 2.0f * c_fPi * iAlong / nAlong;
                       const Vec3 cPoint = Curve(t);
                       const Vec3 cTangent = Normalize(Curve(t + 1e-3f) - Curve(t - 1e-3f));
                       const Vec3 cSide = Normalize(Cross(cTangent, cPoint));
                       const Vec3 cOut = Cross(cSide, cTangent);
                       const float fAngle = 2.0f * c_fPi * iAround / nAround;
                       return cCenter + cPoint + (cSide * std::cos(fAngle) + cOut * std::sin(fAngle)) * fTube;
                   });
}

int Scaled(int nBase, float fDetail, int nMinimum)
{
    return std::max(nMinimum, static_cast<int>(nBase * fDetail + 0.5f));
}
} // namespace

Mesh BuildDemoScene(std::uint64_t nTargetTriangles)
{
    // Every part's triangle count grows with the square of fDetail; 1 gives about a million triangles.
    const float fDetail = std::sqrt(static_cast<float>(nTargetTriangles) / 1.0e6f);
    Mesh cMesh;
    cMesh.aTriangles.reserve(nTargetTriangles * 9 + 9 * 4096);
    AddTerrain(cMesh, Scaled(560, fDetail, 4));
    AddTorusKnot(cMesh, {0.0f, 10.0f, 0.0f}, 2.4f, 1.1f, 2, 3, Scaled(1600, fDetail, 24),
                 Scaled(40, fDetail, 4));
    for (int i = 0; i < 10; ++i)
    {
        const float fAngle = 2.0f * c_fPi * i / 10.0f;
        const float x = 17.0f * std::cos(fAngle), z = 17.0f * std::sin(fAngle);
        AddSphere(cMesh, {x, TerrainHeight(x, z) + 2.4f, z}, 2.2f, Scaled(96, fDetail, 6),
                  Scaled(48, fDetail, 3));
    }
    for (int i = 0; i < 8; ++i)
    {
        const float fAngle = 2.0f * c_fPi * (i + 0.5f) / 8.0f;
        const float x = 26.0f * std::cos(fAngle), z = 26.0f * std::sin(fAngle);
        AddTorus(cMesh, {x, TerrainHeight(x, z) + 3.6f, z}, {x, 0.0f, z}, 3.0f, 0.8f, Scaled(128, fDetail, 6),
                 Scaled(48, fDetail, 3));
    }
    for (float fRadius : {4.0f, 3.0f, 2.0f})
        AddSphere(cMesh, {-9.0f, 4.2f, 9.0f}, fRadius, Scaled(128, fDetail, 6), Scaled(64, fDetail, 3));
    return cMesh;
}

PinholeCamera DemoCamera(Resolution cResolution)
{
    PinholeCamera cCamera;
    cCamera.cPosition = {30.0f, 21.0f, 36.0f};
    cCamera.cLookAt = {0.0f, 5.0f, 0.0f};
    cCamera.fFovDegrees = 45.0f;
    cCamera.cResolution = cResolution;
    return cCamera;
}
