// Modules, program groups and pipelines: the host-compiled programs behind a module text, checked the way
// the driver's compiler and linker check them.
#include "Api.h"
#include "ApiSupport.h"
#include "PtxEntries.h"

#include <atomic>
#include <memory>

namespace OptixStandIn
{
namespace
{
// Fixed stack sizes (bytes) the stand-in reports per program kind; it runs programs on host stacks.
constexpr unsigned int c_nStackRaygen = 64;
constexpr unsigned int c_nStackMiss = 16;
constexpr unsigned int c_nStackClosestHit = 32;
constexpr unsigned int c_nStackAnyHit = 16;
constexpr unsigned int c_nMaxTraceDepth = 31;

std::string Quoted(const char* s)
{
    return std::string("\"") + s + "\"";
}

// Validates the options shared by modules and pipeline; an empty string means they are usable.
std::string CheckPipelineOptions(const OptixPipelineCompileOptions& cOptions, OptixResult& result)
{
    result = OPTIX_ERROR_INVALID_VALUE;
    if (cOptions.numPayloadValues < 0 ||
        cOptions.numPayloadValues > OPTIX_COMPILE_DEFAULT_MAX_PAYLOAD_VALUE_COUNT)
        return "numPayloadValues must be 0 to 32, not " + std::to_string(cOptions.numPayloadValues);
    if (cOptions.numAttributeValues > 8)
        return "numAttributeValues must be 2 to 8, not " + std::to_string(cOptions.numAttributeValues);
    if (cOptions.traversableGraphFlags > OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_LEVEL_INSTANCING)
        return "invalid traversableGraphFlags " + std::to_string(cOptions.traversableGraphFlags);
    if (cOptions.exceptionFlags & ~7u)
        return "invalid exceptionFlags " + std::to_string(cOptions.exceptionFlags);
    if (cOptions.usesPrimitiveTypeFlags != 0 &&
        !(cOptions.usesPrimitiveTypeFlags & OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE))
    {
        result = OPTIX_ERROR_NOT_SUPPORTED;
        return "the stand-in traces triangles only: usesPrimitiveTypeFlags must include "
               "OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE";
    }
    return {};
}

PipelineOptions ToPipelineOptions(const OptixPipelineCompileOptions& cOptions)
{
    PipelineOptions cResult;
    cResult.nUsesMotionBlur = cOptions.usesMotionBlur;
    cResult.uTraversableGraphFlags = cOptions.traversableGraphFlags;
    cResult.nPayloadValues = cOptions.numPayloadValues;
    cResult.nAttributeValues = cOptions.numAttributeValues < 2 ? 2 : cOptions.numAttributeValues;
    cResult.uExceptionFlags = cOptions.exceptionFlags;
    cResult.bLaunchParams = cOptions.pipelineLaunchParamsVariableName != nullptr;
    if (cResult.bLaunchParams)
        cResult.sLaunchParams = cOptions.pipelineLaunchParamsVariableName;
    cResult.uPrimitiveTypeFlags = cOptions.usesPrimitiveTypeFlags;
    cResult.nAllowOpacityMicromaps = cOptions.allowOpacityMicromaps;
    cResult.nAllowClusteredGeometry = cOptions.allowClusteredGeometry;
    return cResult;
}

std::uint64_t NextGroupSerial()
{
    static std::atomic<std::uint64_t> s_nSerial{0};
    return ++s_nSerial;
}

// Resolves one module/entry pair of a program group description; returns an error text or "".
std::string ResolveProgram(OptixDeviceContext_t* pContext, OptixModule pModule, const char* sEntry,
                           const char* sPrefix, bool bOptional, OptixHost::ProgramFunction& fnProgram,
                           const OptixModule_t*& pUsedModule)
{
    fnProgram = nullptr;
    if (!pModule && !sEntry && bOptional)
        return {};
    if (!pModule || !sEntry)
        return std::string("the module and the entry function name of a ") + sPrefix +
               " program must both be set";
    if (!IsLive(pModule) || pModule->pContext != pContext)
        return "the module of " + Quoted(sEntry) + " is not a live module of this context";
    if (std::string(sEntry).rfind(sPrefix, 0) != 0)
        return "entry function " + Quoted(sEntry) + " does not start with " + Quoted(sPrefix);
    const auto it = pModule->pPrograms->aPrograms.find(sEntry);
    if (it == pModule->pPrograms->aPrograms.end())
        return "unknown entry function " + Quoted(sEntry) + " in module " + pModule->pPrograms->sName;
    if (pUsedModule && pUsedModule->cOptions != pModule->cOptions)
        return "the modules of one program group were compiled with different pipeline options";
    fnProgram = it->second;
    pUsedModule = pModule;
    return {};
}

std::string DescribeGroup(OptixDeviceContext_t* pContext, const OptixProgramGroupDesc& cDesc,
                          OptixProgramGroup_t& cGroup, OptixResult& result)
{
    result = OPTIX_ERROR_INVALID_VALUE;
    if (cDesc.flags != OPTIX_PROGRAM_GROUP_FLAGS_NONE)
        return "flags must be OPTIX_PROGRAM_GROUP_FLAGS_NONE";
    ProgramSet& cPrograms = cGroup.cPrograms;
    cPrograms.eKind = cDesc.kind;
    std::string sError;
    switch (cDesc.kind)
    {
    case OPTIX_PROGRAM_GROUP_KIND_RAYGEN:
        sError = ResolveProgram(pContext, cDesc.raygen.module, cDesc.raygen.entryFunctionName, "__raygen__",
                                false, cPrograms.fnRaygen, cGroup.pAnyModule);
        break;
    case OPTIX_PROGRAM_GROUP_KIND_MISS:
        sError = ResolveProgram(pContext, cDesc.miss.module, cDesc.miss.entryFunctionName, "__miss__", true,
                                cPrograms.fnMiss, cGroup.pAnyModule);
        break;
    case OPTIX_PROGRAM_GROUP_KIND_HITGROUP:
        if (cDesc.hitgroup.moduleIS || cDesc.hitgroup.entryFunctionNameIS)
        {
            result = OPTIX_ERROR_NOT_SUPPORTED;
            return "intersection programs are not supported: triangles use the built-in intersection";
        }
        sError = ResolveProgram(pContext, cDesc.hitgroup.moduleCH, cDesc.hitgroup.entryFunctionNameCH,
                                "__closesthit__", true, cPrograms.fnClosestHit, cGroup.pAnyModule);
        if (sError.empty())
            sError = ResolveProgram(pContext, cDesc.hitgroup.moduleAH, cDesc.hitgroup.entryFunctionNameAH,
                                    "__anyhit__", true, cPrograms.fnAnyHit, cGroup.pAnyModule);
        break;
    case OPTIX_PROGRAM_GROUP_KIND_EXCEPTION:
    case OPTIX_PROGRAM_GROUP_KIND_CALLABLES:
        result = OPTIX_ERROR_NOT_SUPPORTED;
        return "exception and callable program groups are not supported";
    default:
        return "invalid program group kind " + std::to_string(cDesc.kind);
    }
    if (sError.empty() && cGroup.pAnyModule)
        cGroup.cModuleOptions = cGroup.pAnyModule->cOptions;
    return sError;
}

template <class Object> void Adopt(OptixDeviceContext_t* pContext, Object* pObject, ObjectKind eKind)
{
    {
        std::lock_guard<std::mutex> lock(pContext->childMutex);
        if constexpr (std::is_same<Object, OptixModule_t>::value)
            pContext->aModules.insert(pObject);
        else if constexpr (std::is_same<Object, OptixProgramGroup_t>::value)
            pContext->aGroups.insert(pObject);
        else
            pContext->aPipelines.insert(pObject);
    }
    Driver::Get().Objects().Add(pObject, eKind);
}

// Releases a child of a context; an injected fault still releases it and is what the call returns.
template <class Object> OptixResult Release(const char* sFunction, Object* pObject)
{
    const int nFault = Driver::Get().Faults().Enter(sFunction);
    if (!pObject || !IsLive(pObject))
        return nFault ? static_cast<OptixResult>(nFault) : OPTIX_ERROR_INVALID_VALUE;
    Driver::Get().Objects().Remove(pObject);
    OptixDeviceContext_t* pContext = pObject->pContext;
    {
        std::lock_guard<std::mutex> lock(pContext->childMutex);
        if constexpr (std::is_same<Object, OptixModule_t>::value)
            pContext->aModules.erase(pObject);
        else if constexpr (std::is_same<Object, OptixProgramGroup_t>::value)
            pContext->aGroups.erase(pObject);
        else
            pContext->aPipelines.erase(pObject);
    }
    delete pObject;
    return static_cast<OptixResult>(nFault);
}
} // namespace

bool PipelineOptions::operator==(const PipelineOptions& c) const
{
    return nUsesMotionBlur == c.nUsesMotionBlur && uTraversableGraphFlags == c.uTraversableGraphFlags &&
           nPayloadValues == c.nPayloadValues && nAttributeValues == c.nAttributeValues &&
           uExceptionFlags == c.uExceptionFlags && bLaunchParams == c.bLaunchParams &&
           sLaunchParams == c.sLaunchParams && uPrimitiveTypeFlags == c.uPrimitiveTypeFlags &&
           nAllowOpacityMicromaps == c.nAllowOpacityMicromaps &&
           nAllowClusteredGeometry == c.nAllowClusteredGeometry;
}

OptixResult ModuleCreate(OptixDeviceContext context, const OptixModuleCompileOptions* pModuleOptions,
                         const OptixPipelineCompileOptions* pPipelineOptions, const char* sInput,
                         size_t nInputSize, char* sLog, size_t* pLogSize, OptixModule* pModule)
{
    return GuardedCall(
        "optixModuleCreate",
        [&]()
        {
            const LogBuffer cLog(sLog, pLogSize);
            if (!IsLive(context))
                return context ? OPTIX_ERROR_INVALID_DEVICE_CONTEXT : OPTIX_ERROR_INVALID_VALUE;
            if (!pModule)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE, "optixModuleCreate: module is null");
            *pModule = nullptr;
            if (!pModuleOptions || !pPipelineOptions)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixModuleCreate: compile options are null");
            if (!sInput || nInputSize == 0)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixModuleCreate: the module input is empty");
            if (pModuleOptions->numBoundValues > 0 && !pModuleOptions->boundValues)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixModuleCreate: numBoundValues is set but boundValues is null");
            if (pModuleOptions->numPayloadTypes != 0)
                return Fail(context, &cLog,
                            pPipelineOptions->numPayloadValues != 0 ? OPTIX_ERROR_INVALID_VALUE
                                                                    : OPTIX_ERROR_NOT_SUPPORTED,
                            "optixModuleCreate: payload types are not supported; use numPayloadValues");
            OptixResult result = OPTIX_SUCCESS;
            const std::string sOptionsError = CheckPipelineOptions(*pPipelineOptions, result);
            if (!sOptionsError.empty())
                return Fail(context, &cLog, result, "optixModuleCreate: " + sOptionsError);

            const std::vector<std::string> aEntries = ParseEntryNames(sInput, nInputSize);
            if (aEntries.empty())
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_INPUT,
                            "optixModuleCreate: the module input declares no \".visible .entry\" functions");
            std::string sError;
            const RegisteredModule* pPrograms = FindModuleByEntries(aEntries, sError);
            if (!pPrograms)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_INPUT, "optixModuleCreate: " + sError);
            if (pPipelineOptions->numPayloadValues < static_cast<int>(pPrograms->nPayloadValues))
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_FUNCTION_USE,
                            "optixModuleCreate: module " + pPrograms->sName + " traces with " +
                                std::to_string(pPrograms->nPayloadValues) +
                                " payload values, but numPayloadValues is " +
                                std::to_string(pPipelineOptions->numPayloadValues));

            auto pNew = std::make_unique<OptixModule_t>();
            pNew->pContext = context;
            pNew->pPrograms = pPrograms;
            pNew->cOptions = ToPipelineOptions(*pPipelineOptions);
            Adopt(context, pNew.get(), ObjectKind::Module);
            *pModule = pNew.release();
            cLog.Write("");
            context->Log(4, "COMPILER",
                         "Info: module " + pPrograms->sName + " with " + std::to_string(aEntries.size()) +
                             " entry functions (host-compiled)");
            return OPTIX_SUCCESS;
        });
}

OptixResult ModuleDestroy(OptixModule module)
{
    return Release("optixModuleDestroy", module);
}

OptixResult ProgramGroupCreate(OptixDeviceContext context, const OptixProgramGroupDesc* aDescs,
                               unsigned int nGroups, const OptixProgramGroupOptions* pOptions, char* sLog,
                               size_t* pLogSize, OptixProgramGroup* aGroups)
{
    return GuardedCall(
        "optixProgramGroupCreate",
        [&]()
        {
            const LogBuffer cLog(sLog, pLogSize);
            if (!IsLive(context))
                return context ? OPTIX_ERROR_INVALID_DEVICE_CONTEXT : OPTIX_ERROR_INVALID_VALUE;
            if (!aDescs || nGroups == 0 || !aGroups)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixProgramGroupCreate: descriptions, count and output array must be given");
            if (pOptions && pOptions->payloadType)
                return Fail(context, &cLog, OPTIX_ERROR_NOT_SUPPORTED,
                            "optixProgramGroupCreate: payload types are not supported");

            // All or nothing: the groups are published only when every description is valid.
            std::vector<std::unique_ptr<OptixProgramGroup_t>> aNew;
            for (unsigned int i = 0; i < nGroups; ++i)
            {
                auto pGroup = std::make_unique<OptixProgramGroup_t>();
                pGroup->pContext = context;
                OptixResult result = OPTIX_SUCCESS;
                const std::string sError = DescribeGroup(context, aDescs[i], *pGroup, result);
                if (!sError.empty())
                    return Fail(context, &cLog, result,
                                "optixProgramGroupCreate: program group " + std::to_string(i) + ": " +
                                    sError);
                aNew.push_back(std::move(pGroup));
            }
            for (unsigned int i = 0; i < nGroups; ++i)
            {
                aNew[i]->nSerial = NextGroupSerial();
                Adopt(context, aNew[i].get(), ObjectKind::ProgramGroup);
                aGroups[i] = aNew[i].release();
            }
            cLog.Write("");
            return OPTIX_SUCCESS;
        });
}

OptixResult ProgramGroupDestroy(OptixProgramGroup group)
{
    return Release("optixProgramGroupDestroy", group);
}

OptixResult ProgramGroupGetStackSize(OptixProgramGroup group, OptixStackSizes* pSizes, OptixPipeline pipeline)
{
    return GuardedCall("optixProgramGroupGetStackSize",
                       [&]()
                       {
                           if (!IsLive(group) || !pSizes || (pipeline && !IsLive(pipeline)))
                               return OPTIX_ERROR_INVALID_VALUE;
                           *pSizes = OptixStackSizes{};
                           const ProgramSet& cPrograms = group->cPrograms;
                           pSizes->cssRG = cPrograms.fnRaygen ? c_nStackRaygen : 0;
                           pSizes->cssMS = cPrograms.fnMiss ? c_nStackMiss : 0;
                           pSizes->cssCH = cPrograms.fnClosestHit ? c_nStackClosestHit : 0;
                           pSizes->cssAH = cPrograms.fnAnyHit ? c_nStackAnyHit : 0;
                           return OPTIX_SUCCESS;
                       });
}

OptixResult PipelineCreate(OptixDeviceContext context, const OptixPipelineCompileOptions* pPipelineOptions,
                           const OptixPipelineLinkOptions* pLinkOptions, const OptixProgramGroup* aGroups,
                           unsigned int nGroups, char* sLog, size_t* pLogSize, OptixPipeline* pPipeline)
{
    return GuardedCall(
        "optixPipelineCreate",
        [&]()
        {
            const LogBuffer cLog(sLog, pLogSize);
            if (!IsLive(context))
                return context ? OPTIX_ERROR_INVALID_DEVICE_CONTEXT : OPTIX_ERROR_INVALID_VALUE;
            if (!pPipeline)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixPipelineCreate: pipeline is null");
            *pPipeline = nullptr;
            if (!pPipelineOptions || !pLinkOptions)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixPipelineCreate: options are null");
            if (pLinkOptions->maxTraceDepth > c_nMaxTraceDepth)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixPipelineCreate: maxTraceDepth must be at most 31, not " +
                                std::to_string(pLinkOptions->maxTraceDepth));
            if (!aGroups || nGroups == 0)
                return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                            "optixPipelineCreate: no program groups");
            OptixResult result = OPTIX_SUCCESS;
            const std::string sOptionsError = CheckPipelineOptions(*pPipelineOptions, result);
            if (!sOptionsError.empty())
                return Fail(context, &cLog, result, "optixPipelineCreate: " + sOptionsError);

            auto pNew = std::make_unique<OptixPipeline_t>();
            pNew->pContext = context;
            pNew->cOptions = ToPipelineOptions(*pPipelineOptions);
            pNew->nMaxTraceDepth = pLinkOptions->maxTraceDepth;
            for (unsigned int i = 0; i < nGroups; ++i)
            {
                const OptixProgramGroup_t* pGroup = aGroups[i];
                if (!IsLive(pGroup) || pGroup->pContext != context)
                    return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                                "optixPipelineCreate: program group " + std::to_string(i) +
                                    " is not a live program group of this context");
                if (pGroup->pAnyModule && pGroup->cModuleOptions != pNew->cOptions)
                    return Fail(context, &cLog, OPTIX_ERROR_INVALID_VALUE,
                                "optixPipelineCreate: program group " + std::to_string(i) +
                                    " was compiled with other pipeline compile options than the pipeline's");
                pNew->aGroups.emplace_back(pGroup->nSerial, pGroup->cPrograms);
            }
            Adopt(context, pNew.get(), ObjectKind::Pipeline);
            *pPipeline = pNew.release();
            cLog.Write("");
            return OPTIX_SUCCESS;
        });
}

OptixResult PipelineDestroy(OptixPipeline pipeline)
{
    return Release("optixPipelineDestroy", pipeline);
}

OptixResult PipelineSetStackSize(OptixPipeline pipeline, unsigned int /*nDcFromTraversal*/,
                                 unsigned int /*nDcFromState*/, unsigned int nContinuation,
                                 unsigned int nMaxTraversableGraphDepth)
{
    return GuardedCall(
        "optixPipelineSetStackSize",
        [&]()
        {
            if (!IsLive(pipeline))
                return OPTIX_ERROR_INVALID_VALUE;
            if (nMaxTraversableGraphDepth < 1 || nMaxTraversableGraphDepth > 31)
                return Fail(pipeline->pContext, nullptr, OPTIX_ERROR_INVALID_VALUE,
                            "optixPipelineSetStackSize: maxTraversableGraphDepth must be 1 to 31, not " +
                                std::to_string(nMaxTraversableGraphDepth));
            pipeline->nContinuationStackSize = nContinuation;
            pipeline->nMaxTraversableGraphDepth = nMaxTraversableGraphDepth;
            return OPTIX_SUCCESS;
        });
}
} // namespace OptixStandIn
