#include "OptixDriverLink.h"

#include <dlfcn.h>

#include "RayTracing/Platform.h"

namespace RayTracingCpu::StandIn
{
OptixDriverLink::~OptixDriverLink()
{
    Unload();
}

const OptixStandInControl* OptixDriverLink::Control(std::string* pError)
{
    std::string sName = PlatformOptixLibraryName();
    std::lock_guard<std::mutex> cLock(m_mutex);
    if (!m_bTried || sName != m_sLoadedName)
    {
        if (m_pHandle)
            dlclose(m_pHandle);
        m_pHandle = nullptr;
        m_pControl = nullptr;
        m_sError.clear();
        m_sLoadedName = sName;
        m_bTried = true;
        m_pHandle = dlopen(sName.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!m_pHandle)
        {
            const char* sReason = dlerror();
            m_sError = "cannot load " + sName + ": " + (sReason ? sReason : "unknown reason");
        }
        else
        {
            using GetControl = const OptixStandInControl* (*)();
            auto fnGetControl = reinterpret_cast<GetControl>(dlsym(m_pHandle, "RayTracingCpuOptixControl"));
            m_pControl = fnGetControl ? fnGetControl() : nullptr;
            if (!m_pControl)
                m_sError = sName + " has no RayTracingCpuOptixControl";
        }
    }
    if (pError)
        *pError = m_sError;
    return m_pControl;
}

void OptixDriverLink::Unload()
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    if (m_pHandle)
        dlclose(m_pHandle);
    m_pHandle = nullptr;
    m_pControl = nullptr;
    m_sError.clear();
    m_sLoadedName.clear();
    m_bTried = false;
}
} // namespace RayTracingCpu::StandIn
