#include "DeviceConfigFromEnvironment.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sched.h>
#include <string>
#include <unistd.h>

namespace RayTracingCpu::StandIn
{
namespace
{
std::uint64_t HostPhysicalMemory()
{
    long nPages = sysconf(_SC_PHYS_PAGES);
    long nPageSize = sysconf(_SC_PAGE_SIZE);
    return nPages > 0 && nPageSize > 0 ? std::uint64_t(nPages) * std::uint64_t(nPageSize) : 0;
}

std::uint64_t HostAvailableMemory()
{
    // MemAvailable counts reclaimable caches, which is what an allocation can really get.
    std::ifstream cMeminfo("/proc/meminfo");
    std::string sKey;
    std::uint64_t nKiB = 0;
    std::string sUnit;
    while (cMeminfo >> sKey >> nKiB >> sUnit)
        if (sKey == "MemAvailable:")
            return nKiB * 1024;
    long nPages = sysconf(_SC_AVPHYS_PAGES);
    long nPageSize = sysconf(_SC_PAGE_SIZE);
    return nPages > 0 && nPageSize > 0 ? std::uint64_t(nPages) * std::uint64_t(nPageSize) : 0;
}

void ReportInvalid(const char* sName, const char* sValue, const char* sExpected)
{
    std::fprintf(stderr, "%s: ignoring invalid value \"%s\" (expected %s)\n", sName, sValue, sExpected);
}

// Reads an unsigned decimal variable within [nMin, nMax]; returns false when unset or invalid.
bool ReadUnsigned(const char* sName, std::uint64_t nMin, std::uint64_t nMax, const char* sExpected,
                  std::uint64_t& nValue)
{
    const char* sValue = std::getenv(sName);
    if (!sValue || !*sValue)
        return false;
    char* pEnd = nullptr;
    errno = 0;
    unsigned long long nRead = std::strtoull(sValue, &pEnd, 10);
    if (*sValue == '-' || errno != 0 || *pEnd != '\0' || nRead < nMin || nRead > nMax)
    {
        ReportInvalid(sName, sValue, sExpected);
        return false;
    }
    nValue = nRead;
    return true;
}

void ReadInt(const char* sName, int nMin, int nMax, const char* sExpected, int& nTarget)
{
    std::uint64_t nValue = 0;
    if (ReadUnsigned(sName, std::uint64_t(nMin), std::uint64_t(nMax), sExpected, nValue))
        nTarget = int(nValue);
}

void ReadFlag(const char* sName, bool& bTarget)
{
    std::uint64_t nValue = 0;
    if (ReadUnsigned(sName, 0, 1, "0 or 1", nValue))
        bTarget = nValue != 0;
}
} // namespace

int HostCores()
{
    cpu_set_t cSet;
    if (sched_getaffinity(0, sizeof(cSet), &cSet) == 0 && CPU_COUNT(&cSet) > 0)
        return CPU_COUNT(&cSet);
    long nOnline = sysconf(_SC_NPROCESSORS_ONLN);
    return nOnline > 0 ? int(nOnline) : 1;
}

DeviceConfig ReadDeviceConfig()
{
    DeviceConfig cConfig;
    ReadUnsigned("RAYTRACING_CPU_TOTAL_MEMORY", 1, UINT64_MAX, "a byte count", cConfig.nTotalMemory);
    bool bFreeGiven =
        ReadUnsigned("RAYTRACING_CPU_FREE_MEMORY", 0, UINT64_MAX, "a byte count", cConfig.nFreeMemory);
    ReadInt("RAYTRACING_CPU_COMPUTE_CAPABILITY", 10, 999, "major * 10 + minor, e.g. 86",
            cConfig.iComputeCapability);
    ReadFlag("RAYTRACING_CPU_MEMORY_POOLS", cConfig.bMemoryPools);
    ReadInt("RAYTRACING_CPU_MULTIPROCESSORS", 1, INT_MAX, "a positive count", cConfig.nMultiprocessors);
    ReadInt("RAYTRACING_CPU_THREADS_PER_MULTIPROCESSOR", 1, INT_MAX, "a positive count",
            cConfig.nThreadsPerMultiprocessor);
    ReadInt("RAYTRACING_CPU_THREADS", 1, INT_MAX, "a positive count", cConfig.nThreads);
    std::uint64_t nMaxPrimitives = 0;
    if (ReadUnsigned("RAYTRACING_CPU_MAX_PRIMITIVES_PER_GAS", 1, UINT32_MAX, "a positive count",
                     nMaxPrimitives))
        cConfig.nMaxPrimitivesPerGas = std::uint32_t(nMaxPrimitives);
    ReadFlag("RAYTRACING_CPU_DEFER_STREAMS", cConfig.bDeferStreams);

    if (cConfig.nTotalMemory == 0)
        cConfig.nTotalMemory = HostPhysicalMemory();
    if (!bFreeGiven)
        cConfig.nFreeMemory = HostAvailableMemory();
    return Normalise(cConfig);
}

DeviceConfig Normalise(DeviceConfig cConfig)
{
    if (cConfig.nTotalMemory == 0)
        cConfig.nTotalMemory = HostPhysicalMemory();
    if (cConfig.nFreeMemory > cConfig.nTotalMemory)
        cConfig.nFreeMemory = cConfig.nTotalMemory;
    if (cConfig.iComputeCapability <= 0)
        cConfig.iComputeCapability = DeviceConfig().iComputeCapability;
    if (cConfig.nMultiprocessors <= 0)
        cConfig.nMultiprocessors = HostCores();
    if (cConfig.nThreadsPerMultiprocessor <= 0)
        cConfig.nThreadsPerMultiprocessor = DeviceConfig().nThreadsPerMultiprocessor;
    if (cConfig.nThreads <= 0)
        cConfig.nThreads = HostCores();
    if (cConfig.nMaxPrimitivesPerGas == 0)
        cConfig.nMaxPrimitivesPerGas = DeviceConfig().nMaxPrimitivesPerGas;
    return cConfig;
}
} // namespace RayTracingCpu::StandIn
