// The exported entry points: validation, the answers that need no GPU, device set-up and memory budget,
// and the guarded run of the trace driver.
#include "RayTracing.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <limits>
#include <new>
#include <sstream>

#include "OptixApi.h"
#include "RayTracingChecks.h"
#include "ThrustExtra.h"
#include "TraceDriver.h"

// C linkage comes from the declaration in RayTracing.h.
RAYTRACING_API int NvOptimusEnablementCuda = 1;

namespace
{
constexpr std::uint64_t c_nReserveFloor = 536870912; // 512 MiB
constexpr std::uint64_t c_nStartMargin = 268435456;  // 256 MiB
// Farthest distance of a ray without hits: the lowest finite float, bit pattern 0xFF7FFFFF.
constexpr float c_fNoFarthestHit = -std::numeric_limits<float>::max();
} // namespace

std::tuple<int, int, int> GetOptixVersion()
{
    return std::make_tuple(OPTIX_VERSION / 10000, (OPTIX_VERSION % 10000) / 100, OPTIX_VERSION % 100);
}

RayTracingErrorType RayTracing(RayTracingResults& cRayTracingResults, std::uint64_t nTriangles,
                               const float* pTriangles, std::uint64_t nRays, const float* pOrigin,
                               const float* pDirection, const float* pDistance, int iGpuId, std::string& sLog,
                               std::string& sError, bool bDiagnostics, float fMaxDistance,
                               std::uint64_t nFreeGPUMemory)
{
    sLog.clear();
    sError.clear();
    cRayTracingResults.cAllHits.clear();
    if (nRays == 0)
        return Success;

    const bool bAllHits = cRayTracingResults.pCountHits != nullptr;
    const bool bIndices = cRayTracingResults.pFirstIndex != nullptr;
    const bool bFirstHitOnly = cRayTracingResults.pLastHit == nullptr;
    unsigned int uGeometryFlags = OPTIX_GEOMETRY_FLAG_NONE;
    if (bAllHits)
    {
        if (nTriangles == 0)
        {
            std::fill_n(cRayTracingResults.pCountHits, nRays + (cRayTracingResults.bCollectAllHits ? 1 : 0),
                        0);
            return Success;
        }
        if (pDirection == nullptr)
            return Failure;
        uGeometryFlags = OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL;
    }
    else
    {
        if (cRayTracingResults.bCollectAllHits)
            return Failure;
        if (cRayTracingResults.pFirstHit == nullptr)
            return Failure;
        if (pDirection == nullptr)
            return Failure;
        if (cRayTracingResults.pLastHit != nullptr &&
            (cRayTracingResults.pFirstIndex == nullptr) != (cRayTracingResults.pLastIndex == nullptr))
            return Failure;
        if (nTriangles == 0)
        {
            if (bIndices)
                std::fill_n(cRayTracingResults.pFirstIndex, nRays, -1);
            std::fill_n(cRayTracingResults.pFirstHit, nRays, fMaxDistance);
            if (!bFirstHitOnly)
            {
                if (bIndices)
                    std::fill_n(cRayTracingResults.pLastIndex, nRays, -1);
                std::fill_n(cRayTracingResults.pLastHit, nRays, c_fNoFarthestHit);
            }
            return Success;
        }
        uGeometryFlags = bFirstHitOnly ? OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT : OPTIX_GEOMETRY_FLAG_NONE;
    }

    std::deque<std::string> aLog;

    // Device set-up runs outside the guarded regions: its check failures leave as thrown strings.
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
    {
        sError = "Not enough free GPU memory.";
        return OutOfMemory;
    }
    nFreeGPUMemory -= nReserve;

    std::uint64_t nBytesPerRay = 12; // direction
    if (cRayTracingResults.pCountHits)
        nBytesPerRay += 8;
    for (const void* pResult : {static_cast<const void*>(cRayTracingResults.pFirstIndex),
                                static_cast<const void*>(cRayTracingResults.pFirstHit),
                                static_cast<const void*>(cRayTracingResults.pLastIndex),
                                static_cast<const void*>(cRayTracingResults.pLastHit)})
        if (pResult)
            nBytesPerRay += 4;
    if (pOrigin)
        nBytesPerRay += 12;
    if (pDistance)
        nBytesPerRay += 4;

    CudaStream cStream;

    RayTracingErrorType nResult = Success;
    try
    {
        TraceDriver cDriver(cRayTracingResults, nTriangles, pTriangles, nRays, pOrigin, pDirection, pDistance,
                            iGpuId, bDiagnostics, fMaxDistance, nFreeGPUMemory, aLog, cStream,
                            bMemoryPoolsSupported, bCC75, uGeometryFlags, bAllHits, bIndices, bFirstHitOnly,
                            nBytesPerRay);
        const ErrorResult cResult = cDriver.Run();
        nResult = cResult.first;
        sError = cResult.second;
    }
    catch (const std::bad_alloc&)
    {
        nResult = OutOfMemory;
    }
    catch (const std::string& sMessage)
    {
        nResult = Failure;
        sError = sMessage;
    }
    catch (const std::exception& cException)
    {
        nResult = Failure;
        if (cException.what() != nullptr)
            sError = cException.what();
    }
    catch (...)
    {
        nResult = Failure;
    }

    // The log reaches the caller after a failure too.
    try
    {
        std::stringstream ss;
        for (const std::string& sLine : aLog)
            ss << sLine << std::endl;
        sLog = ss.str();
    }
    catch (const std::bad_alloc&)
    {
        if (nResult == Success)
            nResult = OutOfMemory;
    }
    catch (...)
    {
        if (nResult == Success)
            nResult = Failure;
    }
    return nResult;
}
