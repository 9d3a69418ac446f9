// Small device programs of the tests' own, compiled for the host and registered with the stand-in.
#pragma once

#include <cstdint>

#include "OptixDeviceHost.h"

// What the test ray-generation program traces; the data word of every record points at it.
struct TestLaunch
{
    OptixTraversableHandle hTraversable;
    const float3* pOrigins;
    const float3* pDirections;
    float fTmin;
    float fTmax;
    unsigned int uRayFlags;
    unsigned int bIgnoreAll; // the any-hit program rejects every candidate
    struct RayResult* pResults;
    unsigned int iFailingRay; // the ray-generation program asserts on this launch index
};

constexpr unsigned int c_nMaxRecordedHits = 16;
constexpr unsigned int c_uNoPrimitive = 0xFFFFFFFFu;

struct RayResult
{
    unsigned int nAnyHits; // any-hit calls (recorded up to c_nMaxRecordedHits)
    unsigned int iClosest; // closest-hit primitive, or c_uNoPrimitive
    float fClosest;        // closest-hit distance
    unsigned int bMissed;  // the miss program ran
    float fMissTmax;       // optixGetRayTmax() in the miss program
    unsigned int aHits[c_nMaxRecordedHits];
    float aHitDistances[c_nMaxRecordedHits];
};

inline const TestLaunch& TestLaunchOfRecord()
{
    return **reinterpret_cast<const TestLaunch* const*>(optixGetSbtDataPointer());
}

// Module texts as the driver sees them: only their ".visible .entry" lines matter to the stand-in.
extern const char c_sTestModuleText[];    // module StandInTest, 3 payload values
extern const char c_sAssertModuleText[];  // module StandInAssert, 1 payload value
extern const char c_sUnknownModuleText[]; // entries no module registered
constexpr unsigned int c_nTestPayloadValues = 3;
