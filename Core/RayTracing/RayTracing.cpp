// The stateless entry point: validation, the answers that need no GPU, device set-up and memory budget, and
// the guarded run of the trace driver.
#include "RayTracing.h"

#include <deque>

#include "DeviceSetup.h"
#include "GuardedCall.h"
#include "OptixApi.h"
#include "RequestMode.h"
#include "ThrustExtra.h"
#include "TraceDriver.h"

// C linkage comes from the declaration in RayTracing.h.
RAYTRACING_API int NvOptimusEnablementCuda = 1;

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
    RequestMode cMode;
    switch (PrepareRequest(cRayTracingResults, nTriangles, nRays, pOrigin, pDirection, pDistance,
                           fMaxDistance, cMode))
    {
    case RequestState::Answered:
        return Success;
    case RequestState::Invalid:
        return Failure;
    case RequestState::NeedsDevice:
        break;
    }

    // Device set-up runs outside the guarded regions: its check failures leave as thrown strings.
    DeviceBudget cBudget;
    const ErrorResult cSetUp = SetUpDevice(iGpuId, nFreeGPUMemory, cBudget);
    if (cSetUp.first != Success)
    {
        sError = cSetUp.second;
        return cSetUp.first;
    }

    std::deque<std::string> aLog;
    CudaStream cStream;
    const TraceRequest cRequest{cRayTracingResults, nTriangles, pTriangles,   nRays, pOrigin,
                                pDirection,         pDistance,  fMaxDistance, cMode};
    const RayTracingErrorType nResult = RunGuarded(
        [&]
        {
            TraceDriver cDriver(cRequest, cBudget, iGpuId, bDiagnostics, aLog, cStream, nullptr);
            return cDriver.Run();
        },
        sError);
    return DeliverLog(aLog, sLog, nResult); // the log reaches the caller after a failure too
}
