// Choosing and loading a flavour of the library at run time: the GPU flavour (libRayTracing.so) or the CPU
// flavour (libRayTracingCpu.so), looked up beside the executable.
#pragma once

#include "SharedLibrary.h"

#include <RayTracing.h>

#include <cstdint>
#include <string>
#include <tuple>

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

class Flavour
{
public:
    // Throws ToolError when the chosen flavour cannot be loaded; Auto falls back to the CPU flavour and
    // records why in Note().
    static Flavour Load(DeviceChoice eChoice, int iGpuId);

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

private:
    bool Resolve(const std::string& sPath, std::string& sError);

    SharedLibrary m_cLibrary;
    RayTracingFunction m_pRayTracing = nullptr;
    GetOptixVersionFunction m_pGetOptixVersion = nullptr;
    bool m_bGpu = false;
    std::string m_sName, m_sLibraryPath, m_sDevice, m_sNote;
};

// Directories searched for the flavours: ../<libdir>, ../lib and the executable's own directory.
std::string FindFlavourLibrary(const std::string& sFileName);
