// The few CUDA driver calls the tools make themselves: finding a device before choosing a flavour, and timing
// a plain host-to-device copy in the benchmark. Loaded at run time so that the tools run where no driver is.
#pragma once

#include "SharedLibrary.h"

#include <cstdint>
#include <string>

class CudaDriver
{
public:
    // Empty driver with sError set when libcuda.so.1 is missing or cuInit fails.
    static CudaDriver Load(std::string& sError);

    explicit operator bool() const { return static_cast<bool>(m_cLibrary); }
    int DeviceCount() const;
    std::string DeviceName(int iDevice) const;
    // Seconds of one synchronous pageable host-to-device copy of nBytes to device iDevice; negative on
    // failure.
    double TimeHostToDeviceCopy(int iDevice, const void* pData, std::uint64_t nBytes) const;

private:
    using CUresult = int;
    using CUdeviceptr = unsigned long long;
    using CUcontext = struct CUctx_st*;

    SharedLibrary m_cLibrary;
    CUresult (*m_pInit)(unsigned) = nullptr;
    CUresult (*m_pDeviceGetCount)(int*) = nullptr;
    CUresult (*m_pDeviceGet)(int*, int) = nullptr;
    CUresult (*m_pDeviceGetName)(char*, int, int) = nullptr;
    CUresult (*m_pPrimaryCtxRetain)(CUcontext*, int) = nullptr;
    CUresult (*m_pPrimaryCtxRelease)(int) = nullptr;
    CUresult (*m_pCtxSetCurrent)(CUcontext) = nullptr;
    CUresult (*m_pMemAlloc)(CUdeviceptr*, std::size_t) = nullptr;
    CUresult (*m_pMemFree)(CUdeviceptr) = nullptr;
    CUresult (*m_pMemcpyHtoD)(CUdeviceptr, const void*, std::size_t) = nullptr;
    CUresult (*m_pCtxSynchronize)() = nullptr;
};
