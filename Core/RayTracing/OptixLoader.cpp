// Loading the driver's OptiX library and filling the process-wide function table (the stub loader).
#include "OptixApi.h"
#include "Platform.h"

#if defined(_WIN32)
#include <windows.h>
#include <cfgmgr32.h>
#include <string>
#include <vector>
#else
#include <dlfcn.h>
#endif

OptixFunctionTable g_optixFunctionTable = {};

namespace
{
// The loader's own codes, answered while the table's error entries are not set.
const char* FallbackErrorName(OptixResult nResult)
{
    switch (nResult)
    {
    case OPTIX_SUCCESS:
        return "OPTIX_SUCCESS";
    case OPTIX_ERROR_INVALID_VALUE:
        return "OPTIX_ERROR_INVALID_VALUE";
    case OPTIX_ERROR_UNSUPPORTED_ABI_VERSION:
        return "OPTIX_ERROR_UNSUPPORTED_ABI_VERSION";
    case OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH:
        return "OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH";
    case OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS:
        return "OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS";
    case OPTIX_ERROR_LIBRARY_NOT_FOUND:
        return "OPTIX_ERROR_LIBRARY_NOT_FOUND";
    case OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND:
        return "OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND";
    case OPTIX_ERROR_LIBRARY_UNLOAD_FAILURE:
        return "OPTIX_ERROR_LIBRARY_UNLOAD_FAILURE";
    default:
        return "Unknown OptixResult code";
    }
}

const char* FallbackErrorString(OptixResult nResult)
{
    switch (nResult)
    {
    case OPTIX_SUCCESS:
        return "Success";
    case OPTIX_ERROR_INVALID_VALUE:
        return "Invalid value";
    case OPTIX_ERROR_UNSUPPORTED_ABI_VERSION:
        return "Unsupported ABI version";
    case OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH:
        return "Function table size mismatch";
    case OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS:
        return "Invalid options to entry function";
    case OPTIX_ERROR_LIBRARY_NOT_FOUND:
        return "Library not found";
    case OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND:
        return "Entry symbol not found";
    case OPTIX_ERROR_LIBRARY_UNLOAD_FAILURE:
        return "Library could not be unloaded";
    default:
        return "Unknown OptixResult code";
    }
}

using QueryFunctionTable = OptixResult(int abiId, unsigned int numOptions,
                                       OptixQueryFunctionTableOptions* optionKeys, const void** optionValues,
                                       void* functionTable, size_t sizeOfTable);

#if defined(_WIN32)
// The published search: the system directory first, then the OpenGL driver folder of every present
// display adapter.
HMODULE LoadOptixLibrary()
{
    const std::string sLibrary = PlatformOptixLibraryName();
    char aSystemDir[MAX_PATH] = {};
    if (GetSystemDirectoryA(aSystemDir, MAX_PATH) != 0)
    {
        const std::string sPath = std::string(aSystemDir) + "\\" + sLibrary;
        if (HMODULE hModule = LoadLibraryA(sPath.c_str()))
            return hModule;
    }
    const char* sDisplayClass = "{4d36e968-e325-11ce-bfc1-08002be10318}";
    const ULONG uFlags = CM_GETIDLIST_FILTER_CLASS | CM_GETIDLIST_FILTER_PRESENT;
    ULONG nListSize = 0;
    if (CM_Get_Device_ID_List_SizeA(&nListSize, sDisplayClass, uFlags) != CR_SUCCESS || nListSize == 0)
        return nullptr;
    std::vector<char> aDeviceNames(nListSize);
    if (CM_Get_Device_ID_ListA(sDisplayClass, aDeviceNames.data(), nListSize, uFlags) != CR_SUCCESS)
        return nullptr;
    for (const char* sDevice = aDeviceNames.data(); *sDevice; sDevice += strlen(sDevice) + 1)
    {
        DEVINST hDevice = 0;
        if (CM_Locate_DevNodeA(&hDevice, const_cast<char*>(sDevice), CM_LOCATE_DEVNODE_NORMAL) != CR_SUCCESS)
            continue;
        HKEY hKey = nullptr;
        if (CM_Open_DevNode_Key(hDevice, KEY_QUERY_VALUE, 0, RegDisposition_OpenExisting, &hKey,
                                CM_REGISTRY_SOFTWARE) != CR_SUCCESS)
            continue;
        char aValue[MAX_PATH] = {};
        DWORD nValueSize = sizeof(aValue);
        const LSTATUS nStatus = RegQueryValueExA(hKey, "OpenGLDriverName", nullptr, nullptr,
                                                 reinterpret_cast<LPBYTE>(aValue), &nValueSize);
        RegCloseKey(hKey);
        if (nStatus != ERROR_SUCCESS)
            continue;
        std::string sPath(aValue, strnlen(aValue, sizeof(aValue)));
        const size_t iSlash = sPath.rfind('\\');
        if (iSlash == std::string::npos)
            continue;
        sPath = sPath.substr(0, iSlash + 1) + sLibrary;
        if (HMODULE hModule = LoadLibraryA(sPath.c_str()))
            return hModule;
    }
    return nullptr;
}
#endif
} // namespace

const char* optixGetErrorName(OptixResult nResult)
{
    if (g_optixFunctionTable.optixGetErrorName)
        return g_optixFunctionTable.optixGetErrorName(nResult);
    return FallbackErrorName(nResult);
}

const char* optixGetErrorString(OptixResult nResult)
{
    if (g_optixFunctionTable.optixGetErrorString)
        return g_optixFunctionTable.optixGetErrorString(nResult);
    return FallbackErrorString(nResult);
}

OptixResult optixInit()
{
    // A failed load must report through the fallback texts, not a stale table.
    g_optixFunctionTable.optixGetErrorName = nullptr;
    g_optixFunctionTable.optixGetErrorString = nullptr;
#if defined(_WIN32)
    HMODULE hLibrary = LoadOptixLibrary();
    if (!hLibrary)
        return OPTIX_ERROR_LIBRARY_NOT_FOUND;
    void* pSymbol = reinterpret_cast<void*>(GetProcAddress(hLibrary, "optixQueryFunctionTable"));
#else
    // Never closed: the table points into the library until the process ends.
    void* hLibrary = dlopen(PlatformOptixLibraryName().c_str(), RTLD_NOW);
    if (!hLibrary)
        return OPTIX_ERROR_LIBRARY_NOT_FOUND;
    void* pSymbol = dlsym(hLibrary, "optixQueryFunctionTable");
#endif
    if (!pSymbol)
        return OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND;
    auto* pQuery = reinterpret_cast<QueryFunctionTable*>(pSymbol);
    return pQuery(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &g_optixFunctionTable,
                  sizeof(g_optixFunctionTable));
}
