#include "TraceRunner.h"

#include "Progress.h"
#include "ToolError.h"

#include <algorithm>
#include <chrono>
#include <new>

namespace
{
// Each call rebuilds the acceleration structures, so slices grow until one takes this long.
constexpr double c_fSliceSeconds = 2.0;
constexpr std::uint64_t c_nFirstSlice = 1u << 18;

// The library's messages end in a newline; the tool adds its own.
std::string WithoutTrailingNewlines(std::string sText)
{
    while (!sText.empty() && sText.back() == '\n')
        sText.pop_back();
    return sText;
}

std::string ShowCall(RayTracingErrorType eResult, const std::string& sError)
{
    std::string sMessage =
        "RayTracing returned " + std::to_string(static_cast<int>(eResult)) + " (" + ResultName(eResult) + ")";
    if (!sError.empty())
        sMessage += ": " + sError;
    return WithoutTrailingNewlines(sMessage);
}

// One call for rays [iStart, iStart + nRays); in All mode the offsets it writes start at 0.
void TraceSlice(RayTracingFunction pRayTracing, const Mesh& cMesh, const Rays& cRays,
                const TraceRequest& cRequest, std::uint64_t iStart, std::uint64_t nRays,
                TraceResults& cResults, std::vector<float>& aAllHits, std::string& sLog)
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
        eResult = pRayTracing(cCall, cMesh.TriangleCount(), cMesh.aTriangles.data(), nRays, pOrigin,
                              cRays.aDirections.data() + 3 * iStart, pDistance, cRequest.iGpuId, sCallLog,
                              sError, cRequest.bDiagnostics, cRequest.fMaxDistance, 0);
    }
    // Device set-up failures leave the library as exceptions rather than result codes.
    catch (const std::string& sThrown)
    {
        throw ToolError(WithoutTrailingNewlines("RayTracing failed: " + sThrown));
    }
    catch (const std::bad_alloc&)
    {
        throw ToolError("RayTracing failed: out of memory");
    }
    catch (const std::exception& cException)
    {
        throw ToolError(WithoutTrailingNewlines(std::string("RayTracing failed: ") + cException.what()));
    }
    sLog += sCallLog;
    if (eResult != Success)
        throw ToolError(ShowCall(eResult, sError));
    aAllHits = std::move(cCall.cAllHits);
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

TraceStatistics Trace(RayTracingFunction pRayTracing, const Mesh& cMesh, const Rays& cRays,
                      const TraceRequest& cRequest, TraceResults& cResults)
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
        TraceSlice(pRayTracing, cMesh, cRays, cRequest, iStart, nSliceRays, cResults, aSliceHits,
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
        const double fSliceSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - cSliceStart).count();
        if (cRequest.nSliceRays == 0 && fSliceSeconds < c_fSliceSeconds)
            nSlice *= 2;
    } while (iStart < nRays);

    cStatistics.fSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - cStart).count();
    return cStatistics;
}
