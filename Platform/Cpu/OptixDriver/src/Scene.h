// Acceleration structures of the stand-in: Embree scenes, one per built output buffer of a context.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <embree3/rtcore.h>

#include "OptixTypes.h"

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

struct GeometryInfo
{
    unsigned int uFlags = 0;
    unsigned int iPrimitiveIndexOffset = 0;
};

class Scene
{
public:
    Scene(RTCScene hScene, std::vector<GeometryInfo> aGeometries);
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    RTCScene Handle() const { return m_hScene; }
    const GeometryInfo& Geometry(unsigned int iGeometry) const { return m_aGeometries[iGeometry]; }
    // Whether any geometry may run an any-hit program (else no filter is installed at all).
    bool AnyHitPossible() const { return m_bAnyHitPossible; }

private:
    RTCScene m_hScene;
    std::vector<GeometryInfo> m_aGeometries;
    bool m_bAnyHitPossible;
};

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
    std::mutex m_buildMutex;
    mutable std::mutex m_mutex;
    std::map<OptixTraversableHandle, std::shared_ptr<const Scene>> m_aScenes;
};
} // namespace OptixStandIn
