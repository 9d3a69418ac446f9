// gpu-differential: the GPU flavour against the CPU flavour on a random soup, the demo's scene and a closed
// sphere with rays aimed at its edges and corners; every mode, once with measured memory and once with a
// tight budget that forces several triangle chunks. The tight call repeats the scene's rays up to 12 million,
// which a batch next to the smallest budget cannot hold (2^20 + 256 MiB / bytes per ray), so that it runs in
// two batches; the CPU flavour traces each distinct ray once.
// Indices and counts must be equal and distances within 1e-5 relative. Every ray that differs is traced again
// by the double-precision reference and counted by class: what differs, and who is off (the ray is within
// rounding reach of an edge or a tie; the GPU; the CPU; both). Exit status 1 when a call fails or the GPU is
// off on a ray the reference can judge.
//
// Usage: gpu-differential [--rays N] [--tight-rays N] [--triangles N] [--scene random|demo|edges]...
//                         [--self-check]
// (--self-check runs the CPU flavour on both sides, to try the check itself where no GPU is.)
#include "BudgetSearch.h"
#include "DemoScene.h"
#include "Flavour.h"
#include "ReferenceTracer.h"
#include "TestScenes.h"
#include "ToolError.h"
#include "TraceMode.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <sstream>
#include <thread>

using TestReference::RayReference;
using TestReference::ReferenceHit;

namespace
{
constexpr float c_fMaxDistance = 1e30f;
constexpr float c_fNoFarthestHit = -3.40282347e+38f;
constexpr std::uint64_t c_nMostJudged = 50000; // rays per case the reference traces again

struct Options
{
    std::uint64_t nRays = 1000000;       // distinct rays per scene
    std::uint64_t nTightRays = 12000000; // two batches in every mode next to the smallest budget
    std::uint64_t nTriangles = 300000;
    std::vector<std::string> aScenes;
    bool bSelfCheck = false;
};

struct Scene
{
    std::string sName;
    Mesh cMesh;
    Rays cRays;
};

Rays FromRaySet(const TestReference::RaySet& cSet)
{
    Rays cRays;
    cRays.aOrigins = cSet.aOrigins;
    cRays.aDirections = cSet.aDirections;
    return cRays;
}

Scene RandomScene(const Options& o)
{
    TestReference::RaySet cRays = TestReference::MakeRaysOutside(o.nRays / 2, 1, 3.0f, 1.0f);
    cRays.Append(TestReference::MakeRaysInside(o.nRays - o.nRays / 2, 2, 1.0f));
    return {"random", Mesh{TestReference::MakeRandomSoup(o.nTriangles, 3, 1.0f, 0.02f).aVertices},
            FromRaySet(cRays)};
}

Scene DemoScene(const Options& o)
{
    const auto nWidth = static_cast<std::uint32_t>(std::ceil(std::sqrt(o.nRays * 16.0 / 9.0)));
    const auto nHeight = static_cast<std::uint32_t>((o.nRays + nWidth - 1) / nWidth);
    return {"demo", BuildDemoScene(o.nTriangles), GenerateCameraRays(DemoCamera({nWidth, nHeight}))};
}

// A closed icosphere; one ray in 1024 aims exactly at a corner or an edge's midpoint of a random triangle.
Scene EdgeScene(const Options& o)
{
    unsigned nSubdivisions = 1;
    while (20ull << (2 * (nSubdivisions + 1)) <= o.nTriangles)
        ++nSubdivisions;
    Scene cScene{"edges", Mesh{TestReference::MakeIcosphere(nSubdivisions, 1.0f).aVertices},
                 FromRaySet(TestReference::MakeRaysOutside(o.nRays, 4, 3.0f, 1.1f))};
    std::mt19937_64 cRandom(5);
    const std::vector<float>& v = cScene.cMesh.aTriangles;
    for (std::uint64_t i = 0; i < cScene.cRays.Count(); i += 1024)
    {
        const std::uint64_t t = cRandom() % cScene.cMesh.TriangleCount();
        const int a = static_cast<int>(cRandom() % 3), b = (a + static_cast<int>(cRandom() % 3)) % 3;
        const float* o3 = &cScene.cRays.aOrigins[3 * i];
        for (int k = 0; k < 3; ++k)
            cScene.cRays.aDirections[3 * i + k] =
                0.5f * (v[9 * t + 3 * a + k] + v[9 * t + 3 * b + k]) - o3[k];
    }
    return cScene;
}

// One call; the device set-up's exceptions become a failure with their text.
RayTracingErrorType CallFlavour(RayTracingFunction pRayTracing, const Mesh& cMesh, const Rays& cRays,
                                TraceMode eMode, std::uint64_t nFreeGPUMemory, TraceResults& cResults,
                                std::string& sError)
{
    cResults.Prepare(eMode, cRays.Count());
    RayTracingResults cCall;
    cCall.bCollectAllHits = eMode == TraceMode::All;
    const auto DataOf = [](auto& aValues) { return aValues.empty() ? nullptr : aValues.data(); };
    cCall.pCountHits = DataOf(cResults.aCounts);
    cCall.pFirstHit = DataOf(cResults.aNearestDistance);
    cCall.pFirstIndex = DataOf(cResults.aNearestIndex);
    cCall.pLastHit = DataOf(cResults.aFarthestDistance);
    cCall.pLastIndex = DataOf(cResults.aFarthestIndex);
    std::string sLog;
    RayTracingErrorType eResult = Failure;
    try
    {
        eResult = pRayTracing(cCall, cMesh.TriangleCount(), cMesh.aTriangles.data(), cRays.Count(),
                              cRays.aOrigins.data(), cRays.aDirections.data(), nullptr, 0, sLog, sError, true,
                              c_fMaxDistance, nFreeGPUMemory);
    }
    catch (const std::string& sThrown)
    {
        sError = "RayTracing threw: " + sThrown;
    }
    catch (const std::exception& cException)
    {
        sError = std::string("RayTracing threw: ") + cException.what();
    }
    if (eResult != Success)
        sError = "code " + std::to_string(eResult) + "\nsError: " + sError + "\nsLog: " + sLog;
    cResults.aAllHits = std::move(cCall.cAllHits);
    return eResult;
}

std::uint64_t SmallestAcceptedFor(RayTracingFunction pRayTracing, TraceMode eMode)
{
    Mesh cTriangle;
    cTriangle.AddTriangle({0, 0, 1}, {1, 0, 1}, {0, 1, 1});
    Rays cRay;
    cRay.Add({0.2f, 0.2f, 0}, {0, 0, 1});
    TraceResults cResults;
    return SmallestAcceptedFreeMemory(
        [&](std::uint64_t nFreeGPUMemory, std::string& sError)
        { return CallFlavour(pRayTracing, cTriangle, cRay, eMode, nFreeGPUMemory, cResults, sError); });
}

bool DistancesDiffer(float a, float b)
{
    return a != b && !(std::fabs(a - b) <= 1e-5f * std::max(std::fabs(a), std::fabs(b)));
}

std::string EndDifference(const std::string& sEnd, float fGpu, float fCpu,
                          const std::vector<std::int32_t>& aGpu, std::uint64_t iGpu,
                          const std::vector<std::int32_t>& aCpu, std::uint64_t iCpu, float fNoHit)
{
    if ((fGpu == fNoHit) != (fCpu == fNoHit))
        return sEnd + " hit or miss";
    if (!aGpu.empty() && aGpu[iGpu] != aCpu[iCpu])
        return sEnd + " triangle";
    return DistancesDiffer(fGpu, fCpu) ? sEnd + " distance" : "";
}

// What differs between GPU ray iGpu and CPU ray iCpu (the same ray); empty when they agree.
std::string Difference(TraceMode eMode, const TraceResults& g, std::uint64_t iGpu, const TraceResults& c,
                       std::uint64_t iCpu)
{
    if (eMode == TraceMode::Count)
        return g.aCounts[iGpu] != c.aCounts[iCpu] ? "count" : "";
    if (eMode == TraceMode::All)
    {
        const std::uint64_t n = g.aCounts[iGpu + 1] - g.aCounts[iGpu];
        if (n != c.aCounts[iCpu + 1] - c.aCounts[iCpu])
            return "count";
        for (std::uint64_t k = 0; k < n; ++k)
            if (DistancesDiffer(g.aAllHits[g.aCounts[iGpu] + k], c.aAllHits[c.aCounts[iCpu] + k]))
                return "hit distance";
        return "";
    }
    std::string s = EndDifference("nearest", g.aNearestDistance[iGpu], c.aNearestDistance[iCpu],
                                  g.aNearestIndex, iGpu, c.aNearestIndex, iCpu, c_fMaxDistance);
    if (s.empty() && HasFarthest(eMode))
        s = EndDifference("farthest", g.aFarthestDistance[iGpu], c.aFarthestDistance[iCpu], g.aFarthestIndex,
                          iGpu, c.aFarthestIndex, iCpu, c_fNoFarthestHit);
    return s;
}

// The reference's tolerance, as the CPU flavour's tests apply it.
bool Near(float f, const ReferenceHit& h)
{
    return std::abs(static_cast<double>(f) - h.fDistance) <= h.fTolerance + 1e-6 * std::abs(h.fDistance);
}

bool EndMatches(float f, const std::vector<std::int32_t>& aIndex, std::uint64_t i, const ReferenceHit* pHit,
                float fNoHit)
{
    if (pHit == nullptr)
        return f == fNoHit && (aIndex.empty() || aIndex[i] == -1);
    return Near(f, *pHit) && (aIndex.empty() || aIndex[i] == pHit->iTriangle);
}

bool MatchesReference(TraceMode eMode, const TraceResults& a, std::uint64_t i, const RayReference& r)
{
    if (eMode == TraceMode::Count)
        return a.aCounts[i] == r.CountHits();
    if (eMode == TraceMode::All)
    {
        const std::vector<ReferenceHit> aHits = r.CountedHits();
        if (a.aCounts[i + 1] - a.aCounts[i] != aHits.size())
            return false;
        for (std::size_t k = 0; k < aHits.size(); ++k)
            if (!Near(a.aAllHits[a.aCounts[i] + k], aHits[k]))
                return false;
        return true;
    }
    return EndMatches(a.aNearestDistance[i], a.aNearestIndex, i, r.Nearest(), c_fMaxDistance) &&
           (!HasFarthest(eMode) ||
            EndMatches(a.aFarthestDistance[i], a.aFarthestIndex, i, r.Farthest(), c_fNoFarthestHit));
}

std::string AnswerText(TraceMode eMode, const TraceResults& a, std::uint64_t i)
{
    std::ostringstream s;
    s.precision(9);
    if (eMode == TraceMode::Count)
        s << a.aCounts[i] << " hits";
    else if (eMode == TraceMode::All)
    {
        s << a.aCounts[i + 1] - a.aCounts[i] << " hits:";
        for (std::uint64_t k = a.aCounts[i]; k < a.aCounts[i + 1] && k < a.aCounts[i] + 8; ++k)
            s << " " << a.aAllHits[k];
    }
    else
    {
        s << "nearest " << a.aNearestDistance[i];
        if (!a.aNearestIndex.empty())
            s << " #" << a.aNearestIndex[i];
        if (HasFarthest(eMode))
            s << ", farthest " << a.aFarthestDistance[i];
        if (!a.aFarthestIndex.empty())
            s << " #" << a.aFarthestIndex[i];
    }
    return s.str();
}

std::string ReferenceText(const RayReference& r)
{
    std::ostringstream s;
    s.precision(9);
    s << r.aHits.size() << " hits in [0, tmax]" << (r.bAmbiguous ? " (ambiguous)" : "") << ":";
    for (std::size_t k = 0; k < r.aHits.size() && k < 8; ++k)
        s << " " << r.aHits[k].fDistance << " #" << r.aHits[k].iTriangle;
    return s.str();
}

// The reference's word on one distinct ray that differs somewhere.
struct Judgement
{
    std::uint64_t iGpuRay = 0; // the first GPU ray (of the repeated set) where it differs
    std::string sVerdict = "not judged (too many)";
    std::string sExample;
};

// Traces the differing rays again in double precision, on every core, at most c_nMostJudged of them.
void Judge(TraceMode eMode, const Scene& cScene, const TestReference::ReferenceTracer& cReference,
           const TraceResults& g, const TraceResults& c, std::map<std::uint64_t, Judgement>& aJudgements)
{
    std::vector<std::pair<std::uint64_t, Judgement*>> aRays;
    for (auto& [iRay, cJudgement] : aJudgements)
        if (aRays.size() < c_nMostJudged)
            aRays.emplace_back(iRay, &cJudgement);
    const auto JudgeRange = [&](std::size_t iBegin, std::size_t iEnd)
    {
        for (std::size_t k = iBegin; k < iEnd; ++k)
        {
            const std::uint64_t iRay = aRays[k].first;
            Judgement& j = *aRays[k].second;
            const float* o = &cScene.cRays.aOrigins[3 * iRay];
            const float* v = &cScene.cRays.aDirections[3 * iRay];
            const RayReference r = cReference.Trace(o, v, c_fMaxDistance);
            const bool bGpu = MatchesReference(eMode, g, j.iGpuRay, r),
                       bCpu = MatchesReference(eMode, c, iRay, r);
            j.sVerdict = r.bAmbiguous   ? "within rounding reach of an edge or a tie"
                         : bGpu && bCpu ? "both within the reference's tolerance"
                         : bGpu         ? "CPU off"
                         : bCpu         ? "GPU off"
                                        : "both off";
            std::ostringstream s;
            s.precision(9);
            s << "ray " << j.iGpuRay << " from (" << o[0] << ", " << o[1] << ", " << o[2] << ") along ("
              << v[0] << ", " << v[1] << ", " << v[2] << "): GPU " << AnswerText(eMode, g, j.iGpuRay)
              << "; CPU " << AnswerText(eMode, c, iRay) << "; reference " << ReferenceText(r);
            j.sExample = s.str();
        }
    };
    const std::size_t nThreads = std::max(1u, std::thread::hardware_concurrency());
    const std::size_t nPerThread = (aRays.size() + nThreads - 1) / nThreads;
    std::vector<std::thread> aThreads;
    for (std::size_t iBegin = 0; iBegin < aRays.size(); iBegin += nPerThread)
        aThreads.emplace_back(JudgeRange, iBegin, std::min(aRays.size(), iBegin + nPerThread));
    for (std::thread& cThread : aThreads)
        cThread.join();
}

// Prints one case; true when the GPU is nowhere off. GPU ray i is the scene's ray i % (its ray count).
bool Compare(TraceMode eMode, const Scene& cScene, const TestReference::ReferenceTracer& cReference,
             const std::string& sBudget, std::uint64_t nGpuRays, const TraceResults& g, const TraceResults& c)
{
    const std::uint64_t nRays = cScene.cRays.Count();
    std::vector<std::pair<std::uint64_t, std::string>> aDiffering;
    std::map<std::uint64_t, Judgement> aJudgements;
    for (std::uint64_t i = 0; i < nGpuRays; ++i)
    {
        std::string sWhat = Difference(eMode, g, i, c, i % nRays);
        if (sWhat.empty())
            continue;
        aDiffering.emplace_back(i, std::move(sWhat));
        aJudgements.emplace(i % nRays, Judgement{i});
    }
    Judge(eMode, cScene, cReference, g, c, aJudgements);
    std::map<std::string, std::pair<std::uint64_t, std::string>> aClasses;
    std::uint64_t nGpuOff = 0;
    for (const auto& [iRay, sWhat] : aDiffering)
    {
        const Judgement& j = aJudgements[iRay % nRays];
        auto& cClass = aClasses[sWhat + ", " + j.sVerdict];
        if (cClass.first++ == 0)
            cClass.second = j.sExample;
        nGpuOff +=
            j.sVerdict == "GPU off" || j.sVerdict == "both off" || j.sVerdict.rfind("not judged", 0) == 0;
    }
    std::printf("%s %s %s %s: rays=%llu differ=%llu gpu_off=%llu\n", nGpuOff ? "FAIL" : "ok",
                cScene.sName.c_str(), ModeName(eMode), sBudget.c_str(),
                static_cast<unsigned long long>(nGpuRays), static_cast<unsigned long long>(aDiffering.size()),
                static_cast<unsigned long long>(nGpuOff));
    for (const auto& [sClass, cClass] : aClasses)
        std::printf("    %llu x %s; e.g. %s\n", static_cast<unsigned long long>(cClass.first), sClass.c_str(),
                    cClass.second.c_str());
    std::fflush(stdout);
    return nGpuOff == 0;
}

double SecondsSince(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Runs one side; prints the failure and returns false when the call fails.
bool Run(const Flavour& cFlavour, const Scene& cScene, const Rays& cRays, TraceMode eMode,
         std::uint64_t nFreeGPUMemory, TraceResults& cResults)
{
    const auto tStart = std::chrono::steady_clock::now();
    std::string sError;
    const RayTracingErrorType eResult =
        CallFlavour(cFlavour.RayTracing(), cScene.cMesh, cRays, eMode, nFreeGPUMemory, cResults, sError);
    std::printf("# %s flavour, %s, %s, %llu rays, nFreeGPUMemory %llu: %.3f s\n", cFlavour.Name().c_str(),
                cScene.sName.c_str(), ModeName(eMode), static_cast<unsigned long long>(cRays.Count()),
                static_cast<unsigned long long>(nFreeGPUMemory), SecondsSince(tStart));
    if (eResult != Success)
        std::printf("FAIL %s %s: %s flavour call failed: %s\n", cScene.sName.c_str(), ModeName(eMode),
                    cFlavour.Name().c_str(), sError.c_str());
    return eResult == Success;
}

Rays Repeat(const Rays& cPattern, std::uint64_t nRays)
{
    Rays cRays;
    cRays.aOrigins.reserve(3 * nRays);
    cRays.aDirections.reserve(3 * nRays);
    for (std::uint64_t i = 0; i < nRays; i += cPattern.Count())
    {
        const std::uint64_t n = 3 * std::min(cPattern.Count(), nRays - i);
        cRays.aOrigins.insert(cRays.aOrigins.end(), cPattern.aOrigins.begin(), cPattern.aOrigins.begin() + n);
        cRays.aDirections.insert(cRays.aDirections.end(), cPattern.aDirections.begin(),
                                 cPattern.aDirections.begin() + n);
    }
    return cRays;
}

// aSmallest: the smallest accepted budget per mode, found once (it depends on the mode's arrays, not on
// the scene).
bool CheckScene(const Scene& cScene, const Options& o, const Flavour& cGpu, const Flavour& cCpu,
                std::map<TraceMode, std::uint64_t>& aSmallest)
{
    std::printf("# scene %s: %llu triangles, %llu rays\n", cScene.sName.c_str(),
                static_cast<unsigned long long>(cScene.cMesh.TriangleCount()),
                static_cast<unsigned long long>(cScene.cRays.Count()));
    const TestReference::ReferenceTracer cReference(cScene.cMesh.aTriangles.data(),
                                                    cScene.cMesh.TriangleCount());
    const Rays cTightRays = Repeat(cScene.cRays, std::max(o.nTightRays, cScene.cRays.Count()));
    bool bAllGood = true;
    for (TraceMode eMode : AllModes())
    {
        TraceResults cCpuAnswer, cGpuAnswer;
        if (!Run(cCpu, cScene, cScene.cRays, eMode, 0, cCpuAnswer))
        {
            bAllGood = false;
            continue;
        }
        if (Run(cGpu, cScene, cScene.cRays, eMode, 0, cGpuAnswer))
            bAllGood &= Compare(eMode, cScene, cReference, "measured-memory", cScene.cRays.Count(),
                                cGpuAnswer, cCpuAnswer);
        else
            bAllGood = false;
        std::uint64_t nFree = 0;
        try
        {
            if (aSmallest.count(eMode) == 0)
                aSmallest[eMode] = SmallestAcceptedFor(cGpu.RayTracing(), eMode);
            nFree = SeveralChunksFreeMemory(aSmallest[eMode], cScene.cMesh.TriangleCount());
        }
        catch (const std::runtime_error& cError)
        {
            std::printf("FAIL %s %s: finding the smallest budget: %s\n", cScene.sName.c_str(),
                        ModeName(eMode), cError.what());
            bAllGood = false;
            continue;
        }
        if (Run(cGpu, cScene, cTightRays, eMode, nFree, cGpuAnswer))
            bAllGood &= Compare(eMode, cScene, cReference, "tight-budget", cTightRays.Count(), cGpuAnswer,
                                cCpuAnswer);
        else
            bAllGood = false;
    }
    return bAllGood;
}

Options ParseOptions(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; ++i)
    {
        const std::string sOption = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (sOption == "--self-check")
            o.bSelfCheck = true;
        else if (sOption == "--rays" && bHasValue)
            o.nRays = std::stoull(argv[++i]);
        else if (sOption == "--tight-rays" && bHasValue)
            o.nTightRays = std::stoull(argv[++i]);
        else if (sOption == "--triangles" && bHasValue)
            o.nTriangles = std::stoull(argv[++i]);
        else if (sOption == "--scene" && bHasValue)
            o.aScenes.push_back(argv[++i]);
        else
            throw ToolError("usage: gpu-differential [--rays N] [--tight-rays N] [--triangles N] "
                            "[--scene random|demo|edges]... [--self-check]");
    }
    if (o.nRays == 0 || o.nTriangles < 100)
        throw ToolError("--rays must be at least 1 and --triangles at least 100");
    return o;
}
} // namespace

int main(int argc, char** argv)
{
    try
    {
        const Options o = ParseOptions(argc, argv);
        const Flavour cCpu = Flavour::Load(DeviceChoice::Cpu, 0);
        const Flavour cGpu = Flavour::Load(o.bSelfCheck ? DeviceChoice::Cpu : DeviceChoice::Gpu, 0);
        std::printf("# GPU side: %s flavour %s on %s\n# CPU side: %s flavour %s on %s\n", cGpu.Name().c_str(),
                    cGpu.LibraryPath().c_str(), cGpu.Device().c_str(), cCpu.Name().c_str(),
                    cCpu.LibraryPath().c_str(), cCpu.Device().c_str());
        bool bAllGood = true;
        std::map<TraceMode, std::uint64_t> aSmallest;
        for (const auto& [sName, fnScene] :
             {std::make_pair("random", RandomScene), std::make_pair("demo", DemoScene),
              std::make_pair("edges", EdgeScene)})
            if (o.aScenes.empty() || std::find(o.aScenes.begin(), o.aScenes.end(), sName) != o.aScenes.end())
                bAllGood &= CheckScene(fnScene(o), o, cGpu, cCpu, aSmallest);
        std::printf("%s\n", bAllGood ? "differential: GPU and CPU flavours agree"
                                     : "differential: FAILED (see the FAIL lines)");
        return bAllGood ? 0 : 1;
    }
    catch (const std::exception& cError)
    {
        std::fprintf(stderr, "gpu-differential: error: %s\n", cError.what());
        return 2;
    }
}
