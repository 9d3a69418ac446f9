// The CUDA side's handle on the OptiX driver stand-in, through which driver-side settings, faults and
// counts are forwarded. Loaded on first need; when it cannot be loaded the CUDA side works on alone.
#pragma once

#include <mutex>
#include <string>

#include "OptixDriver/OptixStandInControl.h"

namespace RayTracingCpu::StandIn
{
class OptixDriverLink
{
public:
    OptixDriverLink() = default;
    OptixDriverLink(const OptixDriverLink&) = delete;
    OptixDriverLink& operator=(const OptixDriverLink&) = delete;
    ~OptixDriverLink();

    // The control table of the library PlatformOptixLibraryName() names, or null with the reason in sError.
    const OptixStandInControl* Control(std::string* pError = nullptr);
    // Forget the loaded library, e.g. after the library name changed.
    void Unload();

private:
    std::mutex m_mutex;
    std::string m_sLoadedName;
    void* m_pHandle = nullptr;
    const OptixStandInControl* m_pControl = nullptr;
    std::string m_sError;
    bool m_bTried = false;
};
} // namespace RayTracingCpu::StandIn
