// Drives one of the four nearest/farthest modules over a set of rays, launch by launch, with the result
// arrays kept on the device between launches the way the batch pass carries them from chunk to chunk.
#pragma once

#include <vector>

#include "ProgramHarness.h"

struct FirstLastMode
{
    ProgramModule module;
    bool bIndices;
    bool bFarthest;
};

struct Rays
{
    std::vector<float3> aOrigins; // empty: no origin array
    std::vector<float3> aDirections;
    std::vector<float> aDistances; // empty: no distance array
};

// The four result arrays; a mode's launches touch only those it has.
struct FirstLastResults
{
    std::vector<int> aFirstIndex;
    std::vector<float> aFirstHit;
    std::vector<int> aLastIndex;
    std::vector<float> aLastHit;
};

class FirstLastTracer
{
public:
    FirstLastTracer(const FirstLastMode& mode, const Rays& rays);

    OptixTraversableHandle BuildChunk(const std::vector<Triangle>& aTriangles, unsigned int iFirstIndex)
    {
        return m_harness.BuildChunk(aTriangles, iFirstIndex);
    }
    void Store(const FirstLastResults& results);
    void Launch(OptixTraversableHandle hTraversable, bool bMerge, float fMaxDistance);
    FirstLastResults Read() const;

private:
    template <class Params>
    Params Common(OptixTraversableHandle hTraversable, bool bMerge, float fMaxDistance) const;

    FirstLastMode m_mode;
    unsigned int m_nRays;
    ProgramHarness m_harness;
    std::unique_ptr<DeviceArray<float3>> m_pOrigins;
    DeviceArray<float3> m_directions;
    std::unique_ptr<DeviceArray<float>> m_pDistances;
    DeviceArray<int> m_firstIndex;
    DeviceArray<float> m_firstHit;
    DeviceArray<int> m_lastIndex;
    DeviceArray<float> m_lastHit;
};
