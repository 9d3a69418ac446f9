// The benchmark's input: overlapping bumpy closed spheres, and random rays from inside and outside them.
#pragma once

#include "Mesh.h"
#include "Rays.h"

#include <cstdint>

// About nTriangles triangles in four overlapping closed blobs of radius about 1 around the origin.
Mesh BuildBlobs(std::uint64_t nTriangles);

// Half the rays start inside the blobs, half on a sphere of radius 4 aiming at random points among them;
// unit directions, fixed seed.
Rays RandomRays(std::uint64_t nRays);
