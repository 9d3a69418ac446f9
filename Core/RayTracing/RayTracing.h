// Batch ray casting against a triangle soup on one NVIDIA GPU (OptiX 9.0 through the display driver).
#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

#if defined(_WIN32)
#if defined(RAYTRACING_EXPORTS)
#define RAYTRACING_API __declspec(dllexport)
#else
#define RAYTRACING_API __declspec(dllimport)
#endif
#else
#define RAYTRACING_API __attribute__((visibility("default")))
#endif

// Result codes; 1 and 3 are never returned.
enum RayTracingErrorType : std::int32_t
{
    Success = 0,
    OutOfMemory = 2,
    Failure = 4,
};

// Caller-owned result record. The pointers that are set select the mode:
//   pCountHits                     -> hit counting (with bCollectAllHits: all hit distances in cAllHits)
//   pFirstHit [+ pFirstIndex]      -> nearest hit (distance [and triangle index])
//   ... + pLastHit [+ pLastIndex]  -> nearest and farthest hits
struct RayTracingResults
{
    bool bCollectAllHits = false;
    std::uint64_t* pCountHits = nullptr;
    std::vector<float> cAllHits;
    std::int32_t* pFirstIndex = nullptr;
    float* pFirstHit = nullptr;
    std::int32_t* pLastIndex = nullptr;
    float* pLastHit = nullptr;
};

// Answers one ray-casting request synchronously; see README.md for the contract.
RAYTRACING_API RayTracingErrorType RayTracing(RayTracingResults& cRayTracingResults, std::uint64_t nTriangles,
                                              const float* pTriangles, std::uint64_t nRays,
                                              const float* pOrigin, const float* pDirection,
                                              const float* pDistance, int iGpuId, std::string& sLog,
                                              std::string& sError, bool bDiagnostics, float fMaxDistance,
                                              std::uint64_t nFreeGPUMemory);

// Version of the OptiX interface requested from the driver: (9, 0, 0).
RAYTRACING_API std::tuple<int, int, int> GetOptixVersion();

// Read by hybrid-graphics drivers: run this process's CUDA work on the discrete GPU.
extern "C" RAYTRACING_API int NvOptimusEnablementCuda;
