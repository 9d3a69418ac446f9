#include "Commands.h"

#include "DemoScene.h"
#include "Pictures.h"
#include "ToolError.h"
#include "TraceRunner.h"

#include <chrono>
#include <cstdio>
#include <sys/stat.h>

namespace
{
struct DemoPass
{
    TraceMode eMode;
    const char* sPicture;
};

// Every mode once; four of them answer exactly what a picture shows.
const DemoPass c_aPasses[] = {{TraceMode::Nearest, "depth"},   {TraceMode::NearestIndex, "triangles"},
                              {TraceMode::Both, "thickness"},  {TraceMode::BothIndex, nullptr},
                              {TraceMode::Count, "hit-count"}, {TraceMode::All, nullptr}};
} // namespace

int RunDemo(const DemoOptions& cOptions)
{
    const Resolution cResolution = ParseResolution(cOptions.sResolution, "--resolution");
    struct stat cStatus = {};
    if (stat(cOptions.sOutputDirectory.c_str(), &cStatus) != 0 || !S_ISDIR(cStatus.st_mode))
        throw ToolError("--output-dir: '" + cOptions.sOutputDirectory + "' is not a directory");

    Flavour cFlavour = LoadFlavourFor(cOptions.cCommon);
    const auto cBuildStart = std::chrono::steady_clock::now();
    const Mesh cScene = BuildDemoScene(cOptions.nTriangles);
    const Rays cRays = GenerateCameraRays(DemoCamera(cResolution));
    std::printf("scene: %llu triangles, %ux%u camera rays, built in %.2f s\n",
                static_cast<unsigned long long>(cScene.TriangleCount()), cResolution.nWidth,
                cResolution.nHeight,
                std::chrono::duration<double>(std::chrono::steady_clock::now() - cBuildStart).count());
    std::fflush(stdout);

    TraceRequest cRequest;
    cRequest.iGpuId = cOptions.cCommon.iGpuId;
    cRequest.bDiagnostics = cOptions.cCommon.bDiagnostics;
    // The scene compiles each mode's pipeline and builds structures on first use: one ray per mode does that
    // here, so the table below shows trace times alone.
    std::string sLog;
    const auto cPrepareStart = std::chrono::steady_clock::now();
    FlavourScene cLibraryScene = CreateScene(cFlavour, cScene, cRequest, sLog);
    Rays cOneRay;
    cOneRay.aOrigins.assign(cRays.aOrigins.begin(), cRays.aOrigins.begin() + 3);
    cOneRay.aDirections.assign(cRays.aDirections.begin(), cRays.aDirections.begin() + 3);
    for (const DemoPass& cPass : c_aPasses)
    {
        TraceRequest cWarmUp = cRequest;
        cWarmUp.eMode = cPass.eMode;
        TraceResults cResults;
        sLog += Trace(cLibraryScene, cOneRay, cWarmUp, cResults).sLog;
    }
    std::printf("library scene: pipelines and acceleration structures built in %.3f s\n",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - cPrepareStart).count());
    if (!sLog.empty())
        std::fprintf(stderr, "%s", sLog.c_str());
    // One call per mode on the one scene, so that the table shows the library's own rate; each row appears as
    // its mode ends.

    std::printf("\n%-14s %10s %10s %6s %9s %9s  %-7s %s\n", "mode", "rays", "triangles", "calls", "seconds",
                "M rays/s", "flavour", "device");
    for (const DemoPass& cPass : c_aPasses)
    {
        cRequest.eMode = cPass.eMode;
        std::printf("%-14s ", ModeName(cPass.eMode));
        std::fflush(stdout);
        TraceResults cResults;
        const TraceStatistics cStatistics = Trace(cLibraryScene, cRays, cRequest, cResults);
        if (!cStatistics.sLog.empty())
            std::fprintf(stderr, "%s", cStatistics.sLog.c_str());
        std::printf(
            "%10llu %10llu %6llu %9.3f %9.3f  %-7s %s\n", static_cast<unsigned long long>(cRays.Count()),
            static_cast<unsigned long long>(cScene.TriangleCount()),
            static_cast<unsigned long long>(cStatistics.nCalls), cStatistics.fSeconds,
            cRays.Count() / cStatistics.fSeconds * 1e-6, cFlavour.Name().c_str(), cFlavour.Device().c_str());
        std::fflush(stdout);

        if (cPass.sPicture == nullptr)
            continue;
        Picture cPicture;
        switch (cPass.eMode)
        {
        case TraceMode::Nearest:
            cPicture = ShadeDepth(cRays, cResolution, cResults.aNearestDistance, cRequest.fMaxDistance);
            break;
        case TraceMode::NearestIndex:
            cPicture = ColourIndices(cResolution, cResults.aNearestIndex);
            break;
        case TraceMode::Count:
            cPicture = HeatMap(cResolution, cResults.aCounts);
            break;
        default:
            cPicture = Thickness(cResolution, cResults.aNearestDistance, cResults.aFarthestDistance,
                                 cRequest.fMaxDistance);
            break;
        }
        WritePng(cOptions.sOutputDirectory + "/raycast-demo-" + cPass.sPicture + ".png", cPicture);
    }
    std::printf("\npictures: %s/raycast-demo-{depth,triangles,hit-count,thickness}.png\n",
                cOptions.sOutputDirectory.c_str());
    return 0;
}
