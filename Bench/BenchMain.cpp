// raycast-bench: M rays/s of every mode of the library against Embree called directly, on the same meshes,
// rays and thread count; on a GPU machine also the GPU flavour against a plain copy of its input.
#include "BenchScene.h"
#include "CudaDriver.h"
#include "EmbreeBaseline.h"
#include "Flavour.h"
#include "FlavourError.h"
#include "PeakMemory.h"
#include "Pictures.h"
#include "ToolError.h"
#include "TraceRunner.h"

#include <algorithm>
#include <CLI/CLI.hpp>

#include <cfloat>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <optional>
#include <thread>

namespace
{
struct BenchOptions
{
    bool bQuick = false;
    int nThreads = 0;
    std::uint64_t nRays = 1000000;
    std::vector<std::uint64_t> aTriangles = {10000, 100000, 1000000};
    int nRepeats = 3;
    std::vector<std::string> aModes; // empty: every mode
    bool bStateless = true;          // stateless calls, acceleration-structure build included
    bool bScene = true;              // a kept scene, traces alone
};

bool ModeChosen(const BenchOptions& cOptions, TraceMode eMode)
{
    return cOptions.aModes.empty() || std::find(cOptions.aModes.begin(), cOptions.aModes.end(),
                                                ModeName(eMode)) != cOptions.aModes.end();
}

std::string CpuModel()
{
    std::ifstream cFile("/proc/cpuinfo");
    std::string sLine;
    while (std::getline(cFile, sLine))
        if (sLine.rfind("model name", 0) == 0 && sLine.find(':') != std::string::npos)
            return sLine.substr(sLine.find(':') + 2);
    return "unknown CPU";
}

// Rays on which the two answers differ beyond float noise.
std::uint64_t Disagreements(TraceMode eMode, const TraceResults& cOurs, const TraceResults& cEmbree)
{
    const auto Differs = [](float a, float b)
    { return std::fabs(a - b) > 1e-4f * std::max(1.0f, std::fabs(b)); };
    std::uint64_t nDiffer = 0;
    if (IsCounting(eMode))
    {
        // Offsets accumulate, so all-hits answers are compared by their per-ray counts.
        const bool bOffsets = eMode == TraceMode::All;
        const std::vector<std::uint64_t> aOurs = bOffsets ? CountsFromOffsets(cOurs.aCounts) : cOurs.aCounts;
        const std::vector<std::uint64_t> aEmbree =
            bOffsets ? CountsFromOffsets(cEmbree.aCounts) : cEmbree.aCounts;
        for (std::size_t i = 0; i < aOurs.size(); ++i)
            nDiffer += aOurs[i] != aEmbree[i];
        return nDiffer;
    }
    for (std::size_t i = 0; i < cOurs.aNearestDistance.size(); ++i)
        nDiffer += Differs(cOurs.aNearestDistance[i], cEmbree.aNearestDistance[i]) ||
                   (HasFarthest(eMode) && Differs(cOurs.aFarthestDistance[i], cEmbree.aFarthestDistance[i]));
    return nDiffer;
}

// The first call of a flavour loads OptiX and warms caches; keep that out of the figures.
void WarmUp(const Flavour& cFlavour)
{
    Mesh cMesh;
    cMesh.AddTriangle({-1, -1, 1}, {1, -1, 1}, {0, 1, 1});
    Rays cRays;
    cRays.Add({0, 0, 0}, {0, 0, 1});
    TraceResults cResults;
    Trace(cFlavour.RayTracing(), cMesh, cRays, TraceRequest(), cResults);
}

// Build once, trace many: the scene's build (its creation and a first one-ray trace, which compiles the
// mode's pipeline and builds or plans its structures), then the fastest of its traces, against Embree tracing
// a committed scene.
void RunSceneCases(const BenchOptions& cOptions, const Flavour& cFlavour, const Mesh& cMesh,
                   const Rays& cRays)
{
    Rays cOneRay;
    cOneRay.aOrigins.assign(cRays.aOrigins.begin(), cRays.aOrigins.begin() + 3);
    cOneRay.aDirections.assign(cRays.aDirections.begin(), cRays.aDirections.begin() + 3);
    for (TraceMode eMode : AllModes())
    {
        if (!ModeChosen(cOptions, eMode))
            continue;
        TraceRequest cRequest;
        cRequest.eMode = eMode;
        std::string sLog;
        TraceResults cOurs;
        const auto cBuildStart = std::chrono::steady_clock::now();
        FlavourScene cScene = CreateScene(cFlavour, cMesh, cRequest, sLog);
        Trace(cScene, cOneRay, cRequest, cOurs);
        const double fBuildSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - cBuildStart).count();
        double fOursSeconds = 0.0;
        for (int iRepeat = 0; iRepeat < cOptions.nRepeats; ++iRepeat)
        {
            const double fSeconds = Trace(cScene, cRays, cRequest, cOurs).fSeconds;
            fOursSeconds = iRepeat == 0 ? fSeconds : std::min(fOursSeconds, fSeconds);
        }
        TraceResults cEmbree;
        const EmbreeSeconds cEmbreeSeconds = TraceWithEmbree(
            cMesh, cRays, eMode, cRequest.fMaxDistance, cOptions.nThreads, false, cEmbree, cOptions.nRepeats);
        TraceResults cRobust;
        const EmbreeSeconds cRobustSeconds = TraceWithEmbree(
            cMesh, cRays, eMode, cRequest.fMaxDistance, cOptions.nThreads, true, cRobust, cOptions.nRepeats);
        const double fOurs = cRays.Count() / fOursSeconds * 1e-6;
        const double fEmbree = cRays.Count() / cEmbreeSeconds.fTrace * 1e-6;
        const double fRobust = cRays.Count() / cRobustSeconds.fTrace * 1e-6;
        std::printf("%s %s triangles=%llu rays=%llu build_s=%.3f kept=%s ours=%.3f embree=%.3f ratio=%.3f "
                    "embree_build_s=%.3f embree_robust=%.3f ratio_robust=%.3f\n",
                    cFlavour.IsGpu() ? "scene-gpu" : "scene", ModeName(eMode),
                    static_cast<unsigned long long>(cMesh.TriangleCount()),
                    static_cast<unsigned long long>(cRays.Count()), fBuildSeconds,
                    cScene.KeptStructures() ? "yes" : "no", fOurs, fEmbree, fOurs / fEmbree,
                    cEmbreeSeconds.fBuild, fRobust, fOurs / fRobust);
        const std::uint64_t nDiffer = Disagreements(eMode, cOurs, cEmbree);
        if (nDiffer * 1000 > cRays.Count())
            std::printf("# note: %s answers differ from Embree's on %llu of %llu rays\n", ModeName(eMode),
                        static_cast<unsigned long long>(nDiffer),
                        static_cast<unsigned long long>(cRays.Count()));
        std::fflush(stdout);
    }
}

void RunCases(const BenchOptions& cOptions, Flavour& cFlavour, const CudaDriver* pCuda)
{
    WarmUp(cFlavour);
    const Rays cRays = RandomRays(cOptions.nRays);
    for (std::uint64_t nTargetTriangles : cOptions.aTriangles)
    {
        const Mesh cMesh = BuildBlobs(nTargetTriangles);
        if (cOptions.bScene)
            RunSceneCases(cOptions, cFlavour, cMesh, cRays);
        if (!cOptions.bStateless)
            continue;
        double fCopySeconds = -1.0;
        if (pCuda != nullptr)
        {
            std::vector<char> aInput(cMesh.aTriangles.size() * 4 + cRays.aOrigins.size() * 4 +
                                     cRays.aDirections.size() * 4);
            fCopySeconds = pCuda->TimeHostToDeviceCopy(0, aInput.data(), aInput.size());
        }
        for (TraceMode eMode : AllModes())
        {
            if (!ModeChosen(cOptions, eMode))
                continue;
            TraceRequest cRequest;
            cRequest.eMode = eMode;
            // Best of several alternating runs: a shared virtual machine's rates swing by tens of percent.
            TraceResults cOurs;
            TraceResults cEmbree;
            TraceResults cRobust;
            double fOursSeconds = 0.0;
            double fEmbreeSeconds = 0.0;
            double fRobustSeconds = 0.0;
            std::uint64_t nPeakMb = 0;
            for (int iRepeat = 0; iRepeat < cOptions.nRepeats; ++iRepeat)
            {
                ResetPeakMemory();
                const TraceStatistics cStatistics =
                    Trace(cFlavour.RayTracing(), cMesh, cRays, cRequest, cOurs);
                nPeakMb = std::max(nPeakMb, PeakMemoryMb());
                const double fSeconds = TraceWithEmbree(cMesh, cRays, eMode, cRequest.fMaxDistance,
                                                        cOptions.nThreads, false, cEmbree)
                                            .Total();
                const double fRobust = TraceWithEmbree(cMesh, cRays, eMode, cRequest.fMaxDistance,
                                                       cOptions.nThreads, true, cRobust)
                                           .Total();
                fOursSeconds =
                    iRepeat == 0 ? cStatistics.fSeconds : std::min(fOursSeconds, cStatistics.fSeconds);
                fEmbreeSeconds = iRepeat == 0 ? fSeconds : std::min(fEmbreeSeconds, fSeconds);
                fRobustSeconds = iRepeat == 0 ? fRobust : std::min(fRobustSeconds, fRobust);
            }

            const double fOurs = cRays.Count() / fOursSeconds * 1e-6;
            const double fEmbree = cRays.Count() / fEmbreeSeconds * 1e-6;
            const double fRobust = cRays.Count() / fRobustSeconds * 1e-6;
            std::printf("%s %s triangles=%llu rays=%llu ours=%.3f embree=%.3f ratio=%.3f peak_mb=%llu",
                        cFlavour.IsGpu() ? "bench-gpu" : "bench", ModeName(eMode),
                        static_cast<unsigned long long>(cMesh.TriangleCount()),
                        static_cast<unsigned long long>(cRays.Count()), fOurs, fEmbree, fOurs / fEmbree,
                        static_cast<unsigned long long>(nPeakMb));
            // The like-for-like yardstick: the library's CPU flavour is watertight too.
            std::printf(" embree_robust=%.3f ratio_robust=%.3f", fRobust, fOurs / fRobust);
            if (pCuda != nullptr && fCopySeconds > 0.0)
            {
                const double fCopyBound = cRays.Count() / fCopySeconds * 1e-6;
                std::printf(" copy_s=%.4f copy_bound=%.3f fraction=%.3f", fCopySeconds, fCopyBound,
                            fOurs / fCopyBound);
            }
            std::printf("\n");
            const std::uint64_t nDiffer = Disagreements(eMode, cOurs, cEmbree);
            if (nDiffer * 1000 > cRays.Count())
                std::printf("# note: %s answers differ from Embree's on %llu of %llu rays\n", ModeName(eMode),
                            static_cast<unsigned long long>(nDiffer),
                            static_cast<unsigned long long>(cRays.Count()));
            std::fflush(stdout);
        }
    }
}
} // namespace

int main(int argc, char** argv)
{
    BenchOptions cOptions;
    CLI::App cApp("Rays per second of every mode of the library against Embree called directly.",
                  "raycast-bench");
    cApp.add_flag("--quick", cOptions.bQuick, "only the 1M-triangle mesh");
    cApp.add_option("--threads", cOptions.nThreads,
                    "threads of the CPU flavour and of Embree (default: all cores)")
        ->check(CLI::NonNegativeNumber);
    cApp.add_option("--rays", cOptions.nRays, "rays per case")
        ->check(CLI::Range(std::uint64_t(1), std::uint64_t(1) << 32))
        ->capture_default_str();
    cApp.add_option("--triangles", cOptions.aTriangles, "mesh sizes (default: 10000 100000 1000000)");
    cApp.add_option("--repeats", cOptions.nRepeats, "runs per case and side; the best one counts")
        ->check(CLI::Range(1, 100))
        ->capture_default_str();
    bool bSceneOnly = false;
    bool bStatelessOnly = false;
    cApp.add_flag("--scene-only", bSceneOnly, "only the kept-scene cases");
    cApp.add_flag("--stateless-only", bStatelessOnly, "only the stateless cases");
    cApp.add_option("--mode", cOptions.aModes, "modes to run (default: all)")
        ->check(CLI::IsMember({"nearest", "nearest-index", "both", "both-index", "count", "all"}));
    try
    {
        cApp.parse(argc, argv);
    }
    catch (const CLI::ParseError& cError)
    {
        if (cError.get_exit_code() == 0)
            return cApp.exit(cError);
        std::fprintf(stderr, "raycast-bench: error: %s\n", cError.what());
        return cError.get_exit_code();
    }
    if (cOptions.bQuick)
        cOptions.aTriangles = {1000000};
    cOptions.bStateless = !bSceneOnly;
    cOptions.bScene = !bStatelessOnly;
    if (cOptions.nThreads == 0)
        cOptions.nThreads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));

    try
    {
        Flavour cCpu = Flavour::Load(DeviceChoice::Cpu, 0);
        if (!cCpu.SetCpuThreads(cOptions.nThreads))
            std::printf("# note: cannot set the CPU flavour's thread count\n");
        std::printf("# raycast-bench: %s, %d threads for both, CPU flavour %s\n", CpuModel().c_str(),
                    cOptions.nThreads, cCpu.LibraryPath().c_str());
        std::fflush(stdout);
        RunCases(cOptions, cCpu, nullptr);

        std::string sWhyNot;
        CudaDriver cCuda = CudaDriver::Load(sWhyNot);
        std::optional<Flavour> cGpu;
        try
        {
            cGpu.emplace(Flavour::Load(DeviceChoice::Gpu, 0));
        }
        catch (const FlavourError& cError)
        {
            sWhyNot = cError.what();
        }
        if (!cGpu || !cCuda)
        {
            std::printf("# no GPU run: %s\n", sWhyNot.c_str());
            return 0;
        }
        std::printf("# GPU flavour %s on %s\n", cGpu->LibraryPath().c_str(), cGpu->Device().c_str());
        RunCases(cOptions, *cGpu, &cCuda);
    }
    catch (const ToolError& cError)
    {
        std::fprintf(stderr, "raycast-bench: error: %s\n", cError.what());
        return 1;
    }
    catch (const std::exception& cError)
    {
        std::fprintf(stderr, "raycast-bench: error: %s\n", cError.what());
        return 1;
    }
    return 0;
}
