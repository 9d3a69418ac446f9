// The CPU flavour's answer: the OptiX driver stand-in, found next to the library that contains this code.
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <system_error>

#include "RayTracing/Platform.h"
#include "Runtime.h"

namespace
{
constexpr const char* c_sOptixStandIn = "libRayTracingCpuOptix.so";

std::filesystem::path DirectoryOfThisCode()
{
    Dl_info cInfo{};
    std::filesystem::path cPath;
    if (dladdr(reinterpret_cast<void*>(&PlatformOptixLibraryName), &cInfo) && cInfo.dli_fname &&
        std::string(cInfo.dli_fname).find('/') != std::string::npos)
        cPath = cInfo.dli_fname;
    else
        cPath = "/proc/self/exe"; // linked into the executable itself
    std::error_code cError;
    std::filesystem::path cResolved = std::filesystem::canonical(cPath, cError);
    return cError ? std::filesystem::path() : cResolved.parent_path();
}
} // namespace

std::string PlatformOptixLibraryName()
{
    std::string sSet = RayTracingCpu::StandIn::Runtime::Get().OptixLibrary();
    if (!sSet.empty())
        return sSet;
    if (const char* sEnvironment = std::getenv("RAYTRACING_CPU_OPTIX_LIBRARY"); sEnvironment && *sEnvironment)
        return sEnvironment;
    std::filesystem::path cDirectory = DirectoryOfThisCode();
    if (!cDirectory.empty())
    {
        // Tests run from build/bin while the libraries live in build/lib.
        for (const std::filesystem::path& cCandidate :
             {cDirectory / c_sOptixStandIn, cDirectory.parent_path() / "lib" / c_sOptixStandIn})
        {
            std::error_code cError;
            if (std::filesystem::is_regular_file(cCandidate, cError))
                return cCandidate.string();
        }
    }
    return c_sOptixStandIn;
}
