#include "Flavour.h"

#include "CudaDriver.h"
#include "FlavourError.h"

#include <RayTracingCpu.h>

#include <dlfcn.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#ifndef RAYTRACING_INSTALL_LIBDIR
#define RAYTRACING_INSTALL_LIBDIR "lib"
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
static_assert(std::is_same_v<decltype(&RayTracingScene::Create), SceneCreateFunction>,
              "RayTracingScene::Create changed");
static_assert(std::is_same_v<decltype(&RayTracingScene::Trace),
                             RayTracingErrorType (RayTracingScene::*)(
                                 RayTracingResults&, std::uint64_t, const float*, const float*, const float*,
                                 std::string&, std::string&, float)>,
              "RayTracingScene::Trace changed");
static_assert(
    std::is_same_v<decltype(&RayTracingScene::TriangleCount), std::uint64_t (RayTracingScene::*)() const>);
static_assert(std::is_same_v<decltype(&RayTracingScene::KeptStructures), bool (RayTracingScene::*)() const>);

const char* const c_sRayTracingSymbol = "_Z10RayTracingR17RayTracingResultsmPKfmS2_S2_S2_iRNSt7__"
                                        "cxx1112basic_stringIcSt11char_traitsIcESaIcEEES9_bfm";
const char* const c_sGetOptixVersionSymbol = "_Z15GetOptixVersionv";
const char* const c_sGetConfigSymbol = "_ZN13RayTracingCpu9GetConfigEv";
const char* const c_sSetConfigSymbol = "_ZN13RayTracingCpu9SetConfigERKNS_12DeviceConfigE";
const char* const c_sSceneCreateSymbol =
    "_ZN15RayTracingScene6CreateERSt10unique_ptrIS_St14default_deleteIS_EEmPKfiRNSt7__cxx1112basic_"
    "stringIcSt11char_traitsIcESaIcEEESD_bm";
const char* const c_sSceneTraceSymbol = "_ZN15RayTracingScene5TraceER17RayTracingResultsmPKfS3_S3_RNSt7__"
                                        "cxx1112basic_stringIcSt11char_traitsIcESaIcEEESA_f";
const char* const c_sSceneTriangleCountSymbol = "_ZNK15RayTracingScene13TriangleCountEv";
const char* const c_sSceneKeptStructuresSymbol = "_ZNK15RayTracingScene14KeptStructuresEv";
const char* const c_sSceneDestructorSymbol = "_ZN15RayTracingSceneD1Ev"; // the complete-object destructor

const char* const c_sGpuLibrary = "libRayTracing.so";
const char* const c_sCpuLibrary = "libRayTracingCpu.so";

std::string DirectoryOf(const std::string& sPath)
{
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
    sDevice = cDriver.DeviceName(iGpuId);
    return true;
}

template <typename FunctionType>
bool ResolveSymbol(const SharedLibrary& cLibrary, FunctionType& pFunction, const char* sName)
{
    pFunction = reinterpret_cast<FunctionType>(cLibrary.Symbol(sName));
    return pFunction != nullptr;
}
} // namespace

FlavourLocation ExecutableLocation()
{
    std::vector<char> aPath(4096);
    const ssize_t nLength = readlink("/proc/self/exe", aPath.data(), aPath.size() - 1);
    const std::string sExecutable =
        nLength > 0 ? std::string(aPath.data(), static_cast<std::size_t>(nLength)) : "";
    const std::string sDirectory = DirectoryOf(sExecutable);
    const std::string sName = sExecutable.substr(sExecutable.rfind('/') + 1);
    return {{sDirectory + "/../" RAYTRACING_INSTALL_LIBDIR, sDirectory + "/../lib", sDirectory},
            "beside " + (sName.empty() ? std::string("the executable") : sName)};
}

FlavourLocation ModuleLocation(const void* pAddress)
{
    Dl_info cInfo = {};
    if (dladdr(pAddress, &cInfo) == 0 || cInfo.dli_fname == nullptr)
        return {{}, "beside the module (its path is unknown)"};
    const std::string sDirectory = DirectoryOf(cInfo.dli_fname);
    return {{sDirectory}, "in " + sDirectory};
}

std::string FindFlavourLibrary(const FlavourLocation& cLocation, const std::string& sFileName)
{
    for (const std::string& sDirectory : cLocation.aDirectories)
    {
        const std::string sCandidate = sDirectory + "/" + sFileName;
        if (access(sCandidate.c_str(), F_OK) == 0)
            return sCandidate;
    }
    return "";
}

bool Flavour::Resolve(const std::string& sPath, std::string& sError)
{
    m_cLibrary = SharedLibrary::Open(sPath, sError);
    if (!m_cLibrary)
        return false;
    FlavourScene::Functions& f = m_cSceneFunctions;
    if (!ResolveSymbol(m_cLibrary, m_pRayTracing, c_sRayTracingSymbol) ||
        !ResolveSymbol(m_cLibrary, m_pGetOptixVersion, c_sGetOptixVersionSymbol) ||
        !ResolveSymbol(m_cLibrary, m_pCreateScene, c_sSceneCreateSymbol) ||
        !ResolveSymbol(m_cLibrary, f.pTrace, c_sSceneTraceSymbol) ||
        !ResolveSymbol(m_cLibrary, f.pTriangleCount, c_sSceneTriangleCountSymbol) ||
        !ResolveSymbol(m_cLibrary, f.pKeptStructures, c_sSceneKeptStructuresSymbol) ||
        !ResolveSymbol(m_cLibrary, f.pDestroy, c_sSceneDestructorSymbol))
    {
        sError = sPath + " does not export RayTracing, GetOptixVersion and RayTracingScene";
        m_cLibrary = SharedLibrary();
        return false;
    }
    m_sLibraryPath = sPath;
    return true;
}

Flavour Flavour::Load(DeviceChoice eChoice, int iGpuId, const FlavourLocation& cLocation)
{
    Flavour cFlavour;
    if (eChoice != DeviceChoice::Cpu)
    {
        std::string sReason;
        const std::string sPath = FindFlavourLibrary(cLocation, c_sGpuLibrary);
        if (sPath.empty())
            sReason = std::string(c_sGpuLibrary) + " is not installed " + cLocation.sDescription;
        else if (GpuAnswers(iGpuId, cFlavour.m_sDeviceName, sReason) && cFlavour.Resolve(sPath, sReason))
        {
            cFlavour.m_sDevice = cFlavour.m_sDeviceName + " (CUDA device " + std::to_string(iGpuId) + ")";
            cFlavour.m_bGpu = true;
            cFlavour.m_sName = "GPU";
            return cFlavour;
        }
        if (eChoice == DeviceChoice::Gpu)
            throw FlavourError("the GPU flavour is not available: " + sReason);
        cFlavour.m_sNote = "no GPU flavour: " + sReason;
    }

    std::string sError;
    const std::string sPath = FindFlavourLibrary(cLocation, c_sCpuLibrary);
    if (sPath.empty())
        throw FlavourError(std::string(c_sCpuLibrary) + " is not installed " + cLocation.sDescription);
    if (!cFlavour.Resolve(sPath, sError))
        throw FlavourError("the CPU flavour cannot be loaded: " + sError);
    cFlavour.m_sName = "CPU";
    int nThreads = 0;
    RayTracingCpu::DeviceConfig (*pGetConfig)() = nullptr;
    if (ResolveSymbol(cFlavour.m_cLibrary, pGetConfig, c_sGetConfigSymbol))
        nThreads = pGetConfig().nThreads;
    if (nThreads <= 0)
        nThreads = static_cast<int>(std::thread::hardware_concurrency());
    cFlavour.m_sDevice = cFlavour.m_sDeviceName = "host, " + std::to_string(nThreads) + " threads";
    return cFlavour;
}

bool Flavour::SetCpuThreads(int nThreads)
{
    if (m_bGpu)
        return false;
    RayTracingCpu::DeviceConfig (*pGetConfig)() = nullptr;
    void (*pSetConfig)(const RayTracingCpu::DeviceConfig&) = nullptr;
    if (!ResolveSymbol(m_cLibrary, pGetConfig, c_sGetConfigSymbol) ||
        !ResolveSymbol(m_cLibrary, pSetConfig, c_sSetConfigSymbol))
        return false;
    RayTracingCpu::DeviceConfig cConfig = pGetConfig();
    cConfig.nThreads = nThreads;
    pSetConfig(cConfig);
    m_sDevice = m_sDeviceName =
        "host, " +
        std::to_string(nThreads > 0 ? nThreads : static_cast<int>(std::thread::hardware_concurrency())) +
        " threads";
    return true;
}

RayTracingErrorType Flavour::CreateScene(FlavourScene& cScene, std::uint64_t nTriangles,
                                         const float* pTriangles, int iGpuId, std::string& sLog,
                                         std::string& sError, bool bDiagnostics,
                                         std::uint64_t nFreeGPUMemory) const
{
    // Never destroyed, so that unique_ptr<RayTracingScene>'s destructor, which needs the flavour's
    // ~RayTracingScene at link time, is never instantiated here; the scene is released into cScene.
    union CreatedScene
    {
        std::unique_ptr<RayTracingScene> pScene;
        CreatedScene() : pScene() {}
        ~CreatedScene() {}
    } cCreated;
    const RayTracingErrorType eResult = m_pCreateScene(cCreated.pScene, nTriangles, pTriangles, iGpuId, sLog,
                                                       sError, bDiagnostics, nFreeGPUMemory);
    cScene = FlavourScene(cCreated.pScene.release(), m_cSceneFunctions);
    return eResult;
}
