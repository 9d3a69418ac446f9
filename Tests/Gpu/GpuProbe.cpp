#include "GpuProbe.h"

#include <dlfcn.h>
#include <link.h>
#include <memory>

namespace
{
// The driver's own codes (cuda.h), declared here so that nothing of the toolkit is needed.
constexpr int c_iStubLibrary = 34; // CUDA_ERROR_STUB_LIBRARY: the toolkit's link-time stub, not a driver
constexpr int c_iNoDevice = 100;   // CUDA_ERROR_NO_DEVICE

struct LibraryCloser
{
    void operator()(void* pHandle) const { dlclose(pHandle); }
};
using LibraryHandle = std::unique_ptr<void, LibraryCloser>;

// RTLD_NODELETE keeps the code mapped after dlclose: a driver may leave threads running in it.
LibraryHandle Open(const std::string& sLibrary, std::string& sError)
{
    LibraryHandle pHandle(dlopen(sLibrary.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    if (!pHandle)
    {
        const char* sText = dlerror();
        sError = sText != nullptr ? sText : "cannot load " + sLibrary;
    }
    return pHandle;
}

std::string LoadedPath(void* pHandle)
{
    link_map* pMap = nullptr;
    if (dlinfo(pHandle, RTLD_DI_LINKMAP, &pMap) != 0 || pMap == nullptr || pMap->l_name == nullptr)
        return "an unknown path";
    return pMap->l_name;
}
} // namespace

GpuDecision DecideGpu(const CudaDriverAnswers& c)
{
    if (!c.sLoadError.empty())
        return {GpuVerdict::Skip, "no CUDA driver: " + c.sLoadError};
    if (!c.sMissingEntry.empty())
        return {GpuVerdict::Fail, "the CUDA driver library lacks " + c.sMissingEntry};
    if (c.iInitResult == c_iStubLibrary)
        return {GpuVerdict::Skip, "no CUDA driver: libcuda.so.1 is the toolkit's stub library"};
    if (c.iInitResult == c_iNoDevice)
        return {GpuVerdict::Skip, "no CUDA device (cuInit: CUDA_ERROR_NO_DEVICE)"};
    if (c.iInitResult != 0)
        return {GpuVerdict::Fail, "cuInit failed with CUDA driver error " + std::to_string(c.iInitResult)};
    if (c.iCountResult != 0)
        return {GpuVerdict::Fail,
                "cuDeviceGetCount failed with CUDA driver error " + std::to_string(c.iCountResult)};
    if (c.nDevices <= 0)
        return {GpuVerdict::Skip, "no CUDA device (cuDeviceGetCount: 0)"};
    return {GpuVerdict::Run, std::to_string(c.nDevices) + " CUDA device(s)"};
}

CudaDriverAnswers AskCudaDriver(const std::string& sLibrary)
{
    CudaDriverAnswers c;
    const LibraryHandle pDriver = Open(sLibrary, c.sLoadError);
    if (!pDriver)
        return c;
    using Init = int (*)(unsigned int);
    using GetCount = int (*)(int*);
    const auto pInit = reinterpret_cast<Init>(dlsym(pDriver.get(), "cuInit"));
    const auto pGetCount = reinterpret_cast<GetCount>(dlsym(pDriver.get(), "cuDeviceGetCount"));
    if (pInit == nullptr || pGetCount == nullptr)
    {
        c.sMissingEntry = pInit == nullptr ? "cuInit" : "cuDeviceGetCount";
        return c;
    }
    c.iInitResult = pInit(0);
    if (c.iInitResult == 0)
        c.iCountResult = pGetCount(&c.nDevices);
    return c;
}

std::string DescribeOptixLibrary(const std::string& sLibrary)
{
    std::string sError;
    const LibraryHandle pOptix = Open(sLibrary, sError);
    if (!pOptix)
        return sLibrary + " does not load: " + sError;
    const std::string sPath = LoadedPath(pOptix.get());
    if (dlsym(pOptix.get(), "optixQueryFunctionTable") == nullptr)
        return sLibrary + " loads from " + sPath + " but lacks optixQueryFunctionTable";
    return sLibrary + " loads from " + sPath;
}
