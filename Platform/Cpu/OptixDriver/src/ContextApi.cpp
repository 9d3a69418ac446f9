// Device contexts: creation with the log callback, properties, and destruction with everything left in them.
#include "Api.h"
#include "ApiSupport.h"

#include <thread>

namespace OptixStandIn
{
namespace
{
// Property values of the stand-in device; the primitive limit is configurable.
bool DeviceProperty(OptixDeviceProperty eProperty, unsigned int& uValue)
{
    switch (eProperty)
    {
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_TRACE_DEPTH:
        uValue = 31;
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_TRAVERSABLE_GRAPH_DEPTH:
        uValue = 31;
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS:
        uValue = Driver::Get().MaxPrimitivesPerGas();
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_INSTANCES_PER_IAS:
        uValue = 1u << 28;
        return true;
    case OPTIX_DEVICE_PROPERTY_RTCORE_VERSION:
        uValue = 0; // no RT cores
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_INSTANCE_ID:
        uValue = (1u << 28) - 1;
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_NUM_BITS_INSTANCE_VISIBILITY_MASK:
        uValue = 8;
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_SBT_RECORDS_PER_GAS:
        uValue = 1u << 24;
        return true;
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_SBT_OFFSET:
        uValue = (1u << 24) - 1;
        return true;
    case OPTIX_DEVICE_PROPERTY_SHADER_EXECUTION_REORDERING:
    case OPTIX_DEVICE_PROPERTY_COOP_VEC:
    case OPTIX_DEVICE_PROPERTY_CLUSTER_ACCEL:
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_CLUSTER_VERTICES:
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_CLUSTER_TRIANGLES:
    case OPTIX_DEVICE_PROPERTY_LIMIT_MAX_STRUCTURED_GRID_RESOLUTION:
        uValue = 0; // features the stand-in does not offer
        return true;
    }
    return false;
}

void DestroyChildren(OptixDeviceContext_t* pContext)
{
    LiveObjects& cObjects = Driver::Get().Objects();
    for (OptixPipeline_t* pPipeline : pContext->aPipelines)
    {
        cObjects.Remove(pPipeline);
        delete pPipeline;
    }
    for (OptixProgramGroup_t* pGroup : pContext->aGroups)
    {
        cObjects.Remove(pGroup);
        delete pGroup;
    }
    for (OptixModule_t* pModule : pContext->aModules)
    {
        cObjects.Remove(pModule);
        delete pModule;
    }
}
} // namespace

OptixResult DeviceContextCreate(CUcontext /*fromContext*/, const OptixDeviceContextOptions* pOptions,
                                OptixDeviceContext* pContext)
{
    return GuardedCall(
        "optixDeviceContextCreate",
        [&]()
        {
            if (!pContext)
                return OPTIX_ERROR_INVALID_VALUE;
            *pContext = nullptr;
            if (pOptions && (pOptions->logCallbackLevel < 0 || pOptions->logCallbackLevel > 4))
                return OPTIX_ERROR_INVALID_VALUE;
            if (pOptions && pOptions->validationMode != OPTIX_DEVICE_CONTEXT_VALIDATION_MODE_OFF &&
                pOptions->validationMode != OPTIX_DEVICE_CONTEXT_VALIDATION_MODE_ALL)
                return OPTIX_ERROR_INVALID_VALUE;

            auto pNew = std::make_unique<OptixDeviceContext_t>();
            if (pOptions)
            {
                pNew->fnLog = pOptions->logCallbackFunction;
                pNew->pLogData = pOptions->logCallbackData;
                pNew->nLogLevel = static_cast<unsigned int>(pOptions->logCallbackLevel);
            }
            pNew->pScenes = std::make_shared<SceneStore>();
            Driver::Get().Objects().Add(pNew.get(), ObjectKind::Context);
            *pContext = pNew.release();
            (*pContext)->Log(4, "DEVICE",
                             "OptiX driver stand-in on the CPU: Embree " RTC_VERSION_STRING ", " +
                                 std::to_string(Driver::Get().Workers()->max_concurrency()) +
                                 " worker threads");
            return OPTIX_SUCCESS;
        });
}

OptixResult DeviceContextDestroy(OptixDeviceContext context)
{
    // An injected fault still releases the context, so that leak counts stay meaningful.
    const int nFault = Driver::Get().Faults().Enter("optixDeviceContextDestroy");
    if (!context)
        return nFault ? static_cast<OptixResult>(nFault) : OPTIX_ERROR_INVALID_VALUE;
    if (!IsLive(context))
        return nFault ? static_cast<OptixResult>(nFault) : OPTIX_ERROR_INVALID_DEVICE_CONTEXT;
    Driver::Get().Objects().Remove(context);
    DestroyChildren(context);
    delete context;
    return static_cast<OptixResult>(nFault);
}

OptixResult DeviceContextGetProperty(OptixDeviceContext context, OptixDeviceProperty eProperty, void* pValue,
                                     size_t nSizeInBytes)
{
    return GuardedCall(
        "optixDeviceContextGetProperty",
        [&]()
        {
            if (!IsLive(context))
                return context ? OPTIX_ERROR_INVALID_DEVICE_CONTEXT : OPTIX_ERROR_INVALID_VALUE;
            unsigned int uValue = 0;
            if (!DeviceProperty(eProperty, uValue))
                return Fail(context, nullptr, OPTIX_ERROR_INVALID_VALUE,
                            "optixDeviceContextGetProperty: unknown property " + std::to_string(eProperty));
            if (!pValue || nSizeInBytes != sizeof(unsigned int))
                return Fail(context, nullptr, OPTIX_ERROR_INVALID_VALUE,
                            "optixDeviceContextGetProperty: the value must be a 4-byte unsigned int");
            *static_cast<unsigned int*>(pValue) = uValue;
            return OPTIX_SUCCESS;
        });
}
} // namespace OptixStandIn

void OptixDeviceContext_t::Log(unsigned int nLevel, const char* sTag, const std::string& sMessage)
{
    if (!fnLog || nLevel == 0 || nLevel > nLogLevel)
        return;
    std::lock_guard<std::mutex> lock(logMutex);
    fnLog(nLevel, sTag, sMessage.c_str(), pLogData);
}
