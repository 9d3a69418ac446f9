// The demo's procedural scene: rolling terrain with a torus knot, a ring of spheres, upright tori and nested
// shells, about nTargetTriangles triangles in all.
#pragma once

#include "Mesh.h"
#include "Rays.h"

#include <cstdint>

Mesh BuildDemoScene(std::uint64_t nTargetTriangles);

// The view the demo's pictures are taken from.
PinholeCamera DemoCamera(Resolution cResolution);
