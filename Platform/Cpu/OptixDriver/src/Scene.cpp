#include "Scene.h"

#include <algorithm>
#include <cstring>

#include <tbb/blocked_range.h>
#include <tbb/enumerable_thread_specific.h>
#include <tbb/parallel_for.h>

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

struct SceneRelease
{
    void operator()(RTCSceneTy* hScene) const { rtcReleaseScene(hScene); }
};
using SceneHolder = std::unique_ptr<RTCSceneTy, SceneRelease>;

// Embree's robust mode is not needed: the margin covers its rounding either way, and the exact test decides.
// The context filter confirms the candidates of Embree's enlarged triangles.
const RTCSceneFlags c_eSceneFlags = RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION;
constexpr size_t c_nTrianglesPerTask = 4096;
// The plan samples every triangle of small inputs and about this many of larger ones.
constexpr size_t c_nSampledTriangles = 1 << 16;

// A build input's triangles in device memory (any stride).
class TriangleSource
{
public:
    explicit TriangleSource(const TriangleInput& cInput)
        : m_pVertices(reinterpret_cast<const unsigned char*>(cInput.pVertices)),
          m_nStride(cInput.nStrideInBytes), m_nTriangles(cInput.nVertices / 3)
    {
    }
    size_t Count() const { return m_nTriangles; }
    // The triangles as one array, when they are packed.
    const float* Packed() const
    {
        return m_nStride == 12 ? reinterpret_cast<const float*>(m_pVertices) : nullptr;
    }
    void Read(size_t i, float* pTriangle) const
    {
        if (m_nStride == 12)
            return static_cast<void>(std::memcpy(pTriangle, m_pVertices + 36 * i, 36));
        for (size_t j = 0; j < 3; ++j)
            std::memcpy(pTriangle + 3 * j, m_pVertices + (3 * i + j) * m_nStride, 12);
    }

private:
    const unsigned char* m_pVertices;
    size_t m_nStride;
    size_t m_nTriangles;
};

MarginPlan PlanFromSample(const std::vector<TriangleSource>& aSources)
{
    TriangleBounds cBounds;
    GrowthSample cSample;
    for (const TriangleSource& cSource : aSources)
        for (size_t i = 0; i < cSource.Count(); i += cSource.Count() / c_nSampledTriangles + 1)
        {
            float aTriangle[9];
            cSource.Read(i, aTriangle);
            if (cBounds.Add(aTriangle))
                cSample.Add(aTriangle);
        }
    return PlanMargin(cBounds, cSample);
}

// What the pass over one input's triangles found besides Embree's vertices.
struct InputPass
{
    std::vector<unsigned int> aExact;   // triangles for the exact geometry
    std::vector<unsigned int> aLeftOut; // triangles Embree does not see: the exact ones and the ignored ones

    void Merge(const InputPass& cOther)
    {
        aExact.insert(aExact.end(), cOther.aExact.begin(), cOther.aExact.end());
        aLeftOut.insert(aLeftOut.end(), cOther.aLeftOut.begin(), cOther.aLeftOut.end());
    }
};

// Writes each triangle of the input at its place in pVertices as Embree is to see it (see
// PrepareTriangle). pOriginals receives the triangles as given when it is another buffer, and holds them
// on the way when the input is not packed.
InputPass PrepareInput(const TriangleSource& cSource, const MarginPlan& cPlan, float* pVertices,
                       float* pOriginals)
{
    tbb::enumerable_thread_specific<InputPass> aParts;
    tbb::parallel_for(tbb::blocked_range<size_t>(0, cSource.Count(), c_nTrianglesPerTask),
                      [&](const tbb::blocked_range<size_t>& cRange)
                      {
                          InputPass& cPart = aParts.local();
                          // Packed input is read in place; another stride is packed into pOriginals first.
                          const float* pPacked = cSource.Packed();
                          if (!pPacked || pOriginals != pVertices)
                          {
                              for (size_t i = cRange.begin(); i != cRange.end(); ++i)
                                  cSource.Read(i, pOriginals + 9 * i);
                              pPacked = pOriginals;
                          }
                          PrepareTriangles(cPlan, pPacked, cRange.begin(), cRange.end(), pVertices,
                                           cPart.aExact, cPart.aLeftOut);
                      });
    InputPass cAll;
    for (const InputPass& cPart : aParts)
        cAll.Merge(cPart);
    // Embree's order, and so the order of the candidates, stays reproducible.
    std::sort(cAll.aExact.begin(), cAll.aExact.end());
    return cAll;
}

// One input's triangle geometry with its vertex buffer.
struct TriangleBuffers
{
    RTCGeometry hGeometry = nullptr;
    float* pVertices = nullptr;
};

TriangleBuffers NewTriangleGeometry(RTCDevice hDevice, size_t nTriangles)
{
    TriangleBuffers cBuffers;
    cBuffers.hGeometry = rtcNewGeometry(hDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
    if (!cBuffers.hGeometry)
        return cBuffers;
    cBuffers.pVertices = static_cast<float*>(rtcSetNewGeometryBuffer(
        cBuffers.hGeometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12, 3 * nTriangles));
    if (!cBuffers.pVertices)
    {
        rtcReleaseGeometry(cBuffers.hGeometry);
        return TriangleBuffers{};
    }
    return cBuffers;
}

// Each triangle at its place; one left out becomes a point (its first corner three times), which Embree
// never hits. Unlike an invalid (NaN) primitive, it keeps Embree's build on its fast path.
bool WriteIndices(RTCGeometry hGeometry, const InputPass& cPass, size_t nTriangles)
{
    auto* pIndices = static_cast<unsigned int*>(
        rtcSetNewGeometryBuffer(hGeometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, nTriangles));
    if (!pIndices)
        return false;
    tbb::parallel_for(tbb::blocked_range<size_t>(0, nTriangles, c_nTrianglesPerTask),
                      [&](const tbb::blocked_range<size_t>& cRange)
                      {
                          for (size_t i = cRange.begin(); i != cRange.end(); ++i)
                              for (unsigned int j = 0; j < 3; ++j)
                                  pIndices[3 * i + j] = static_cast<unsigned int>(3 * i + j);
                      });
    for (unsigned int iTriangle : cPass.aLeftOut)
        for (unsigned int j = 0; j < 3; ++j)
            pIndices[3 * iTriangle + j] = 3 * iTriangle;
    return true;
}

void ExactTriangleBounds(const RTCBoundsFunctionArguments* pArgs)
{
    const auto* pGeometry = static_cast<const GeometryInfo*>(pArgs->geometryUserPtr);
    const float* pTriangle =
        pGeometry->pTriangles + 9 * static_cast<size_t>(pGeometry->Triangle(pArgs->primID));
    float aLower[3], aUpper[3];
    for (int k = 0; k < 3; ++k)
    {
        aLower[k] = std::min({pTriangle[k], pTriangle[3 + k], pTriangle[6 + k]}) - pGeometry->fMargin;
        aUpper[k] = std::max({pTriangle[k], pTriangle[3 + k], pTriangle[6 + k]}) + pGeometry->fMargin;
    }
    pArgs->bounds_o->lower_x = aLower[0];
    pArgs->bounds_o->lower_y = aLower[1];
    pArgs->bounds_o->lower_z = aLower[2];
    pArgs->bounds_o->upper_x = aUpper[0];
    pArgs->bounds_o->upper_y = aUpper[1];
    pArgs->bounds_o->upper_z = aUpper[2];
}

// A user geometry over triangles too thin to enlarge: its intersection callback is the exact test.
RTCGeometry MakeExactGeometry(RTCDevice hDevice, const GeometryInfo* pGeometry, unsigned int nTriangles)
{
    RTCGeometry hGeometry = rtcNewGeometry(hDevice, RTC_GEOMETRY_TYPE_USER);
    if (!hGeometry)
        return nullptr;
    rtcSetGeometryUserPrimitiveCount(hGeometry, nTriangles);
    rtcSetGeometryUserData(hGeometry, const_cast<GeometryInfo*>(pGeometry));
    rtcSetGeometryBoundsFunction(hGeometry, &ExactTriangleBounds, nullptr);
    rtcSetGeometryIntersectFunction(hGeometry, &IntersectExactTriangles);
    rtcCommitGeometry(hGeometry);
    return hGeometry;
}

// What a build relies on and checks once per device with one triangle: whether Embree keeps its own copy
// of triangle vertices in its acceleration structure, as its leaves for robust traversal do (then one
// buffer serves Embree's enlarged triangles during the build and the exact test's triangles after it: the
// probe moves its triangle after the build), and the sign of Embree's geometric normal.
struct EmbreeConventions
{
    bool bKeepsVertexCopies = false;
    float fNormalSign = 1.0f;
};

EmbreeConventions ProbeEmbree(RTCDevice hDevice)
{
    // cross(b - a, c - a) = (0, 0, 4)
    alignas(16) float aVertices[10] = {-1.0f, -1.0f, 1.0f, 1.0f, -1.0f, 1.0f, 0.0f, 1.0f, 1.0f, 0.0f};
    EmbreeConventions cConventions;
    SceneHolder pScene(rtcNewScene(hDevice));
    RTCGeometry hGeometry = rtcNewGeometry(hDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
    auto* pIndices = hGeometry ? static_cast<unsigned int*>(rtcSetNewGeometryBuffer(
                                     hGeometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, 1))
                               : nullptr;
    if (!pScene || !pIndices)
    {
        if (hGeometry)
            rtcReleaseGeometry(hGeometry);
        return cConventions;
    }
    pIndices[0] = 0;
    pIndices[1] = 1;
    pIndices[2] = 2;
    rtcSetSharedGeometryBuffer(hGeometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, aVertices, 0, 12, 3);
    rtcCommitGeometry(hGeometry);
    rtcSetSceneBuildQuality(pScene.get(), RTC_BUILD_QUALITY_MEDIUM);
    rtcSetSceneFlags(pScene.get(), c_eSceneFlags);
    rtcAttachGeometry(pScene.get(), hGeometry);
    rtcReleaseGeometry(hGeometry);
    rtcCommitScene(pScene.get());
    for (int i = 2; i < 9; i += 3)
        aVertices[i] = -1.0f;
    RTCIntersectContext cContext;
    rtcInitIntersectContext(&cContext);
    RTCRayHit cRayHit{};
    cRayHit.ray.dir_z = 1.0f;
    cRayHit.ray.tfar = 10.0f;
    cRayHit.ray.mask = 0xFFFFFFFFu;
    cRayHit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(pScene.get(), &cContext, &cRayHit);
    if (cRayHit.hit.geomID != RTC_INVALID_GEOMETRY_ID)
    {
        cConventions.bKeepsVertexCopies = cRayHit.ray.tfar == 1.0f;
        cConventions.fNormalSign = cRayHit.hit.Ng_z < 0.0f ? -1.0f : 1.0f;
    }
    return cConventions;
}

// Attaches one input's geometries (its triangle geometry, and the exact one when it has exact triangles).
// False when Embree refused one (its error is in the sink).
bool AttachInput(RTCDevice hDevice, RTCScene hScene, const TriangleInput& cInput, const float* pTriangles,
                 RTCGeometry hTriangles, InputPass& cPass, float fNormalSign, SceneContents& cContents)
{
    const MarginPlan& cPlan = cContents.cPlan;
    GeometryInfo cInfo;
    cInfo.uFlags = cInput.uGeometryFlags;
    cInfo.iPrimitiveIndexOffset = cInput.iPrimitiveIndexOffset;
    cInfo.pTriangles = pTriangles;
    cInfo.fNormalSign = fNormalSign;
    if (!WriteIndices(hTriangles, cPass, cInput.nVertices / 3))
        return false;
    rtcCommitGeometry(hTriangles);
    rtcAttachGeometryByID(hScene, hTriangles, static_cast<unsigned int>(cContents.aGeometries.size()));
    cContents.aGeometries.push_back(cInfo);
    if (cPass.aExact.empty())
        return true;

    cInfo.pListed = cContents.aLists.emplace_back(std::move(cPass.aExact)).data();
    cInfo.fMargin = cPlan.fMargin;
    // The bounds callback reads the geometry's record during the scene's commit: it must not move.
    cContents.aGeometries.reserve(cContents.aGeometries.size() + 1);
    RTCGeometry hExact =
        MakeExactGeometry(hDevice, cContents.aGeometries.data() + cContents.aGeometries.size(),
                          static_cast<unsigned int>(cContents.aLists.back().size()));
    if (!hExact)
        return false;
    rtcAttachGeometryByID(hScene, hExact, static_cast<unsigned int>(cContents.aGeometries.size()));
    rtcReleaseGeometry(hExact);
    cContents.aGeometries.push_back(cInfo);
    return true;
}
// Prepares every input's triangles and attaches their geometries to hScene; false when Embree refused a
// geometry (its error, if it gave one, is in the sink).
bool AddInputs(RTCDevice hDevice, bool bSharedVertices, float fNormalSign, RTCScene hScene,
               const std::vector<TriangleInput>& aInputs, const std::vector<TriangleSource>& aSources,
               SceneContents& cContents, std::vector<float*>& aShared)
{
    // Medium quality has no spatial splits: every triangle lies in exactly one leaf, so a ray meets it at
    // most once and the any-hit program runs at most once per triangle.
    rtcSetSceneBuildQuality(hScene, RTC_BUILD_QUALITY_MEDIUM);
    rtcSetSceneFlags(hScene, c_eSceneFlags);
    for (size_t i = 0; i < aInputs.size(); ++i)
    {
        if (aSources[i].Count() == 0)
            continue;
        const TriangleBuffers cBuffers = NewTriangleGeometry(hDevice, aSources[i].Count());
        if (!cBuffers.hGeometry)
            return false;
        float* pTriangles = cBuffers.pVertices;
        if (bSharedVertices)
            aShared.push_back(pTriangles);
        else
            pTriangles = cContents.aTriangles.emplace_back(9 * aSources[i].Count()).Data();
        InputPass cPass = PrepareInput(aSources[i], cContents.cPlan, cBuffers.pVertices, pTriangles);
        const bool bAttached = AttachInput(hDevice, hScene, aInputs[i], pTriangles, cBuffers.hGeometry, cPass,
                                           fNormalSign, cContents);
        rtcReleaseGeometry(cBuffers.hGeometry);
        if (!bAttached)
            return false;
    }
    return true;
}
} // namespace

Scene::Scene(RTCScene hScene, SceneContents cContents)
    : m_hScene(hScene), m_cContents(std::move(cContents)), m_bAnyHitPossible(false)
{
    for (const GeometryInfo& cGeometry : m_cContents.aGeometries)
        m_bAnyHitPossible |= (cGeometry.uFlags & OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT) == 0;
}

Scene::~Scene()
{
    rtcReleaseScene(m_hScene);
}

SceneStore::SceneStore() : m_hDevice(rtcNewDevice(nullptr))
{
    if (!m_hDevice)
        return;
    const EmbreeConventions cConventions = ProbeEmbree(m_hDevice);
    m_bSharedVertices = cConventions.bKeepsVertexCopies;
    m_fNormalSign = cConventions.fNormalSign;
}

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
    struct ErrorFunctionReset
    {
        RTCDevice hDevice;
        ~ErrorFunctionReset() { rtcSetDeviceErrorFunction(hDevice, nullptr, nullptr); }
    } cReset{m_hDevice};

    const std::vector<TriangleSource> aSources(aInputs.begin(), aInputs.end());
    SceneContents cContents;
    cContents.cPlan = PlanFromSample(aSources);
    SceneHolder pScene;
    std::vector<float*> aShared;
    // A sample's bounds may fall short of all triangles' by more than its margin allows: then once more.
    for (bool bSettled = false; !bSettled;)
    {
        pScene.reset(rtcNewScene(m_hDevice));
        cContents.aGeometries.clear();
        cContents.aTriangles.clear();
        cContents.aLists.clear();
        aShared.clear();
        if (!pScene || !AddInputs(m_hDevice, m_bSharedVertices, m_fNormalSign, pScene.get(), aInputs,
                                  aSources, cContents, aShared))
            return cErrors.sFirst.empty() ? "Embree refused a scene or geometry" : cErrors.sFirst;
        rtcCommitScene(pScene.get());
        if (!cErrors.sFirst.empty())
            return cErrors.sFirst;
        RTCBounds cBox;
        rtcGetSceneBounds(pScene.get(), &cBox);
        TriangleBounds cBounds;
        if (cBox.lower_x <= cBox.upper_x)
            cBounds = TriangleBounds{{cBox.lower_x, cBox.lower_y, cBox.lower_z},
                                     {cBox.upper_x, cBox.upper_y, cBox.upper_z}};
        bSettled = SettlePlan(cContents.cPlan, cBounds);
    }
    for (GeometryInfo& cGeometry : cContents.aGeometries)
    {
        cGeometry.fMainGrowth = cContents.cPlan.MainGrowth();
        cGeometry.fThinGrowth = cContents.cPlan.ThinGrowth();
        cGeometry.fErrorShare = cContents.cPlan.fErrorShare;
    }

    // Embree's leaves hold the enlarged triangles now: its vertex buffers become the copies as given.
    for (size_t i = 0, iShared = 0; i < aInputs.size() && iShared < aShared.size(); ++i)
    {
        const TriangleSource& cSource = aSources[i];
        if (cSource.Count() == 0)
            continue;
        float* pTriangles = aShared[iShared++];
        tbb::parallel_for(tbb::blocked_range<size_t>(0, cSource.Count(), c_nTrianglesPerTask),
                          [&](const tbb::blocked_range<size_t>& cRange)
                          {
                              for (size_t j = cRange.begin(); j != cRange.end(); ++j)
                                  cSource.Read(j, pTriangles + 9 * j);
                          });
    }
    auto pBuilt = std::make_shared<const Scene>(pScene.get(), std::move(cContents));
    pScene.release();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aScenes[hTraversable] = std::move(pBuilt);
    return {};
}

std::shared_ptr<const Scene> SceneStore::Find(OptixTraversableHandle hTraversable) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_aScenes.find(hTraversable);
    return it == m_aScenes.end() ? nullptr : it->second;
}
} // namespace OptixStandIn
