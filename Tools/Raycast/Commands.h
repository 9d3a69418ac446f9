// The raycast subcommands, with their options already parsed.
#pragma once

#include "Flavour.h"

#include <cfloat>
#include <cstdint>
#include <string>
#include <vector>

struct CommonOptions
{
    std::string sDevice = "auto"; // auto, gpu or cpu
    int iGpuId = 0;
    bool bDiagnostics = false;
    bool bNoProgress = false;
};

struct DemoOptions
{
    CommonOptions cCommon;
    std::string sResolution = "2560x1440";
    std::uint64_t nTriangles = 1000000;
    std::string sOutputDirectory = ".";
};

struct TraceOptions
{
    CommonOptions cCommon;
    std::string sMesh;
    std::string sMode = "nearest";
    float fMaxDistance = FLT_MAX;
    std::string sOutput = "raycast";
    std::uint64_t nSliceRays = 0;
    // Rays from files...
    std::string sOrigins, sDirections, sDistances;
    // ... or from a generator.
    std::string sGenerator; // camera, sphere or grid; empty = camera unless --directions is given
    std::vector<float> aPosition, aLookAt, aUp, aCenter, aDirection;
    float fFov = 50.0f;
    std::string sResolution = "640x480";
    std::uint64_t nCount = 100000;
};

int RunDemo(const DemoOptions& cOptions);
int RunTrace(const TraceOptions& cOptions);

// Loads the flavour the options ask for and prints which one runs, and why auto passed over the GPU.
Flavour LoadFlavourFor(const CommonOptions& cOptions);
