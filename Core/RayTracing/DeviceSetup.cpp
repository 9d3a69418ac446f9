#include "DeviceSetup.h"

#include <algorithm>
#include <cmath>

namespace
{
constexpr std::uint64_t c_nReserveFloor = 536870912; // 512 MiB
constexpr std::uint64_t c_nStartMargin = 268435456;  // 256 MiB
} // namespace

ErrorResult SetUpDevice(int iGpuId, std::uint64_t nFreeGPUMemory, DeviceBudget& cBudget)
{
    size_t nTotalGPUMemory = 0;
    size_t nTemp = 0;
    cudaDeviceProp prop;
    int iCudaDevAttrMemoryPoolsSupported = 0;
    // clang-format off
    CHECK_CUDA(cudaSetDevice(iGpuId));
    CHECK_CUDA(cudaFree(0));
    CHECK_CUDA(cudaMemGetInfo(nFreeGPUMemory == 0 ? &nFreeGPUMemory : &nTemp, &nTotalGPUMemory));
    CHECK_CUDA(cudaGetDeviceProperties(&prop, iGpuId));
    const bool bCC75 = prop.major * 10 + prop.minor >= 75;
    CHECK_CUDA(cudaDeviceGetAttribute(&iCudaDevAttrMemoryPoolsSupported, cudaDevAttrMemoryPoolsSupported, iGpuId));
    // clang-format on
    const bool bMemoryPoolsSupported = iCudaDevAttrMemoryPoolsSupported != 0;

    // Pools keep freed memory cached, so more is held back with them (most on older GPUs).
    const double fReserveFraction = !bMemoryPoolsSupported ? 0.05 : (bCC75 ? 0.1 : 0.45);
    std::uint64_t nReserve =
        static_cast<std::uint64_t>(std::ceil(static_cast<double>(nTotalGPUMemory) * fReserveFraction));
    nReserve = std::max(nReserve, c_nReserveFloor);
    if (nFreeGPUMemory <= nReserve + c_nStartMargin)
        return {OutOfMemory, "Not enough free GPU memory."};

    cBudget.nFreeGPUMemory = nFreeGPUMemory - nReserve;
    cBudget.bMemoryPoolsSupported = bMemoryPoolsSupported;
    cBudget.bCC75 = bCC75;
    return SuccessResult();
}
