#include "FirstLastTracer.h"

#include <gtest/gtest.h>

FirstLastTracer::FirstLastTracer(const FirstLastMode& mode, const Rays& rays)
    : m_mode(mode), m_nRays(static_cast<unsigned int>(rays.aDirections.size())), m_harness(mode.module),
      m_directions(rays.aDirections), m_firstIndex(std::vector<int>(m_nRays, 0)),
      m_firstHit(std::vector<float>(m_nRays, 0.0f)), m_lastIndex(std::vector<int>(m_nRays, 0)),
      m_lastHit(std::vector<float>(m_nRays, 0.0f))
{
    if (!rays.aOrigins.empty())
    {
        m_pOrigins = std::make_unique<DeviceArray<float3>>(rays.aOrigins);
    }
    if (!rays.aDistances.empty())
    {
        m_pDistances = std::make_unique<DeviceArray<float>>(rays.aDistances);
    }
}

void FirstLastTracer::Store(const FirstLastResults& results)
{
    m_firstIndex.Upload(results.aFirstIndex);
    m_firstHit.Upload(results.aFirstHit);
    m_lastIndex.Upload(results.aLastIndex);
    m_lastHit.Upload(results.aLastHit);
}

FirstLastResults FirstLastTracer::Read() const
{
    return {m_firstIndex.Download(), m_firstHit.Download(), m_lastIndex.Download(), m_lastHit.Download()};
}

template <class Params>
Params FirstLastTracer::Common(OptixTraversableHandle hTraversable, bool bMerge, float fMaxDistance) const
{
    Params params{};
    params.common.nProcessRays = m_nRays;
    params.common.pRayOrigins = m_pOrigins ? m_pOrigins->Get() : nullptr;
    params.common.pRayDirections = m_directions.Get();
    params.common.pRayDistances = m_pDistances ? m_pDistances->Get() : nullptr;
    params.common.bMerge = bMerge ? 1 : 0;
    params.common.fMaxDistance = fMaxDistance;
    params.common.hTraversable = hTraversable;
    return params;
}

void FirstLastTracer::Launch(OptixTraversableHandle hTraversable, bool bMerge, float fMaxDistance)
{
    cudaError_t error = cudaSuccess;
    if (m_mode.bIndices && !m_mode.bFarthest)
    {
        auto params = Common<LaunchParamsOneHit2>(hTraversable, bMerge, fMaxDistance);
        params.pRayFirstIndex = m_firstIndex.Get();
        params.pRayFirstHit = m_firstHit.Get();
        error = m_harness.Launch(params, m_nRays);
    }
    else if (m_mode.bIndices)
    {
        auto params = Common<LaunchParamsTwoHits4>(hTraversable, bMerge, fMaxDistance);
        params.pRayFirstIndex = m_firstIndex.Get();
        params.pRayFirstHit = m_firstHit.Get();
        params.pRayLastIndex = m_lastIndex.Get();
        params.pRayLastHit = m_lastHit.Get();
        error = m_harness.Launch(params, m_nRays);
    }
    else if (!m_mode.bFarthest)
    {
        auto params = Common<LaunchParamsOneHitDistance1>(hTraversable, bMerge, fMaxDistance);
        params.pRayFirstHit = m_firstHit.Get();
        error = m_harness.Launch(params, m_nRays);
    }
    else
    {
        auto params = Common<LaunchParamsTwoHitsDistance2>(hTraversable, bMerge, fMaxDistance);
        params.pRayFirstHit = m_firstHit.Get();
        params.pRayLastHit = m_lastHit.Get();
        error = m_harness.Launch(params, m_nRays);
    }
    ASSERT_EQ(error, cudaSuccess) << cudaGetErrorString(error);
}
