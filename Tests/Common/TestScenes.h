// Triangle soups and ray sets for tests, in the library's input layout (packed float triples).
#pragma once

#include <cstdint>
#include <vector>

namespace TestReference
{
struct TriangleSoup
{
    std::vector<float> aVertices; // 9 floats per triangle

    std::uint64_t Count() const { return aVertices.size() / 9; }
    const float* Data() const { return aVertices.data(); }
    void Append(const TriangleSoup& cOther);
};

struct RaySet
{
    std::vector<float> aOrigins;    // 3 floats per ray
    std::vector<float> aDirections; // 3 floats per ray, deliberately not unit length
    std::vector<float> aDistances;  // 1 float per ray; empty until SetRandomDistances

    std::uint64_t Count() const { return aDirections.size() / 3; }
    void Append(const RaySet& cOther);
};

// Triangles with centres uniform in [-fExtent, fExtent]^3 and corners within fTriangleSize of the centre.
TriangleSoup MakeRandomSoup(std::uint64_t nTriangles, std::uint32_t uSeed, float fExtent = 1.0f,
                            float fTriangleSize = 0.25f);

// Closed, outward-facing sphere approximation centred at the origin: 20 * 4^nSubdivisions triangles.
TriangleSoup MakeIcosphere(unsigned nSubdivisions, float fRadius);

// nPlanes squares [-fHalfSize, fHalfSize]^2 (two triangles each, split along x = y) at z = 1, 2, ... nPlanes.
TriangleSoup MakeParallelPlanes(std::uint64_t nPlanes, float fHalfSize);

// Origins uniform in the ball of fRadius around the origin, random directions of length 0.5 to 2.
RaySet MakeRaysInside(std::uint64_t nRays, std::uint32_t uSeed, float fRadius);

// Origins on the sphere of fOriginRadius, each aimed at a random point of the ball of fTargetRadius,
// directions of length 0.5 to 2.
RaySet MakeRaysOutside(std::uint64_t nRays, std::uint32_t uSeed, float fOriginRadius, float fTargetRadius);

// Per-ray maximum distances: mostly uniform in [0, fUpTo], with 0, negative, NaN and infinite values mixed
// in.
void SetRandomDistances(RaySet& cRays, std::uint32_t uSeed, float fUpTo);
} // namespace TestReference
