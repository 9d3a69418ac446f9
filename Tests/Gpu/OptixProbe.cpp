// optix-probe: where the driver's OptiX library is, or every folder looked in and dlerror()'s text; then
// whether it hands out the function table of ABI 105 that the GPU flavour asks for. Exit status 0 when it
// does.
#include "OptixApi.h"

#include <dlfcn.h>
#include <link.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

namespace
{
const char* const c_sLibrary = "libnvoptix.so.1";

// LD_LIBRARY_PATH, then the folders where drivers put their libraries; the loader's cache is ldconfig's.
std::vector<std::string> FoldersToLook()
{
    std::vector<std::string> aFolders;
    std::istringstream cPath(std::getenv("LD_LIBRARY_PATH") ? std::getenv("LD_LIBRARY_PATH") : "");
    for (std::string sFolder; std::getline(cPath, sFolder, ':');)
        if (!sFolder.empty())
            aFolders.push_back(sFolder);
    for (const char* sFolder :
         {"/usr/lib/x86_64-linux-gnu", "/lib/x86_64-linux-gnu", "/usr/lib64", "/lib64", "/usr/lib", "/lib",
          "/usr/local/nvidia/lib64", "/usr/local/nvidia/lib", "/usr/lib/wsl/lib"})
        aFolders.push_back(sFolder);
    return aFolders;
}
} // namespace

int main()
{
    for (const std::string& sFolder : FoldersToLook())
    {
        struct stat cStat;
        const std::string sPath = sFolder + "/" + c_sLibrary;
        std::printf("looked in %-28s %s\n", sFolder.c_str(),
                    stat(sPath.c_str(), &cStat) == 0 ? "present" : "-");
    }
    void* pLibrary = dlopen(c_sLibrary, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (pLibrary == nullptr)
    {
        const char* sError = dlerror();
        std::printf("%s does not load: %s\n", c_sLibrary, sError ? sError : "(no dlerror text)");
        return 1;
    }
    link_map* pMap = nullptr;
    const bool bPath = dlinfo(pLibrary, RTLD_DI_LINKMAP, &pMap) == 0 && pMap != nullptr && pMap->l_name;
    std::printf("%s loads from %s\n", c_sLibrary, bPath ? pMap->l_name : "an unknown path");
    auto* pQuery = reinterpret_cast<OptixQueryFunctionTable_t*>(dlsym(pLibrary, "optixQueryFunctionTable"));
    if (pQuery == nullptr)
    {
        std::printf("optixQueryFunctionTable is missing: %s\n", dlerror());
        dlclose(pLibrary);
        return 1;
    }
    OptixFunctionTable cTable = {};
    const OptixResult eResult = pQuery(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, sizeof(cTable));
    void* aEntries[sizeof(cTable) / sizeof(void*)];
    static_assert(sizeof(aEntries) == sizeof(cTable), "the table holds pointers only");
    std::memcpy(aEntries, &cTable, sizeof(cTable));
    int nFilled = 0;
    for (void* pEntry : aEntries)
        nFilled += pEntry != nullptr;
    std::printf("optixQueryFunctionTable(ABI %d, %zu bytes) returned %d%s; %d of %zu entries filled\n",
                OPTIX_ABI_VERSION, sizeof(cTable), static_cast<int>(eResult),
                eResult == OPTIX_SUCCESS ? " (OPTIX_SUCCESS)" : "", nFilled,
                sizeof(aEntries) / sizeof(void*));
    if (eResult == OPTIX_SUCCESS && cTable.optixGetErrorName != nullptr)
        std::printf("the table's optixGetErrorName(7001) says %s\n",
                    cTable.optixGetErrorName(OPTIX_ERROR_INVALID_VALUE));
    dlclose(pLibrary);
    return eResult == OPTIX_SUCCESS ? 0 : 1;
}
