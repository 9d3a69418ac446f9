#include "SharedLibrary.h"

#include <dlfcn.h>

SharedLibrary SharedLibrary::Open(const std::string& sPath, std::string& sError)
{
    // RTLD_LOCAL keeps the CPU flavour's stand-in symbols away from a real CUDA runtime in the same process;
    // RTLD_NODELETE because the flavours start worker threads that must never outlive their code.
    SharedLibrary cLibrary;
    cLibrary.m_pHandle = dlopen(sPath.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (cLibrary.m_pHandle == nullptr)
    {
        const char* sText = dlerror();
        sError = sText != nullptr ? sText : "cannot load " + sPath;
    }
    return cLibrary;
}

SharedLibrary& SharedLibrary::operator=(SharedLibrary&& cOther) noexcept
{
    if (this != &cOther)
    {
        if (m_pHandle != nullptr)
            dlclose(m_pHandle);
        m_pHandle = cOther.m_pHandle;
        cOther.m_pHandle = nullptr;
    }
    return *this;
}

SharedLibrary::~SharedLibrary()
{
    if (m_pHandle != nullptr)
        dlclose(m_pHandle);
}

void* SharedLibrary::Symbol(const char* sName) const
{
    return m_pHandle != nullptr ? dlsym(m_pHandle, sName) : nullptr;
}
