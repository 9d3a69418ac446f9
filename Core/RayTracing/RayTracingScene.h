// A persistent scene: the triangles are prepared once on one GPU, then traced by many requests.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "RayTracing.h"

class SceneState;

// Keeps the device set-up, the OptiX context, each traced mode's pipeline and, where they fit the memory
// budget fixed at Create, the acceleration structures of the triangles; Trace then only moves rays and
// results.
//
// Threads: calls on one scene run one after another (a second thread waits); different scenes may trace at
// the same time, each on its own stream. RayTracing runs before or after a scene's calls, never at the same
// time: it refills the process-wide OptiX function table that the scenes use.
class RAYTRACING_API RayTracingScene
{
public:
    // Prepares the triangle soup (nTriangles x 9 floats) on GPU iGpuId; pTriangles may be released on return.
    // nFreeGPUMemory is the free memory to plan with (0: measure it). On failure pScene is left empty; a
    // failed device set-up is Failure with the check's message in sError, std::bad_alloc is OutOfMemory.
    static RayTracingErrorType Create(std::unique_ptr<RayTracingScene>& pScene, std::uint64_t nTriangles,
                                      const float* pTriangles, int iGpuId, std::string& sLog,
                                      std::string& sError, bool bDiagnostics, std::uint64_t nFreeGPUMemory);

    // Answers exactly what RayTracing would answer for the same triangles and arguments; sLog holds the log
    // lines of this call's own work.
    RayTracingErrorType Trace(RayTracingResults& cRayTracingResults, std::uint64_t nRays,
                              const float* pOrigin, const float* pDirection, const float* pDistance,
                              std::string& sLog, std::string& sError, float fMaxDistance);

    std::uint64_t TriangleCount() const;

    // True when the last successful Trace ran on acceleration structures the scene keeps; false when it built
    // them chunk by chunk within the call because they do not fit beside a ray batch.
    bool KeptStructures() const;

    ~RayTracingScene();
    RayTracingScene(const RayTracingScene&) = delete;
    RayTracingScene& operator=(const RayTracingScene&) = delete;

private:
    explicit RayTracingScene(std::unique_ptr<SceneState> pState);

    std::unique_ptr<SceneState> m_pState;
};
