// Rays as the library takes them, and the generators of the command line.
#pragma once

#include "Mesh.h"
#include "Vec3.h"

#include <cstdint>
#include <string>
#include <vector>

struct Rays
{
    std::vector<float> aOrigins;    // 3 per ray
    std::vector<float> aDirections; // 3 per ray
    std::vector<float> aDistances;  // empty, or 1 per ray

    std::uint64_t Count() const { return aDirections.size() / 3; }
    void Add(Vec3 cOrigin, Vec3 cDirection)
    {
        aOrigins.insert(aOrigins.end(), {cOrigin.x, cOrigin.y, cOrigin.z});
        aDirections.insert(aDirections.end(), {cDirection.x, cDirection.y, cDirection.z});
    }
};

struct Resolution
{
    std::uint32_t nWidth = 0;
    std::uint32_t nHeight = 0;
    std::uint64_t Pixels() const { return std::uint64_t(nWidth) * nHeight; }
};

// Parses "WIDTHxHEIGHT"; throws ToolError naming sOption otherwise.
Resolution ParseResolution(const std::string& sText, const std::string& sOption);

struct PinholeCamera
{
    Vec3 cPosition;
    Vec3 cLookAt;
    Vec3 cUp{0.0f, 1.0f, 0.0f};
    float fFovDegrees = 50.0f; // vertical field of view
    Resolution cResolution{1920, 1080};
};

// A camera that sees the whole of the bounds from a three-quarter view.
PinholeCamera FrameBounds(const Bounds& cBounds, Resolution cResolution, float fFovDegrees);

// One ray per pixel, row after row from the top; unit directions, so distances are lengths.
Rays GenerateCameraRays(const PinholeCamera& cCamera);

// nRays unit directions spread evenly over the sphere (Fibonacci lattice), all from cCenter.
Rays GenerateSphereRays(Vec3 cCenter, std::uint64_t nRays);

// Parallel rays along cDirection on a regular grid covering the bounds' shadow, starting outside the bounds.
Rays GenerateGridRays(const Bounds& cBounds, Vec3 cDirection, Resolution cResolution);

// Throws ToolError when an origin or direction is NaN or infinite (a per-ray distance may be either).
void CheckRaysFinite(const Rays& cRays);
