#include "EmbreeBaseline.h"

#include "ToolError.h"

#include <embree3/rtcore.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <numeric>
#include <utility>

namespace
{
constexpr std::size_t c_nRaysPerTask = 4096;

struct DeviceOwner
{
    RTCDevice hDevice;
    ~DeviceOwner() { rtcReleaseDevice(hDevice); }
};
struct SceneOwner
{
    RTCScene hScene;
    ~SceneOwner() { rtcReleaseScene(hScene); }
};

// The per-ray state the filter reaches through the intersection context.
struct HitContext
{
    RTCIntersectContext cBase;
    float fNearest;
    float fFarthest;
    int iNearest;
    int iFarthest;
    std::uint64_t nHits;
    std::vector<float>* pHits;
};

void RecordHit(const RTCFilterFunctionNArguments* pArguments)
{
    if (pArguments->valid[0] == 0)
        return;
    HitContext& cContext = *reinterpret_cast<HitContext*>(pArguments->context);
    const float fT = RTCRayN_tfar(pArguments->ray, pArguments->N, 0);
    const int iPrimitive = static_cast<int>(RTCHitN_primID(pArguments->hit, pArguments->N, 0));
    if (fT < cContext.fNearest)
    {
        cContext.fNearest = fT;
        cContext.iNearest = iPrimitive;
    }
    if (fT > cContext.fFarthest)
    {
        cContext.fFarthest = fT;
        cContext.iFarthest = iPrimitive;
    }
    ++cContext.nHits;
    if (cContext.pHits != nullptr)
        cContext.pHits->push_back(fT);
    pArguments->valid[0] = 0; // reject, so that every hit along the ray is seen
}

RTCRayHit MakeRay(const Rays& cRays, std::size_t i, float fMaxDistance)
{
    RTCRayHit cRay = {};
    cRay.ray.org_x = cRays.aOrigins[3 * i];
    cRay.ray.org_y = cRays.aOrigins[3 * i + 1];
    cRay.ray.org_z = cRays.aOrigins[3 * i + 2];
    cRay.ray.dir_x = cRays.aDirections[3 * i];
    cRay.ray.dir_y = cRays.aDirections[3 * i + 1];
    cRay.ray.dir_z = cRays.aDirections[3 * i + 2];
    cRay.ray.tnear = 0.0f;
    cRay.ray.tfar = cRays.aDistances.empty() ? fMaxDistance : std::min(cRays.aDistances[i], fMaxDistance);
    cRay.ray.mask = 0xFFFFFFFFu;
    cRay.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    cRay.hit.primID = RTC_INVALID_GEOMETRY_ID;
    return cRay;
}

RTCScene BuildScene(RTCDevice hDevice, const Mesh& cMesh, bool bFilter, bool bRobust)
{
    RTCScene hScene = rtcNewScene(hDevice);
    if (bRobust)
        rtcSetSceneFlags(hScene, RTC_SCENE_FLAG_ROBUST);
    RTCGeometry hGeometry = rtcNewGeometry(hDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
    const std::size_t nTriangles = cMesh.TriangleCount();
    // New buffers rather than shared ones: Embree wants the last vertex padded for 16-byte loads.
    auto* pVertices = static_cast<float*>(rtcSetNewGeometryBuffer(
        hGeometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), 3 * nTriangles));
    auto* pIndices = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        hGeometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), nTriangles));
    if (pVertices == nullptr || pIndices == nullptr)
    {
        rtcReleaseGeometry(hGeometry);
        rtcReleaseScene(hScene);
        throw ToolError("Embree cannot allocate the geometry buffers");
    }
    std::memcpy(pVertices, cMesh.aTriangles.data(), cMesh.aTriangles.size() * sizeof(float));
    std::iota(pIndices, pIndices + 3 * nTriangles, 0u);
    if (bFilter)
        rtcSetGeometryIntersectFilterFunction(hGeometry, RecordHit);
    rtcCommitGeometry(hGeometry);
    rtcAttachGeometry(hScene, hGeometry);
    rtcReleaseGeometry(hGeometry);
    rtcCommitScene(hScene);
    return hScene;
}
} // namespace

EmbreeSeconds TraceWithEmbree(const Mesh& cMesh, const Rays& cRays, TraceMode eMode, float fMaxDistance,
                              int nThreads, bool bRobust, TraceResults& cResults, int nTraces)
{
    const std::size_t nRays = cRays.Count();
    cResults.Prepare(eMode, nRays);
    tbb::global_control cThreadLimit(tbb::global_control::max_allowed_parallelism,
                                     static_cast<std::size_t>(nThreads));
    tbb::task_arena cArena(nThreads);
    const std::string sConfig = "threads=" + std::to_string(nThreads);
    DeviceOwner cDevice{rtcNewDevice(sConfig.c_str())};
    if (cDevice.hDevice == nullptr)
        throw ToolError("Embree cannot create a device");

    const bool bClosestOnly = eMode == TraceMode::Nearest || eMode == TraceMode::NearestIndex;
    const auto Since = [](auto cStart)
    { return std::chrono::duration<double>(std::chrono::steady_clock::now() - cStart).count(); };
    const std::size_t nTasks = (nRays + c_nRaysPerTask - 1) / c_nRaysPerTask;
    std::vector<std::vector<float>> aTaskHits;
    EmbreeSeconds cSeconds;
    cArena.execute(
        [&]
        {
            const auto cBuildStart = std::chrono::steady_clock::now();
            SceneOwner cScene{BuildScene(cDevice.hDevice, cMesh, !bClosestOnly, bRobust)};
            cSeconds.fBuild = Since(cBuildStart);
            for (int iTrace = 0; iTrace < nTraces; ++iTrace)
            {
                const auto cTraceStart = std::chrono::steady_clock::now();
                aTaskHits.assign(eMode == TraceMode::All ? nTasks : 0, {});
                // Tasks of fixed ray ranges, so that all-hits mode can keep each task's hits in ray order.
                tbb::parallel_for(
                    std::size_t(0), nTasks,
                    [&](std::size_t iTask)
                    {
                        std::vector<float> aRayHits;
                        std::vector<float>* pTaskHits = aTaskHits.empty() ? nullptr : &aTaskHits[iTask];
                        const std::size_t iEnd = std::min(nRays, (iTask + 1) * c_nRaysPerTask);
                        for (std::size_t i = iTask * c_nRaysPerTask; i < iEnd; ++i)
                        {
                            RTCRayHit cRay = MakeRay(cRays, i, fMaxDistance);
                            HitContext cContext{
                                {}, fMaxDistance, std::numeric_limits<float>::lowest(), -1, -1, 0, nullptr};
                            rtcInitIntersectContext(&cContext.cBase);
                            if (pTaskHits != nullptr)
                            {
                                aRayHits.clear();
                                cContext.pHits = &aRayHits;
                            }
                            if (!(cRay.ray.tfar > 0.0f)) // not traced, like the library
                                cRay.ray.tfar = -1.0f;
                            rtcIntersect1(cScene.hScene, &cContext.cBase, &cRay);
                            if (bClosestOnly)
                            {
                                const bool bHit = cRay.hit.geomID != RTC_INVALID_GEOMETRY_ID;
                                cResults.aNearestDistance[i] = bHit ? cRay.ray.tfar : fMaxDistance;
                                if (!cResults.aNearestIndex.empty())
                                    cResults.aNearestIndex[i] = bHit ? static_cast<int>(cRay.hit.primID) : -1;
                            }
                            else if (eMode == TraceMode::Count)
                                cResults.aCounts[i] = cContext.nHits;
                            else if (eMode == TraceMode::All)
                            {
                                std::sort(aRayHits.begin(), aRayHits.end());
                                cResults.aCounts[i] = aRayHits.size();
                                pTaskHits->insert(pTaskHits->end(), aRayHits.begin(), aRayHits.end());
                            }
                            else
                            {
                                cResults.aNearestDistance[i] = cContext.fNearest;
                                cResults.aFarthestDistance[i] = cContext.fFarthest;
                                if (!cResults.aNearestIndex.empty())
                                {
                                    cResults.aNearestIndex[i] = cContext.iNearest;
                                    cResults.aFarthestIndex[i] = cContext.iFarthest;
                                }
                            }
                        }
                    });
                cSeconds.fTrace =
                    iTrace == 0 ? Since(cTraceStart) : std::min(cSeconds.fTrace, Since(cTraceStart));
            }
        });
    if (eMode == TraceMode::All)
    {
        // Counts to offsets, then the tasks' hits in ray order.
        std::uint64_t nTotal = 0;
        for (std::size_t i = 0; i < nRays; ++i)
            nTotal += std::exchange(cResults.aCounts[i], nTotal);
        cResults.aCounts[nRays] = nTotal;
        cResults.aAllHits.reserve(nTotal);
        for (const std::vector<float>& aHits : aTaskHits)
            cResults.aAllHits.insert(cResults.aAllHits.end(), aHits.begin(), aHits.end());
    }
    return cSeconds;
}
