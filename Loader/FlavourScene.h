// Owner of a RayTracingScene made by a flavour loaded at run time. The loader links no flavour, so it calls
// the scene's members through the flavour's exported symbols and destroys the scene the way `delete` would:
// the flavour's destructor, then the global operator delete that allocated it.
#pragma once

#include <RayTracingScene.h>

#include <cstdint>
#include <memory>
#include <string>

// The flavours' symbols, as free functions: a non-virtual member takes `this` as its first argument.
using SceneCreateFunction = RayTracingErrorType (*)(std::unique_ptr<RayTracingScene>&, std::uint64_t,
                                                    const float*, int, std::string&, std::string&, bool,
                                                    std::uint64_t);
using SceneTraceFunction = RayTracingErrorType (*)(RayTracingScene*, RayTracingResults&, std::uint64_t,
                                                   const float*, const float*, const float*, std::string&,
                                                   std::string&, float);
using SceneCountFunction = std::uint64_t (*)(const RayTracingScene*);
using SceneFlagFunction = bool (*)(const RayTracingScene*);
using SceneDestructor = void (*)(RayTracingScene*);

class FlavourScene
{
public:
    struct Functions
    {
        SceneTraceFunction pTrace = nullptr;
        SceneCountFunction pTriangleCount = nullptr;
        SceneFlagFunction pKeptStructures = nullptr;
        SceneDestructor pDestroy = nullptr;
    };

    FlavourScene() = default;
    FlavourScene(RayTracingScene* pScene, const Functions& cFunctions)
        : m_pScene(pScene), m_cFunctions(cFunctions)
    {
    }
    FlavourScene(FlavourScene&& cOther) noexcept;
    FlavourScene& operator=(FlavourScene&& cOther) noexcept;
    FlavourScene(const FlavourScene&) = delete;
    FlavourScene& operator=(const FlavourScene&) = delete;
    ~FlavourScene() { Reset(); }

    explicit operator bool() const { return m_pScene != nullptr; }

    // RayTracingScene::Trace; the scene must be set.
    RayTracingErrorType Trace(RayTracingResults& cResults, std::uint64_t nRays, const float* pOrigin,
                              const float* pDirection, const float* pDistance, std::string& sLog,
                              std::string& sError, float fMaxDistance)
    {
        return m_cFunctions.pTrace(m_pScene, cResults, nRays, pOrigin, pDirection, pDistance, sLog, sError,
                                   fMaxDistance);
    }
    std::uint64_t TriangleCount() const { return m_cFunctions.pTriangleCount(m_pScene); }
    bool KeptStructures() const { return m_cFunctions.pKeptStructures(m_pScene); }

    // Destroys the scene, if any.
    void Reset();

private:
    RayTracingScene* m_pScene = nullptr;
    Functions m_cFunctions;
};
