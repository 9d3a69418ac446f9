#include "Scene.h"

#include <cstring>
#include <new>

namespace OptixStandIn
{
namespace
{
// Embree reports errors through the device; the first one of a build is what the build returns.
struct ErrorSink
{
    std::mutex mutex;
    std::string sFirst;
};

void RecordEmbreeError(void* pUser, RTCError eCode, const char* sMessage)
{
    auto* pSink = static_cast<ErrorSink*>(pUser);
    std::lock_guard<std::mutex> lock(pSink->mutex);
    if (pSink->sFirst.empty())
        pSink->sFirst =
            "Embree error " + std::to_string(static_cast<int>(eCode)) + ": " + (sMessage ? sMessage : "");
}

// Copies the triangles of one input into an Embree geometry (device memory may be released right after the
// build); null when the device refused it.
RTCGeometry MakeTriangleGeometry(RTCDevice hDevice, const TriangleInput& cInput)
{
    const unsigned int nTriangles = cInput.nVertices / 3;
    RTCGeometry hGeometry = rtcNewGeometry(hDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
    if (!hGeometry)
        return nullptr;
    auto* pVertices = static_cast<float*>(rtcSetNewGeometryBuffer(hGeometry, RTC_BUFFER_TYPE_VERTEX, 0,
                                                                  RTC_FORMAT_FLOAT3, 12, cInput.nVertices));
    auto* pIndices = static_cast<unsigned int*>(
        rtcSetNewGeometryBuffer(hGeometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, nTriangles));
    if (!pVertices || !pIndices)
    {
        rtcReleaseGeometry(hGeometry);
        return nullptr;
    }
    const auto* pSource = reinterpret_cast<const unsigned char*>(cInput.pVertices);
    if (cInput.nStrideInBytes == 12)
        std::memcpy(pVertices, pSource, static_cast<size_t>(cInput.nVertices) * 12);
    else
        for (size_t i = 0; i < cInput.nVertices; ++i)
            std::memcpy(pVertices + 3 * i, pSource + i * cInput.nStrideInBytes, 12);
    for (unsigned int i = 0; i < 3 * nTriangles; ++i)
        pIndices[i] = i;
    rtcCommitGeometry(hGeometry);
    return hGeometry;
}
} // namespace

Scene::Scene(RTCScene hScene, std::vector<GeometryInfo> aGeometries)
    : m_hScene(hScene), m_aGeometries(std::move(aGeometries)), m_bAnyHitPossible(false)
{
    for (const GeometryInfo& cGeometry : m_aGeometries)
        m_bAnyHitPossible |= (cGeometry.uFlags & OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT) == 0;
}

Scene::~Scene()
{
    rtcReleaseScene(m_hScene);
}

SceneStore::SceneStore() : m_hDevice(rtcNewDevice(nullptr)) {}

SceneStore::~SceneStore()
{
    m_aScenes.clear();
    if (m_hDevice)
        rtcReleaseDevice(m_hDevice);
}

std::string SceneStore::Build(OptixTraversableHandle hTraversable, const std::vector<TriangleInput>& aInputs)
{
    if (!m_hDevice)
        return "Embree device could not be created";
    // One build at a time per device: the error sink is the device's.
    std::lock_guard<std::mutex> buildLock(m_buildMutex);
    ErrorSink cErrors;
    rtcSetDeviceErrorFunction(m_hDevice, &RecordEmbreeError, &cErrors);

    // Medium quality has no spatial splits: every triangle lies in exactly one leaf, so a ray meets it at
    // most once and the any-hit program runs at most once per triangle. Robust mode is watertight at edges.
    RTCScene hScene = rtcNewScene(m_hDevice);
    std::vector<GeometryInfo> aGeometries(aInputs.size());
    if (hScene)
    {
        rtcSetSceneBuildQuality(hScene, RTC_BUILD_QUALITY_MEDIUM);
        // Embree's traversal is faster without filter support, which only any-hit programs need.
        bool bAnyHitPossible = false;
        for (const TriangleInput& cInput : aInputs)
            bAnyHitPossible |= (cInput.uGeometryFlags & OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT) == 0;
        rtcSetSceneFlags(hScene, bAnyHitPossible ? static_cast<RTCSceneFlags>(RTC_SCENE_FLAG_ROBUST |
                                                                              RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION)
                                                 : RTC_SCENE_FLAG_ROBUST);
        for (size_t i = 0; i < aInputs.size(); ++i)
        {
            aGeometries[i] = GeometryInfo{aInputs[i].uGeometryFlags, aInputs[i].iPrimitiveIndexOffset};
            if (aInputs[i].nVertices == 0)
                continue;
            RTCGeometry hGeometry = MakeTriangleGeometry(m_hDevice, aInputs[i]);
            if (!hGeometry)
                break;
            rtcAttachGeometryByID(hScene, hGeometry, static_cast<unsigned int>(i));
            rtcReleaseGeometry(hGeometry);
        }
        rtcCommitScene(hScene);
    }

    rtcSetDeviceErrorFunction(m_hDevice, nullptr, nullptr);
    std::string sError = cErrors.sFirst;
    if (!hScene && sError.empty())
        sError = "Embree scene could not be created";
    if (!sError.empty())
    {
        if (hScene)
            rtcReleaseScene(hScene);
        return sError;
    }
    std::shared_ptr<const Scene> pScene;
    try
    {
        pScene = std::make_shared<const Scene>(hScene, std::move(aGeometries));
    }
    catch (...)
    {
        rtcReleaseScene(hScene);
        throw;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aScenes[hTraversable] = std::move(pScene);
    return {};
}

std::shared_ptr<const Scene> SceneStore::Find(OptixTraversableHandle hTraversable) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_aScenes.find(hTraversable);
    return it == m_aScenes.end() ? nullptr : it->second;
}
} // namespace OptixStandIn
