#include "Commands.h"

#include "NpyFile.h"
#include "Pictures.h"
#include "Progress.h"
#include "ToolError.h"
#include "TraceRunner.h"

#include <cmath>
#include <chrono>
#include <cstdio>
#include <optional>
#include <sys/stat.h>

namespace
{
Vec3 ToVec3(const std::vector<float>& aValues, const char* sOption)
{
    // The parser guarantees three values; NaN and infinity get through it as numbers.
    const Vec3 cVector{aValues[0], aValues[1], aValues[2]};
    if (!std::isfinite(cVector.x) || !std::isfinite(cVector.y) || !std::isfinite(cVector.z))
        throw ToolError(std::string(sOption) + ": coordinates must be finite");
    return cVector;
}

std::uint64_t RowsOf(const std::vector<float>& aValues, std::uint64_t nColumns)
{
    return aValues.size() / nColumns;
}

Rays RaysFromFiles(const TraceOptions& cOptions)
{
    Rays cRays;
    cRays.aDirections = Npy::ReadFloatRows(cOptions.sDirections, 3);
    const std::uint64_t nRays = RowsOf(cRays.aDirections, 3);
    if (nRays == 0)
        throw ToolError(cOptions.sDirections + ": contains no rays");
    if (!cOptions.sOrigins.empty())
    {
        cRays.aOrigins = Npy::ReadFloatRows(cOptions.sOrigins, 3);
        if (RowsOf(cRays.aOrigins, 3) != nRays)
            throw ToolError(cOptions.sOrigins + ": " + std::to_string(RowsOf(cRays.aOrigins, 3)) +
                            " origins for " + std::to_string(nRays) + " directions");
    }
    return cRays;
}

// Rays of the chosen generator; the camera also gives the picture size.
Rays GeneratedRays(const TraceOptions& cOptions, const Mesh& cMesh, std::optional<Resolution>& cPicture)
{
    const std::string sGenerator = cOptions.sGenerator.empty() ? "camera" : cOptions.sGenerator;
    const auto Reject = [&](bool bGiven, const char* sOption, const char* sFor)
    {
        if (bGiven)
            throw ToolError(std::string(sOption) + " applies to --rays " + sFor + " only");
    };
    Reject(sGenerator != "camera" &&
               (!cOptions.aPosition.empty() || !cOptions.aLookAt.empty() || !cOptions.aUp.empty()),
           "--position, --look-at and --up", "camera");
    Reject(sGenerator != "sphere" && !cOptions.aCenter.empty(), "--center", "sphere");
    Reject(sGenerator != "grid" && !cOptions.aDirection.empty(), "--direction", "grid");

    const Bounds cBounds = ComputeBounds(cMesh);
    if (sGenerator == "sphere")
    {
        if (cOptions.nCount == 0)
            throw ToolError("--count must be at least 1");
        return GenerateSphereRays(cOptions.aCenter.empty() ? cBounds.Center()
                                                           : ToVec3(cOptions.aCenter, "--center"),
                                  cOptions.nCount);
    }
    const Resolution cResolution = ParseResolution(cOptions.sResolution, "--resolution");
    if (sGenerator == "grid")
        return GenerateGridRays(cBounds,
                                cOptions.aDirection.empty() ? Vec3{0, 0, -1}
                                                            : ToVec3(cOptions.aDirection, "--direction"),
                                cResolution);
    PinholeCamera cCamera = FrameBounds(cBounds, cResolution, cOptions.fFov);
    if (!cOptions.aLookAt.empty())
        cCamera.cLookAt = ToVec3(cOptions.aLookAt, "--look-at");
    if (!cOptions.aPosition.empty())
        cCamera.cPosition = ToVec3(cOptions.aPosition, "--position");
    if (!cOptions.aUp.empty())
        cCamera.cUp = ToVec3(cOptions.aUp, "--up");
    cPicture = cResolution;
    return GenerateCameraRays(cCamera);
}

void WriteResults(const TraceOptions& cOptions, TraceMode eMode, const TraceResults& cResults,
                  const Rays& cRays, const std::optional<Resolution>& cPicture, float fMaxDistance)
{
    std::vector<std::string> aWritten;
    const auto Save = [&](const std::string& sSuffix, const auto& aValues)
    {
        if (aValues.empty() && eMode != TraceMode::All)
            return;
        Npy::Write(cOptions.sOutput + sSuffix, aValues);
        aWritten.push_back(cOptions.sOutput + sSuffix);
    };
    if (IsCounting(eMode))
    {
        Save(eMode == TraceMode::All ? "-offsets.npy" : "-counts.npy", cResults.aCounts);
        if (eMode == TraceMode::All)
            Save("-hits.npy", cResults.aAllHits);
    }
    else
    {
        Save("-nearest-distance.npy", cResults.aNearestDistance);
        Save("-nearest-index.npy", cResults.aNearestIndex);
        Save("-farthest-distance.npy", cResults.aFarthestDistance);
        Save("-farthest-index.npy", cResults.aFarthestIndex);
    }
    if (cPicture)
    {
        const auto Draw = [&](const std::string& sSuffix, const Picture& cImage)
        {
            WritePng(cOptions.sOutput + sSuffix, cImage);
            aWritten.push_back(cOptions.sOutput + sSuffix);
        };
        if (IsCounting(eMode))
            Draw("-hit-count.png",
                 HeatMap(*cPicture,
                         eMode == TraceMode::All ? CountsFromOffsets(cResults.aCounts) : cResults.aCounts));
        else
            Draw("-depth.png", ShadeDepth(cRays, *cPicture, cResults.aNearestDistance, fMaxDistance));
        if (HasIndices(eMode))
            Draw("-triangles.png", ColourIndices(*cPicture, cResults.aNearestIndex));
        if (HasFarthest(eMode))
            Draw("-thickness.png",
                 Thickness(*cPicture, cResults.aNearestDistance, cResults.aFarthestDistance, fMaxDistance));
    }
    for (const std::string& sPath : aWritten)
        std::printf("wrote %s\n", sPath.c_str());
}
} // namespace

Flavour LoadFlavourFor(const CommonOptions& cOptions)
{
    const DeviceChoice eChoice = cOptions.sDevice == "gpu"   ? DeviceChoice::Gpu
                                 : cOptions.sDevice == "cpu" ? DeviceChoice::Cpu
                                                             : DeviceChoice::Auto;
    Flavour cFlavour = Flavour::Load(eChoice, cOptions.iGpuId);
    const auto [iMajor, iMinor, iMicro] = cFlavour.OptixVersion();
    std::printf("flavour: %s (%s), device: %s, OptiX interface %d.%d.%d\n", cFlavour.Name().c_str(),
                cFlavour.LibraryPath().c_str(), cFlavour.Device().c_str(), iMajor, iMinor, iMicro);
    if (!cFlavour.Note().empty())
        std::printf("  (%s)\n", cFlavour.Note().c_str());
    std::fflush(stdout);
    return cFlavour;
}

int RunTrace(const TraceOptions& cOptions)
{
    if (cOptions.sMesh.empty())
        throw ToolError("--mesh is required");
    const TraceMode eMode = ParseMode(cOptions.sMode);
    if (std::isnan(cOptions.fMaxDistance) || !(cOptions.fMaxDistance > 0.0f))
        throw ToolError("--max-distance must be greater than 0");
    if (!cOptions.sGenerator.empty() && !cOptions.sDirections.empty())
        throw ToolError("--rays and --directions exclude each other");
    if (!cOptions.sOrigins.empty() && cOptions.sDirections.empty())
        throw ToolError("--origins needs --directions");

    // Fail before a long run rather than after it.
    const std::size_t iSlash = cOptions.sOutput.rfind('/');
    const std::string sOutputDirectory =
        iSlash == std::string::npos ? "." : cOptions.sOutput.substr(0, iSlash + 1);
    struct stat cStatus = {};
    if (stat(sOutputDirectory.c_str(), &cStatus) != 0 || !S_ISDIR(cStatus.st_mode))
        throw ToolError("--output: directory '" + sOutputDirectory + "' does not exist");

    const Mesh cMesh = LoadMesh(cOptions.sMesh);
    std::optional<Resolution> cPicture;
    Rays cRays =
        cOptions.sDirections.empty() ? GeneratedRays(cOptions, cMesh, cPicture) : RaysFromFiles(cOptions);
    CheckRaysFinite(cRays);
    if (!cOptions.sDistances.empty())
    {
        // NaN and infinite distances mean something to the library, so they pass unchecked.
        cRays.aDistances = Npy::ReadFloatVector(cOptions.sDistances);
        if (cRays.aDistances.size() != cRays.Count())
            throw ToolError(cOptions.sDistances + ": " + std::to_string(cRays.aDistances.size()) +
                            " distances for " + std::to_string(cRays.Count()) + " rays");
    }

    Flavour cFlavour = LoadFlavourFor(cOptions.cCommon);
    TraceRequest cRequest;
    cRequest.eMode = eMode;
    cRequest.fMaxDistance = cOptions.fMaxDistance;
    cRequest.iGpuId = cOptions.cCommon.iGpuId;
    cRequest.bDiagnostics = cOptions.cCommon.bDiagnostics;
    cRequest.nSliceRays = cOptions.nSliceRays;
    cRequest.bProgress = !cOptions.cCommon.bNoProgress && StdoutIsTerminal();
    std::string sLog;
    const auto cSceneStart = std::chrono::steady_clock::now();
    FlavourScene cScene = CreateScene(cFlavour, cMesh, cRequest, sLog);
    const double fSceneSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - cSceneStart).count();
    TraceResults cResults;
    const TraceStatistics cStatistics = Trace(cScene, cRays, cRequest, cResults);
    sLog += cStatistics.sLog;
    if (!sLog.empty())
        std::fprintf(stderr, "%s", sLog.c_str());
    std::printf("scene: prepared in %.3f s; structures %s\n", fSceneSeconds,
                cScene.KeptStructures() ? "kept between slices" : "rebuilt per slice (too big to keep)");
    std::printf("traced %llu rays against %llu triangles%s, mode %s: %.3f s, %.3f M rays/s, %llu call%s\n",
                static_cast<unsigned long long>(cRays.Count()),
                static_cast<unsigned long long>(cMesh.TriangleCount()),
                cMesh.sPlacement.empty() ? "" : (" (" + cMesh.sPlacement + ")").c_str(), ModeName(eMode),
                cStatistics.fSeconds, cRays.Count() / cStatistics.fSeconds * 1e-6,
                static_cast<unsigned long long>(cStatistics.nCalls), cStatistics.nCalls == 1 ? "" : "s");
    WriteResults(cOptions, eMode, cResults, cRays, cPicture, cOptions.fMaxDistance);
    return 0;
}
