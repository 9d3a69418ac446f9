#include "TraceRunner.h"

#include "Progress.h"
#include "ToolError.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <new>

namespace
{
// Slices grow until one takes this long: a stateless call rebuilds everything, so its slices grow further.
constexpr double c_fSceneSliceSeconds = 0.5;
constexpr double c_fStatelessSliceSeconds = 2.0;
constexpr std::uint64_t c_nFirstSlice = 1u << 18;

// The library's messages end in a newline; the tool adds its own.
std::string WithoutTrailingNewlines(std::string sText)
{
    while (!sText.empty() && sText.back() == '\n')
        sText.pop_back();
    return sText;
}

std::string ShowCall(const char* sCall, RayTracingErrorType eResult, const std::string& sError)
{
    std::string sMessage = std::string(sCall) + " returned " + std::to_string(static_cast<int>(eResult)) +
                           " (" + ResultName(eResult) + ")";
    if (!sError.empty())
        sMessage += ": " + sError;
    return WithoutTrailingNewlines(sMessage);
}

// One library call on a slice: the results record and the slice's rays, returning the call's code.
using SliceCall = std::function<RayTracingErrorType(
    RayTracingResults&, std::uint64_t nRays, const float* pOrigin, const float* pDirection,
    const float* pDistance, std::string& sLog, std::string& sError)>;

// One call for rays [iStart, iStart + nRays); in All mode the offsets it writes start at 0.
void TraceSlice(const SliceCall& fnCall, const char* sCall, const Rays& cRays, const TraceRequest& cRequest,
                std::uint64_t iStart, std::uint64_t nRays, TraceResults& cResults,
                std::vector<float>& aAllHits, std::string& sLog)
{
    RayTracingResults cCall;
    cCall.bCollectAllHits = cRequest.eMode == TraceMode::All;
    const auto At = [iStart](auto& aValues) { return aValues.empty() ? nullptr : aValues.data() + iStart; };
    cCall.pCountHits = At(cResults.aCounts);
    cCall.pFirstHit = At(cResults.aNearestDistance);
    cCall.pFirstIndex = At(cResults.aNearestIndex);
    cCall.pLastHit = At(cResults.aFarthestDistance);
    cCall.pLastIndex = At(cResults.aFarthestIndex);
    const float* pOrigin = cRays.aOrigins.empty() ? nullptr : cRays.aOrigins.data() + 3 * iStart;
    const float* pDistance = cRays.aDistances.empty() ? nullptr : cRays.aDistances.data() + iStart;

    std::string sCallLog, sError;
    RayTracingErrorType eResult = Failure;
    try
    {
        eResult =
            fnCall(cCall, nRays, pOrigin, cRays.aDirections.data() + 3 * iStart, pDistance, sCallLog, sError);
    }
    // Device set-up failures leave the stateless call as exceptions rather than result codes.
    catch (const std::string& sThrown)
    {
        throw ToolError(WithoutTrailingNewlines(std::string(sCall) + " failed: " + sThrown));
    }
    catch (const std::bad_alloc&)
    {
        throw ToolError(std::string(sCall) + " failed: out of memory");
    }
    catch (const std::exception& cException)
    {
        throw ToolError(WithoutTrailingNewlines(std::string(sCall) + " failed: " + cException.what()));
    }
    sLog += sCallLog;
    if (eResult != Success)
        throw ToolError(ShowCall(sCall, eResult, sError));
    aAllHits = std::move(cCall.cAllHits);
}

TraceStatistics TraceInSlices(const SliceCall& fnCall, const char* sCall, double fSliceSeconds,
                              const Rays& cRays, const TraceRequest& cRequest, TraceResults& cResults)
{
    const std::uint64_t nRays = cRays.Count();
    cResults.Prepare(cRequest.eMode, nRays);
    TraceStatistics cStatistics;
    Progress cProgress(nRays, cRequest.bProgress);
    const auto cStart = std::chrono::steady_clock::now();

    std::uint64_t nSlice = cRequest.nSliceRays;
    if (nSlice == 0)
        nSlice = cRequest.bProgress ? c_nFirstSlice : std::max<std::uint64_t>(nRays, 1);
    std::uint64_t nHits = 0;
    std::uint64_t iStart = 0;
    do
    {
        const std::uint64_t nSliceRays = std::min(nSlice, nRays - iStart);
        const auto cSliceStart = std::chrono::steady_clock::now();
        std::vector<float> aSliceHits;
        TraceSlice(fnCall, sCall, cRays, cRequest, iStart, nSliceRays, cResults, aSliceHits,
                   cStatistics.sLog);
        ++cStatistics.nCalls;
        if (cRequest.eMode == TraceMode::All)
        {
            // Each call counts offsets from its own first ray; rebase them onto the hits gathered so far.
            for (std::uint64_t i = iStart; i <= iStart + nSliceRays; ++i)
                cResults.aCounts[i] += nHits;
            nHits += aSliceHits.size();
            if (cResults.aAllHits.empty())
                cResults.aAllHits = std::move(aSliceHits);
            else
                cResults.aAllHits.insert(cResults.aAllHits.end(), aSliceHits.begin(), aSliceHits.end());
        }
        iStart += nSliceRays;
        cProgress.Update(iStart);
        const double fTaken =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - cSliceStart).count();
        if (cRequest.nSliceRays == 0 && fTaken < fSliceSeconds)
            nSlice *= 2;
    } while (iStart < nRays);

    cStatistics.fSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - cStart).count();
    return cStatistics;
}
} // namespace

const char* ResultName(RayTracingErrorType eResult)
{
    switch (eResult)
    {
    case Success:
        return "Success";
    case OutOfMemory:
        return "OutOfMemory";
    case Failure:
        return "Failure";
    }
    return "unknown result";
}

FlavourScene CreateScene(const Flavour& cFlavour, const Mesh& cMesh, const TraceRequest& cRequest,
                         std::string& sLog)
{
    FlavourScene cScene;
    std::string sError;
    const RayTracingErrorType eResult =
        cFlavour.CreateScene(cScene, cMesh.TriangleCount(), cMesh.aTriangles.data(), cRequest.iGpuId, sLog,
                             sError, cRequest.bDiagnostics, 0);
    if (eResult != Success)
        throw ToolError(ShowCall("RayTracingScene::Create", eResult, sError));
    return cScene;
}

TraceStatistics Trace(FlavourScene& cScene, const Rays& cRays, const TraceRequest& cRequest,
                      TraceResults& cResults)
{
    const SliceCall fnCall = [&](RayTracingResults& cCall, std::uint64_t nRays, const float* pOrigin,
                                 const float* pDirection, const float* pDistance, std::string& sLog,
                                 std::string& sError) {
        return cScene.Trace(cCall, nRays, pOrigin, pDirection, pDistance, sLog, sError,
                            cRequest.fMaxDistance);
    };
    return TraceInSlices(fnCall, "RayTracingScene::Trace", c_fSceneSliceSeconds, cRays, cRequest, cResults);
}

TraceStatistics Trace(RayTracingFunction pRayTracing, const Mesh& cMesh, const Rays& cRays,
                      const TraceRequest& cRequest, TraceResults& cResults)
{
    const SliceCall fnCall = [&](RayTracingResults& cCall, std::uint64_t nRays, const float* pOrigin,
                                 const float* pDirection, const float* pDistance, std::string& sLog,
                                 std::string& sError)
    {
        return pRayTracing(cCall, cMesh.TriangleCount(), cMesh.aTriangles.data(), nRays, pOrigin, pDirection,
                           pDistance, cRequest.iGpuId, sLog, sError, cRequest.bDiagnostics,
                           cRequest.fMaxDistance, 0);
    };
    return TraceInSlices(fnCall, "RayTracing", c_fStatelessSliceSeconds, cRays, cRequest, cResults);
}
