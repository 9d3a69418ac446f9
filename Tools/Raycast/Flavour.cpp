#include "Flavour.h"

#include "CudaDriver.h"
#include "ToolError.h"

#include <RayTracingCpu.h>

#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#ifndef RAYCAST_INSTALL_LIBDIR
#define RAYCAST_INSTALL_LIBDIR "lib"
#endif

namespace
{
// The flavours export C++ names; these must follow the declarations in the public headers.
static_assert(std::is_same_v<decltype(&::RayTracing), RayTracingFunction>, "RayTracing's signature changed");
static_assert(std::is_same_v<decltype(&::GetOptixVersion), GetOptixVersionFunction>,
              "GetOptixVersion changed");
static_assert(std::is_same_v<decltype(&RayTracingCpu::GetConfig), RayTracingCpu::DeviceConfig (*)()>);
static_assert(
    std::is_same_v<decltype(&RayTracingCpu::SetConfig), void (*)(const RayTracingCpu::DeviceConfig&)>);
const char* const c_sRayTracingSymbol = "_Z10RayTracingR17RayTracingResultsmPKfmS2_S2_S2_iRNSt7__"
                                        "cxx1112basic_stringIcSt11char_traitsIcESaIcEEES9_bfm";
const char* const c_sGetOptixVersionSymbol = "_Z15GetOptixVersionv";
const char* const c_sGetConfigSymbol = "_ZN13RayTracingCpu9GetConfigEv";
const char* const c_sSetConfigSymbol = "_ZN13RayTracingCpu9SetConfigERKNS_12DeviceConfigE";

const char* const c_sGpuLibrary = "libRayTracing.so";
const char* const c_sCpuLibrary = "libRayTracingCpu.so";

std::string ExecutableDirectory()
{
    std::vector<char> aPath(4096);
    const ssize_t nLength = readlink("/proc/self/exe", aPath.data(), aPath.size() - 1);
    if (nLength <= 0)
        return ".";
    std::string sPath(aPath.data(), static_cast<std::size_t>(nLength));
    const std::size_t iSlash = sPath.rfind('/');
    return iSlash == std::string::npos ? "." : sPath.substr(0, iSlash);
}

// A GPU flavour only answers when the driver has a device and the driver's OptiX library is present.
bool GpuAnswers(int iGpuId, std::string& sDevice, std::string& sReason)
{
    CudaDriver cDriver = CudaDriver::Load(sReason);
    if (!cDriver)
        return false;
    const int nDevices = cDriver.DeviceCount();
    if (nDevices == 0)
    {
        sReason = "no CUDA device";
        return false;
    }
    if (iGpuId < 0 || iGpuId >= nDevices)
    {
        sReason = "no CUDA device " + std::to_string(iGpuId) + " (" + std::to_string(nDevices) + " present)";
        return false;
    }
    SharedLibrary cOptix = SharedLibrary::Open("libnvoptix.so.1", sReason);
    if (!cOptix)
        return false;
    if (cOptix.Symbol("optixQueryFunctionTable") == nullptr)
    {
        sReason = "libnvoptix.so.1 does not export optixQueryFunctionTable";
        return false;
    }
    sDevice = cDriver.DeviceName(iGpuId) + " (CUDA device " + std::to_string(iGpuId) + ")";
    return true;
}
} // namespace

std::string FindFlavourLibrary(const std::string& sFileName)
{
    const std::string sDirectory = ExecutableDirectory();
    for (const std::string& sCandidate : {sDirectory + "/../" RAYCAST_INSTALL_LIBDIR "/" + sFileName,
                                          sDirectory + "/../lib/" + sFileName, sDirectory + "/" + sFileName})
        if (access(sCandidate.c_str(), F_OK) == 0)
            return sCandidate;
    return "";
}

bool Flavour::Resolve(const std::string& sPath, std::string& sError)
{
    m_cLibrary = SharedLibrary::Open(sPath, sError);
    if (!m_cLibrary)
        return false;
    m_pRayTracing = reinterpret_cast<RayTracingFunction>(m_cLibrary.Symbol(c_sRayTracingSymbol));
    m_pGetOptixVersion =
        reinterpret_cast<GetOptixVersionFunction>(m_cLibrary.Symbol(c_sGetOptixVersionSymbol));
    if (m_pRayTracing == nullptr || m_pGetOptixVersion == nullptr)
    {
        sError = sPath + " does not export RayTracing and GetOptixVersion";
        m_cLibrary = SharedLibrary();
        return false;
    }
    m_sLibraryPath = sPath;
    return true;
}

Flavour Flavour::Load(DeviceChoice eChoice, int iGpuId)
{
    Flavour cFlavour;
    if (eChoice != DeviceChoice::Cpu)
    {
        std::string sReason;
        const std::string sPath = FindFlavourLibrary(c_sGpuLibrary);
        if (sPath.empty())
            sReason = std::string(c_sGpuLibrary) + " is not installed beside raycast";
        else if (GpuAnswers(iGpuId, cFlavour.m_sDevice, sReason) && cFlavour.Resolve(sPath, sReason))
        {
            cFlavour.m_bGpu = true;
            cFlavour.m_sName = "GPU";
            return cFlavour;
        }
        if (eChoice == DeviceChoice::Gpu)
            throw ToolError("the GPU flavour is not available: " + sReason);
        cFlavour.m_sNote = "no GPU flavour: " + sReason;
    }

    std::string sError;
    const std::string sPath = FindFlavourLibrary(c_sCpuLibrary);
    if (sPath.empty())
        throw ToolError(std::string(c_sCpuLibrary) + " is not installed beside raycast");
    if (!cFlavour.Resolve(sPath, sError))
        throw ToolError("the CPU flavour cannot be loaded: " + sError);
    cFlavour.m_sName = "CPU";
    int nThreads = 0;
    if (auto pGetConfig = reinterpret_cast<RayTracingCpu::DeviceConfig (*)()>(
            cFlavour.m_cLibrary.Symbol(c_sGetConfigSymbol)))
        nThreads = pGetConfig().nThreads;
    if (nThreads <= 0)
        nThreads = static_cast<int>(std::thread::hardware_concurrency());
    cFlavour.m_sDevice = "host, " + std::to_string(nThreads) + " threads";
    return cFlavour;
}

bool Flavour::SetCpuThreads(int nThreads)
{
    if (m_bGpu)
        return false;
    auto pGetConfig =
        reinterpret_cast<RayTracingCpu::DeviceConfig (*)()>(m_cLibrary.Symbol(c_sGetConfigSymbol));
    auto pSetConfig =
        reinterpret_cast<void (*)(const RayTracingCpu::DeviceConfig&)>(m_cLibrary.Symbol(c_sSetConfigSymbol));
    if (pGetConfig == nullptr || pSetConfig == nullptr)
        return false;
    RayTracingCpu::DeviceConfig cConfig = pGetConfig();
    cConfig.nThreads = nThreads;
    pSetConfig(cConfig);
    m_sDevice =
        "host, " +
        std::to_string(nThreads > 0 ? nThreads : static_cast<int>(std::thread::hardware_concurrency())) +
        " threads";
    return true;
}
