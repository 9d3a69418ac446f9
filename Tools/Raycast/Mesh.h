// A triangle soup as the library takes it: nine floats per triangle, no index array.
#pragma once

#include "Vec3.h"

#include <cstdint>
#include <string>
#include <vector>

struct Mesh
{
    std::vector<float> aTriangles;
    // How loading placed the vertices, for the summary: e.g. "COLLADA unit scale 0.01 applied"; empty when
    // the file's coordinates are taken as they are.
    std::string sPlacement;

    std::uint64_t TriangleCount() const { return aTriangles.size() / 9; }
    void AddTriangle(Vec3 a, Vec3 b, Vec3 c)
    {
        aTriangles.insert(aTriangles.end(), {a.x, a.y, a.z, b.x, b.y, b.z, c.x, c.y, c.z});
    }
};

// Two triangles per cell of an nLongitudes x nLatitudes grid over a closed surface; fnPoint(iLongitude,
// iLatitude) gives the vertex at a grid corner.
template <typename PointOf>
void AddLatitudeLongitudeGrid(Mesh& cMesh, int nLongitudes, int nLatitudes, PointOf fnPoint)
{
    for (int iLongitude = 0; iLongitude < nLongitudes; ++iLongitude)
        for (int iLatitude = 0; iLatitude < nLatitudes; ++iLatitude)
        {
            cMesh.AddTriangle(fnPoint(iLongitude, iLatitude), fnPoint(iLongitude + 1, iLatitude),
                              fnPoint(iLongitude + 1, iLatitude + 1));
            cMesh.AddTriangle(fnPoint(iLongitude, iLatitude), fnPoint(iLongitude + 1, iLatitude + 1),
                              fnPoint(iLongitude, iLatitude + 1));
        }
}

struct Bounds
{
    Vec3 cMin, cMax;
    Vec3 Center() const { return (cMin + cMax) * 0.5f; }
    float Diagonal() const { return Length(cMax - cMin); }
};

// Bounds of all vertices; a unit box around the origin for an empty mesh.
Bounds ComputeBounds(const Mesh& cMesh);

// Loads every mesh of a file Assimp reads (OBJ, PLY, STL, OFF, glTF, ...), triangulated, node transforms
// applied, merged into one soup. Throws ToolError starting with sPath for a missing, unreadable, empty,
// truncated or malformed file, one without triangles, or non-finite coordinates.
Mesh LoadMesh(const std::string& sPath);
