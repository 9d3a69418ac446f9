// The test-facing configuration and fault-injection interface; driver-side parts go to the OptiX stand-in.
#include <cstdio>

#include "DeviceConfigFromEnvironment.h"
#include "Runtime.h"

namespace RayTracingCpu
{
namespace
{
using StandIn::Runtime;

bool IsOptixName(const std::string& sFunction)
{
    return sFunction.compare(0, 5, "optix") == 0;
}

const OptixStandInControl* OptixControl(const char* sPurpose)
{
    std::string sError;
    const OptixStandInControl* pControl = Runtime::Get().OptixDriver().Control(&sError);
    if (!pControl && sPurpose)
        std::fprintf(stderr, "RayTracingCpu::%s: OptiX driver stand-in unavailable (%s)\n", sPurpose,
                     sError.c_str());
    return pControl;
}

void ForwardDriverSettings(const DeviceConfig& cConfig)
{
    if (const OptixStandInControl* pControl = OptixControl(nullptr))
    {
        pControl->SetMaxPrimitivesPerGas(cConfig.nMaxPrimitivesPerGas);
        pControl->SetThreads(cConfig.nThreads);
    }
}
} // namespace

DeviceConfig GetConfig()
{
    return Runtime::Get().Config();
}

void SetConfig(const DeviceConfig& cConfig)
{
    Runtime::Get().SetConfig(cConfig);
    ForwardDriverSettings(Runtime::Get().Config());
}

void ResetConfig()
{
    Runtime& cRuntime = Runtime::Get();
    cRuntime.SetConfig(StandIn::ReadDeviceConfig());
    cRuntime.Calls().ClearFaults();
    cRuntime.Calls().ResetCallCounts();
    ForwardDriverSettings(cRuntime.Config());
    if (const OptixStandInControl* pControl = OptixControl(nullptr))
    {
        pControl->ClearFaults();
        pControl->ResetCallCounts();
    }
}

void InjectFault(const std::string& sFunction, std::uint64_t nCall, int nCode)
{
    if (!IsOptixName(sFunction))
        Runtime::Get().Calls().InjectFault(sFunction, nCall, nCode);
    else if (const OptixStandInControl* pControl = OptixControl("InjectFault"))
        pControl->InjectFault(sFunction.c_str(), nCall, nCode);
}

void ClearFaults()
{
    Runtime::Get().Calls().ClearFaults();
    if (const OptixStandInControl* pControl = OptixControl(nullptr))
        pControl->ClearFaults();
}

std::uint64_t CallCount(const std::string& sFunction)
{
    if (!IsOptixName(sFunction))
        return Runtime::Get().Calls().CallCount(sFunction);
    const OptixStandInControl* pControl = OptixControl(nullptr);
    return pControl ? pControl->CallCount(sFunction.c_str()) : 0;
}

void ResetCallCounts()
{
    Runtime::Get().Calls().ResetCallCounts();
    if (const OptixStandInControl* pControl = OptixControl(nullptr))
        pControl->ResetCallCounts();
}

std::uint64_t LiveDeviceBytes()
{
    return Runtime::Get().Memory().LiveBytes();
}

std::uint64_t LiveOptixObjects()
{
    const OptixStandInControl* pControl = OptixControl(nullptr);
    return pControl ? pControl->LiveObjects() : 0;
}

void SetOptixLibrary(const std::string& sPath)
{
    Runtime::Get().SetOptixLibrary(sPath);
    Runtime::Get().OptixDriver().Unload();
}

std::string GetOptixLibrary()
{
    return Runtime::Get().OptixLibrary();
}
} // namespace RayTracingCpu
