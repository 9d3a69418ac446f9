// The stand-in's two exported symbols: the OptiX entry point that fills the caller's function table, and
// the control table through which the CPU flavour's configuration reaches the driver.
#include "Api.h"
#include "ApiSupport.h"
#include "OptixStandInControl.h"

#define RT_DRIVER_EXPORT extern "C" __attribute__((visibility("default")))

namespace OptixStandIn
{
namespace
{
// Slots the stand-in does not serve answer this instead of crashing through a null pointer.
OptixResult NotSupportedEntry()
{
    return OPTIX_ERROR_NOT_SUPPORTED;
}

void FillFunctionTable(OptixFunctionTable& cTable)
{
    const auto fnUnused = reinterpret_cast<OptixUnusedEntry>(&NotSupportedEntry);
    auto* aSlots = reinterpret_cast<OptixUnusedEntry*>(&cTable);
    for (size_t i = 0; i < sizeof(cTable) / sizeof(OptixUnusedEntry); ++i)
        aSlots[i] = fnUnused;
    cTable.optixGetErrorName = &GetErrorName;
    cTable.optixGetErrorString = &GetErrorString;
    cTable.optixDeviceContextCreate = &DeviceContextCreate;
    cTable.optixDeviceContextDestroy = &DeviceContextDestroy;
    cTable.optixDeviceContextGetProperty = &DeviceContextGetProperty;
    cTable.optixModuleCreate = &ModuleCreate;
    cTable.optixModuleDestroy = &ModuleDestroy;
    cTable.optixProgramGroupCreate = &ProgramGroupCreate;
    cTable.optixProgramGroupDestroy = &ProgramGroupDestroy;
    cTable.optixProgramGroupGetStackSize = &ProgramGroupGetStackSize;
    cTable.optixPipelineCreate = &PipelineCreate;
    cTable.optixPipelineDestroy = &PipelineDestroy;
    cTable.optixPipelineSetStackSize = &PipelineSetStackSize;
    cTable.optixAccelComputeMemoryUsage = &AccelComputeMemoryUsage;
    cTable.optixAccelBuild = &AccelBuild;
    cTable.optixSbtRecordPackHeader = &SbtRecordPackHeader;
    cTable.optixLaunch = &Launch;
}

void ControlSetMaxPrimitivesPerGas(std::uint32_t nMax)
{
    Driver::Get().SetMaxPrimitivesPerGas(nMax);
}
void ControlSetThreads(int nThreads)
{
    Driver::Get().SetThreads(nThreads);
}
void ControlInjectFault(const char* sFunction, std::uint64_t nCall, int nCode)
{
    if (sFunction)
        Driver::Get().Faults().Inject(sFunction, nCall, nCode);
}
void ControlClearFaults()
{
    Driver::Get().Faults().ClearFaults();
}
std::uint64_t ControlCallCount(const char* sFunction)
{
    return sFunction ? Driver::Get().Faults().CallCount(sFunction) : 0;
}
void ControlResetCallCounts()
{
    Driver::Get().Faults().ResetCallCounts();
}
std::uint64_t ControlLiveObjects()
{
    return Driver::Get().Objects().Count();
}
} // namespace
} // namespace OptixStandIn

RT_DRIVER_EXPORT OptixResult optixQueryFunctionTable(int abiId, unsigned int numOptions,
                                                     OptixQueryFunctionTableOptions* optionKeys,
                                                     const void** /*optionValues*/, void* functionTable,
                                                     size_t sizeOfTable)
{
    using namespace OptixStandIn;
    if (const int nFault = Driver::Get().Faults().Enter("optixQueryFunctionTable"))
        return static_cast<OptixResult>(nFault);
    if (abiId != OPTIX_ABI_VERSION)
        return OPTIX_ERROR_UNSUPPORTED_ABI_VERSION;
    if (sizeOfTable != sizeof(OptixFunctionTable))
        return OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH;
    if (numOptions != 0)
    {
        if (!optionKeys)
            return OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS;
        for (unsigned int i = 0; i < numOptions; ++i)
            if (optionKeys[i] != OPTIX_QUERY_FUNCTION_TABLE_OPTION_DUMMY)
                return OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS;
    }
    if (!functionTable)
        return OPTIX_ERROR_INVALID_VALUE;
    FillFunctionTable(*static_cast<OptixFunctionTable*>(functionTable));
    return OPTIX_SUCCESS;
}

RT_DRIVER_EXPORT const OptixStandInControl* RayTracingCpuOptixControl()
{
    using namespace OptixStandIn;
    static const OptixStandInControl s_cControl = {
        &ControlSetMaxPrimitivesPerGas,
        &ControlSetThreads,
        &ControlInjectFault,
        &ControlClearFaults,
        &ControlCallCount,
        &ControlResetCallCounts,
        &ControlLiveObjects,
    };
    return &s_cControl;
}
