// Runs one request through a flavour's scene or its stateless RayTracing, optionally in slices of rays so
// that progress can be shown (the library answers a request in one synchronous call).
#pragma once

#include "Flavour.h"
#include "Mesh.h"
#include "Rays.h"
#include "TraceMode.h"

#include <cfloat>
#include <cstdint>
#include <string>

struct TraceRequest
{
    TraceMode eMode = TraceMode::Nearest;
    float fMaxDistance = FLT_MAX;
    int iGpuId = 0;
    bool bDiagnostics = false;
    std::uint64_t nSliceRays = 0; // rays per call; 0 = one call, or growing slices when bProgress
    bool bProgress = false;
};

struct TraceStatistics
{
    double fSeconds = 0.0;
    std::uint64_t nCalls = 0;
    std::string sLog; // the library's diagnostics, all calls
};

// The mesh prepared once in the flavour for many requests. Throws ToolError when the flavour refuses it.
FlavourScene CreateScene(const Flavour& cFlavour, const Mesh& cMesh, const TraceRequest& cRequest,
                         std::string& sLog);

// Fill cResults as eMode asks, on a scene or by stateless calls (each of which builds everything again).
// Throw ToolError with the library's result code and sError when a call fails.
TraceStatistics Trace(FlavourScene& cScene, const Rays& cRays, const TraceRequest& cRequest,
                      TraceResults& cResults);
TraceStatistics Trace(RayTracingFunction pRayTracing, const Mesh& cMesh, const Rays& cRays,
                      const TraceRequest& cRequest, TraceResults& cResults);

const char* ResultName(RayTracingErrorType eResult);
