// One call of RayTracing in a chosen mode, with result arrays prefilled by canaries so that writes the mode
// must not make are caught.
#pragma once

#include "RayTracing.h"
#include "RayTracingScene.h"
#include "TestScenes.h"

#include <cstdint>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

enum class TraceMode
{
    HitCount,
    AllHits,
    NearestDistance,
    NearestIndex,
    BothDistances,
    BothIndices,
};

constexpr TraceMode c_aAllTraceModes[] = {TraceMode::HitCount,        TraceMode::AllHits,
                                          TraceMode::NearestDistance, TraceMode::NearestIndex,
                                          TraceMode::BothDistances,   TraceMode::BothIndices};

const char* TraceModeName(TraceMode eMode);
inline void PrintTo(TraceMode eMode, std::ostream* pStream)
{
    *pStream << TraceModeName(eMode);
}
inline bool IsCountingMode(TraceMode eMode)
{
    return eMode == TraceMode::HitCount || eMode == TraceMode::AllHits;
}
inline bool HasIndices(TraceMode eMode)
{
    return eMode == TraceMode::NearestIndex || eMode == TraceMode::BothIndices;
}
inline bool HasFarthest(TraceMode eMode)
{
    return eMode == TraceMode::BothDistances || eMode == TraceMode::BothIndices;
}

constexpr std::uint64_t c_nCountCanary = 0xC0FFEE00C0FFEE00ull;
constexpr std::int32_t c_iIndexCanary = 0x5EEDF00D;
constexpr float c_fHitCanary = 12345.5f;

struct TraceRequest
{
    const float* pTriangles = nullptr;
    std::uint64_t nTriangles = 0;
    const TestReference::RaySet* pRays = nullptr;
    bool bOrigins = true;
    bool bDistances = false;
    float fMaxDistance = std::numeric_limits<float>::infinity();
    std::uint64_t nFreeGPUMemory = 0;
    bool bDiagnostics = false;
    int iGpuId = 0;
    // Also hand over the result pointers the mode ignores (all nearest-hit arrays in counting modes, the
    // farthest index in nearest-only modes); they must stay untouched.
    bool bUnusedPointers = false;
    // Traced on this scene (its triangles, device and memory) instead of a stateless call.
    RayTracingScene* pScene = nullptr;

    TraceRequest() = default;
    TraceRequest(const TestReference::TriangleSoup& cSoup, const TestReference::RaySet& cRays)
        : pTriangles(cSoup.Data()), nTriangles(cSoup.Count()), pRays(&cRays)
    {
    }
};

struct TraceOutcome
{
    RayTracingErrorType eResult = Failure;
    std::string sError;
    std::string sLog;
    // Arrays the call was given (empty when the pointer was null); counts has nRays + 1 entries in all-hits
    // mode.
    std::vector<std::uint64_t> aCountHits;
    std::vector<float> aAllHits;
    std::vector<std::int32_t> aFirstIndex;
    std::vector<float> aFirstHit;
    std::vector<std::int32_t> aLastIndex;
    std::vector<float> aLastHit;
};

// Exceptions that leave RayTracing (device set-up failures) propagate to the caller.
TraceOutcome RunTrace(TraceMode eMode, const TraceRequest& cRequest);

// Bit-exact float comparison: distinguishes NaN payloads, -0 and the farthest no-hit pattern.
std::uint32_t FloatBits(float f);
constexpr std::uint32_t c_uNoFarthestHitBits = 0xFF7FFFFFu;
