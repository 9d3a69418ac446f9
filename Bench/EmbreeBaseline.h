// The same requests answered by calling Embree directly: the yardstick for the CPU flavour.
#pragma once

#include "Mesh.h"
#include "Rays.h"
#include "TraceMode.h"

// Builds the scene and traces every ray on nThreads threads, filling cResults like the library would.
// Closest hits come from rtcIntersect1; farthest hits, counts and all hits from an intersection filter that
// records each hit and rejects it so that traversal goes on. bRobust sets Embree's robust mode, which is
// watertight at shared edges like a GPU's triangle test; the plain mode lets rays through edges and vertices
// now and then.
struct EmbreeSeconds
{
    double fBuild = 0.0;
    double fTrace = 0.0; // the fastest of the traces on the one committed scene
    double Total() const { return fBuild + fTrace; }
};
EmbreeSeconds TraceWithEmbree(const Mesh& cMesh, const Rays& cRays, TraceMode eMode, float fMaxDistance,
                              int nThreads, bool bRobust, TraceResults& cResults, int nTraces = 1);
