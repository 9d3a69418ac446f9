#include "CudaDriver.h"

#include <chrono>
#include <type_traits>

CudaDriver CudaDriver::Load(std::string& sError)
{
    CudaDriver cDriver;
    SharedLibrary cLibrary = SharedLibrary::Open("libcuda.so.1", sError);
    if (!cLibrary)
        return cDriver;
    // Versioned names are the ones current drivers export for these calls.
    const auto Resolve = [&](auto& pFunction, const char* sName)
    {
        pFunction = reinterpret_cast<std::remove_reference_t<decltype(pFunction)>>(cLibrary.Symbol(sName));
        return pFunction != nullptr;
    };
    if (!Resolve(cDriver.m_pInit, "cuInit") || !Resolve(cDriver.m_pDeviceGetCount, "cuDeviceGetCount") ||
        !Resolve(cDriver.m_pDeviceGet, "cuDeviceGet") ||
        !Resolve(cDriver.m_pDeviceGetName, "cuDeviceGetName") ||
        !Resolve(cDriver.m_pPrimaryCtxRetain, "cuDevicePrimaryCtxRetain") ||
        !Resolve(cDriver.m_pPrimaryCtxRelease, "cuDevicePrimaryCtxRelease_v2") ||
        !Resolve(cDriver.m_pCtxSetCurrent, "cuCtxSetCurrent") ||
        !Resolve(cDriver.m_pMemAlloc, "cuMemAlloc_v2") || !Resolve(cDriver.m_pMemFree, "cuMemFree_v2") ||
        !Resolve(cDriver.m_pMemcpyHtoD, "cuMemcpyHtoD_v2") ||
        !Resolve(cDriver.m_pCtxSynchronize, "cuCtxSynchronize"))
    {
        sError = "libcuda.so.1 lacks a driver entry point";
        return CudaDriver();
    }
    const CUresult iResult = cDriver.m_pInit(0);
    if (iResult != 0)
    {
        sError = "cuInit failed with CUDA driver error " + std::to_string(iResult);
        return CudaDriver();
    }
    cDriver.m_cLibrary = std::move(cLibrary);
    return cDriver;
}

int CudaDriver::DeviceCount() const
{
    int nDevices = 0;
    if (!m_cLibrary || m_pDeviceGetCount(&nDevices) != 0)
        return 0;
    return nDevices;
}

std::string CudaDriver::DeviceName(int iDevice) const
{
    int hDevice = 0;
    char aName[256] = {};
    if (!m_cLibrary || m_pDeviceGet(&hDevice, iDevice) != 0 ||
        m_pDeviceGetName(aName, static_cast<int>(sizeof(aName) - 1), hDevice) != 0)
        return "CUDA device " + std::to_string(iDevice);
    return aName;
}

double CudaDriver::TimeHostToDeviceCopy(int iDevice, const void* pData, std::uint64_t nBytes) const
{
    int hDevice = 0;
    CUcontext pContext = nullptr;
    if (!m_cLibrary || m_pDeviceGet(&hDevice, iDevice) != 0 || m_pPrimaryCtxRetain(&pContext, hDevice) != 0)
        return -1.0;
    double fSeconds = -1.0;
    CUdeviceptr pDevice = 0;
    if (m_pCtxSetCurrent(pContext) == 0 && m_pMemAlloc(&pDevice, nBytes) == 0)
    {
        const auto cStart = std::chrono::steady_clock::now();
        // A copy from pageable memory may return before the DMA has finished.
        if (m_pMemcpyHtoD(pDevice, pData, nBytes) == 0 && m_pCtxSynchronize() == 0)
            fSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - cStart).count();
        m_pMemFree(pDevice);
    }
    m_pPrimaryCtxRelease(hDevice);
    return fSeconds;
}
