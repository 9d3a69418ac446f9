// Choosing and loading a flavour of the library at run time: the GPU flavour (libRayTracing.so) or the CPU
// flavour (libRayTracingCpu.so). Nothing here links a flavour, so one program serves machines with and
// without a GPU.
#pragma once

#include "FlavourScene.h"
#include "SharedLibrary.h"

#include <RayTracing.h>

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

using RayTracingFunction = RayTracingErrorType (*)(RayTracingResults&, std::uint64_t, const float*,
                                                   std::uint64_t, const float*, const float*, const float*,
                                                   int, std::string&, std::string&, bool, float,
                                                   std::uint64_t);
using GetOptixVersionFunction = std::tuple<int, int, int> (*)();

enum class DeviceChoice
{
    Auto,
    Gpu,
    Cpu,
};

// Where the flavour libraries are looked for (first match wins), and how messages name that place.
struct FlavourLocation
{
    std::vector<std::string> aDirectories;
    std::string sDescription; // e.g. "beside raycast"
};

// For installed tools: ../<libdir>, ../lib and the executable's own directory.
FlavourLocation ExecutableLocation();
// For a loadable module (the Python extension): the directory of the shared object that holds pAddress.
FlavourLocation ModuleLocation(const void* pAddress);

class Flavour
{
public:
    // Throws FlavourError when the chosen flavour cannot be loaded; Auto falls back to the CPU flavour and
    // records why in Note().
    static Flavour Load(DeviceChoice eChoice, int iGpuId,
                        const FlavourLocation& cLocation = ExecutableLocation());

    RayTracingFunction RayTracing() const { return m_pRayTracing; }
    std::tuple<int, int, int> OptixVersion() const { return m_pGetOptixVersion(); }
    bool IsGpu() const { return m_bGpu; }
    const std::string& Name() const { return m_sName; } // "GPU" or "CPU"
    const std::string& LibraryPath() const { return m_sLibraryPath; }
    const std::string& Device() const { return m_sDevice; } // GPU name, or the CPU flavour's threads
    const std::string& Note() const { return m_sNote; }     // why auto did not take the GPU, or empty
    // CPU flavour only: run the stand-in device on nThreads worker threads (0 = all cores). False if
    // unsupported.
    bool SetCpuThreads(int nThreads);

    // RayTracingScene::Create of this flavour; on success cScene owns the new scene.
    RayTracingErrorType CreateScene(FlavourScene& cScene, std::uint64_t nTriangles, const float* pTriangles,
                                    int iGpuId, std::string& sLog, std::string& sError, bool bDiagnostics,
                                    std::uint64_t nFreeGPUMemory) const;

private:
    bool Resolve(const std::string& sPath, std::string& sError);

    SharedLibrary m_cLibrary;
    RayTracingFunction m_pRayTracing = nullptr;
    GetOptixVersionFunction m_pGetOptixVersion = nullptr;
    SceneCreateFunction m_pCreateScene = nullptr;
    FlavourScene::Functions m_cSceneFunctions;
    bool m_bGpu = false;
    std::string m_sName, m_sLibraryPath, m_sDevice, m_sNote;
};

// The first of cLocation's directories that holds sFileName, as a path; empty when none does.
std::string FindFlavourLibrary(const FlavourLocation& cLocation, const std::string& sFileName);
