// Host-device formats of a launch: the launch block reached through the ray-generation record, the shader
// binding table record and the collecting run's hit-group data. Byte layouts are fixed: host code and the
// six device programs must agree on them.
#pragma once

#include <cstddef>
#include <cstdint>

#include <cuda_runtime.h> // float3

// Common head of every launch block (48 bytes). Device addresses of absent arrays are null.
struct LaunchParamsCommon
{
    std::uint32_t nProcessRays; // launch width; no device program reads it
    std::uint32_t nReserved0;
    const float3* pRayOrigins;    // null: every ray starts at (0, 0, 0)
    const float3* pRayDirections; // never null
    const float* pRayDistances;   // null: every ray ends at fMaxDistance
    std::uint8_t bMerge;          // earlier chunks left results in the arrays
    std::uint8_t aReserved1[3];
    float fMaxDistance;
    unsigned long long hTraversable; // OptixTraversableHandle of the current chunk
};

struct LaunchParamsOneHit2
{
    LaunchParamsCommon common;
    std::int32_t* pRayFirstIndex;
    float* pRayFirstHit;
};

struct LaunchParamsTwoHits4
{
    LaunchParamsCommon common;
    std::int32_t* pRayFirstIndex;
    float* pRayFirstHit;
    std::int32_t* pRayLastIndex;
    float* pRayLastHit;
};

struct LaunchParamsOneHitDistance1
{
    LaunchParamsCommon common;
    float* pRayFirstHit;
};

struct LaunchParamsTwoHitsDistance2
{
    LaunchParamsCommon common;
    float* pRayFirstHit;
    float* pRayLastHit;
};

// Counting and collecting runs share one layout; the 64-bit array holds counts or slot counters.
struct LaunchParamsCountHits2
{
    LaunchParamsCommon common;
    unsigned long long* pRayCountHits;
};
using LaunchParamsAllHits2 = LaunchParamsCountHits2;

constexpr std::size_t c_nSbtRecordHeaderSize = 32;
constexpr std::size_t c_nSbtRecordAlignment = 16;

// One layout for every record of the table: opaque header, then two data words.
struct alignas(c_nSbtRecordAlignment) SbtRecord
{
    char aHeader[c_nSbtRecordHeaderSize];
    unsigned long long aData[2]; // ray generation: [0] = address of the launch block
};

// Data of the collecting run's hit-group record.
struct HitGroupData
{
    float* pAllHits;           // the batch's stretch of the hit list on the device
    unsigned long long nStart; // position of pAllHits[0] in the whole hit list
};

static_assert(sizeof(float3) == 12, "float3 is three packed floats");
static_assert(offsetof(LaunchParamsCommon, nProcessRays) == 0, "");
static_assert(offsetof(LaunchParamsCommon, pRayOrigins) == 8, "");
static_assert(offsetof(LaunchParamsCommon, pRayDirections) == 16, "");
static_assert(offsetof(LaunchParamsCommon, pRayDistances) == 24, "");
static_assert(offsetof(LaunchParamsCommon, bMerge) == 32, "");
static_assert(offsetof(LaunchParamsCommon, fMaxDistance) == 36, "");
static_assert(offsetof(LaunchParamsCommon, hTraversable) == 40, "");
static_assert(sizeof(LaunchParamsCommon) == 48, "");
static_assert(offsetof(LaunchParamsOneHit2, pRayFirstIndex) == 48, "");
static_assert(offsetof(LaunchParamsOneHit2, pRayFirstHit) == 56, "");
static_assert(sizeof(LaunchParamsOneHit2) == 64, "");
static_assert(offsetof(LaunchParamsTwoHits4, pRayFirstIndex) == 48, "");
static_assert(offsetof(LaunchParamsTwoHits4, pRayFirstHit) == 56, "");
static_assert(offsetof(LaunchParamsTwoHits4, pRayLastIndex) == 64, "");
static_assert(offsetof(LaunchParamsTwoHits4, pRayLastHit) == 72, "");
static_assert(sizeof(LaunchParamsTwoHits4) == 80, "");
static_assert(offsetof(LaunchParamsOneHitDistance1, pRayFirstHit) == 48, "");
static_assert(sizeof(LaunchParamsOneHitDistance1) == 56, "");
static_assert(offsetof(LaunchParamsTwoHitsDistance2, pRayFirstHit) == 48, "");
static_assert(offsetof(LaunchParamsTwoHitsDistance2, pRayLastHit) == 56, "");
static_assert(sizeof(LaunchParamsTwoHitsDistance2) == 64, "");
static_assert(offsetof(LaunchParamsCountHits2, pRayCountHits) == 48, "");
static_assert(sizeof(LaunchParamsCountHits2) == 56, "");
static_assert(sizeof(SbtRecord) == 48 && alignof(SbtRecord) == 16, "");
static_assert(offsetof(SbtRecord, aData) == 32, "");
static_assert(offsetof(HitGroupData, nStart) == 8 && sizeof(HitGroupData) == 16, "");
