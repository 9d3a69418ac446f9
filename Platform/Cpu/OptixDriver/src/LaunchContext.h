// One launch as its programs see it: the programs and data of the decoded SBT records, the scenes it
// traces, and its failure state. Built on the stream when the launch runs, read by every worker thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "OptixDeviceHost.h"
#include "Scene.h"
#include "cuda_runtime.h"

namespace OptixStandIn
{
struct MissEntry
{
    bool bValid = false; // the record's header names a miss group of the pipeline
    OptixHost::ProgramFunction fnMiss = nullptr;
    CUdeviceptr pData = 0;
};

struct HitGroupEntry
{
    bool bValid = false;
    OptixHost::ProgramFunction fnClosestHit = nullptr;
    OptixHost::ProgramFunction fnAnyHit = nullptr;
    CUdeviceptr pData = 0;
};
} // namespace OptixStandIn

struct OptixHost::LaunchContext
{
    std::uint64_t nSerial = 0; // unique per launch: keys the per-thread scene cache
    unsigned int nMaxTraceDepth = 0;
    unsigned int nPayloadValues = 0; // the pipeline's numPayloadValues
    std::vector<OptixStandIn::MissEntry> aMisses;
    std::vector<OptixStandIn::HitGroupEntry> aHitGroups;
    std::shared_ptr<OptixStandIn::SceneStore> pScenes;

    std::atomic<bool> bFailed{false};
    cudaError_t eError = cudaSuccess;
    std::string sFailure; // why, for the report at the end of the launch

    std::mutex mutex;                                                    // sFailure, aHeldScenes
    std::vector<std::shared_ptr<const OptixStandIn::Scene>> aHeldScenes; // alive until the launch ends

    // The first failure wins; later programs of the launch stop early.
    void Fail(cudaError_t eCode, const std::string& sWhy);
};
