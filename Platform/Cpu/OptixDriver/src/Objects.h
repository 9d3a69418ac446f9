// The objects behind OptiX's opaque handles. A context owns everything created with it: destroying it
// releases what the caller left, as the driver does.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "OptixTypes.h"
#include "ProgramRegistry.h"
#include "Scene.h"

namespace OptixStandIn
{
// The pipeline compile options that modules and pipeline must agree on.
struct PipelineOptions
{
    int nUsesMotionBlur = 0;
    unsigned int uTraversableGraphFlags = 0;
    int nPayloadValues = 0;
    int nAttributeValues = 2;
    unsigned int uExceptionFlags = 0;
    bool bLaunchParams = false;
    std::string sLaunchParams;
    unsigned int uPrimitiveTypeFlags = 0;
    int nAllowOpacityMicromaps = 0;
    int nAllowClusteredGeometry = 0;

    bool operator==(const PipelineOptions& cOther) const;
    bool operator!=(const PipelineOptions& cOther) const { return !(*this == cOther); }
};

// The programs of one group; only those of its kind are set.
struct ProgramSet
{
    OptixProgramGroupKind eKind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    OptixHost::ProgramFunction fnRaygen = nullptr;
    OptixHost::ProgramFunction fnMiss = nullptr;
    OptixHost::ProgramFunction fnClosestHit = nullptr;
    OptixHost::ProgramFunction fnAnyHit = nullptr;
};
} // namespace OptixStandIn

struct OptixDeviceContext_t
{
    OptixLogCallback fnLog = nullptr;
    void* pLogData = nullptr;
    unsigned int nLogLevel = 0;
    std::shared_ptr<OptixStandIn::SceneStore> pScenes;

    std::mutex logMutex;   // callbacks may come from stream workers
    std::mutex childMutex; // the child sets
    std::unordered_set<OptixModule_t*> aModules;
    std::unordered_set<OptixProgramGroup_t*> aGroups;
    std::unordered_set<OptixPipeline_t*> aPipelines;

    // Sends one message to the log callback when its level is enabled; safe from any thread.
    void Log(unsigned int nLevel, const char* sTag, const std::string& sMessage);
};

struct OptixModule_t
{
    OptixDeviceContext_t* pContext = nullptr;
    const OptixStandIn::RegisteredModule* pPrograms = nullptr;
    OptixStandIn::PipelineOptions cOptions;
};

struct OptixProgramGroup_t
{
    OptixDeviceContext_t* pContext = nullptr;
    std::uint64_t nSerial = 0; // written into record headers
    OptixStandIn::ProgramSet cPrograms;
    const OptixModule_t* pAnyModule = nullptr;    // a module of the group (null for an empty miss group)
    OptixStandIn::PipelineOptions cModuleOptions; // what its modules were compiled with
};

struct OptixPipeline_t
{
    OptixDeviceContext_t* pContext = nullptr;
    OptixStandIn::PipelineOptions cOptions;
    unsigned int nMaxTraceDepth = 0;
    // Copies, so that a group destroyed after linking does not affect the pipeline.
    std::vector<std::pair<std::uint64_t, OptixStandIn::ProgramSet>> aGroups;
    unsigned int nContinuationStackSize = 0;
    unsigned int nMaxTraversableGraphDepth = 1;
};
