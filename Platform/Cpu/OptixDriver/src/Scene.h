// Acceleration structures of the stand-in: Embree scenes, one per built output buffer of a context.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <embree3/rtcore.h>

#include "HostArray.h"
#include "OptixTypes.h"
#include "TriangleMargin.h"

namespace OptixStandIn
{
// What a build needs from one triangle build input, captured when the build is enqueued.
struct TriangleInput
{
    CUdeviceptr pVertices = 0;
    unsigned int nVertices = 0;
    unsigned int nStrideInBytes = 12;
    unsigned int uGeometryFlags = 0;
    unsigned int iPrimitiveIndexOffset = 0;
};

// Embree's geometries of one build input: its triangles in order, enlarged (see TriangleMargin.h), and,
// when some are too thin for that, a user geometry that lists them and whose callback is the exact test.
struct GeometryInfo
{
    unsigned int uFlags = 0;
    unsigned int iPrimitiveIndexOffset = 0;
    const float* pTriangles = nullptr;     // the input's triangles as given, 9 floats each
    const unsigned int* pListed = nullptr; // the user geometry: the triangle behind each primitive
    // Embree's triangles: each group's growth, and Embree's barycentric error (at normal incidence) over it
    // (see DeepInside).
    float fMainGrowth = 1.0f;
    float fThinGrowth = 1.0f;
    float fErrorShare = 1.0f;
    float fNormalSign = 1.0f; // Embree's geometric normal is this times cross(b - a, c - a)
    float fMargin = 0.0f;     // the user geometry: how far its boxes reach beyond a triangle

    bool Exact() const { return pListed != nullptr; }
    // Index of the input's triangle behind an Embree primitive, primitiveIndexOffset not included.
    unsigned int Triangle(unsigned int iPrimitive) const
    {
        return pListed ? pListed[iPrimitive] : iPrimitive;
    }
};

// What a scene keeps beside Embree's scene: the triangles as given, for the exact test (in Embree's vertex
// buffers where Embree keeps its own copy, else in aTriangles), and the lists of the user geometries.
struct SceneContents
{
    std::vector<GeometryInfo> aGeometries; // by Embree geometry ID
    std::vector<HostArray<float>> aTriangles;
    std::vector<std::vector<unsigned int>> aLists;
    MarginPlan cPlan;
};

class Scene
{
public:
    Scene(RTCScene hScene, SceneContents cContents);
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    RTCScene Handle() const { return m_hScene; }
    const GeometryInfo& Geometry(unsigned int iGeometry) const { return m_cContents.aGeometries[iGeometry]; }
    // Whether any geometry may run an any-hit program.
    bool AnyHitPossible() const { return m_bAnyHitPossible; }
    const MarginPlan& Plan() const { return m_cContents.cPlan; }

private:
    RTCScene m_hScene;
    SceneContents m_cContents;
    bool m_bAnyHitPossible;
};

// Embree's intersection callback of the exact geometries (with the trace's other callbacks).
void IntersectExactTriangles(const RTCIntersectFunctionNArguments* pArgs);

// The scenes of one context, keyed by their traversable handle (the output buffer's address). Shared by the
// context and by the builds and launches in flight, so that neither outlives what it uses.
class SceneStore
{
public:
    SceneStore();
    ~SceneStore();
    SceneStore(const SceneStore&) = delete;
    SceneStore& operator=(const SceneStore&) = delete;

    // Builds the scene from the inputs (read now) and makes it the one of hTraversable.
    // Returns an empty string, or why the build failed.
    std::string Build(OptixTraversableHandle hTraversable, const std::vector<TriangleInput>& aInputs);
    std::shared_ptr<const Scene> Find(OptixTraversableHandle hTraversable) const;

private:
    RTCDevice m_hDevice;
    bool m_bSharedVertices = false; // Embree keeps its own vertices: see ProbeEmbree
    float m_fNormalSign = 1.0f;
    std::mutex m_buildMutex;
    mutable std::mutex m_mutex;
    std::map<OptixTraversableHandle, std::shared_ptr<const Scene>> m_aScenes;
};
} // namespace OptixStandIn
