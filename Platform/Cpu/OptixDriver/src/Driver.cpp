#include "Driver.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace OptixStandIn
{
namespace
{
// A positive decimal value of the environment variable, or nDefault.
std::uint64_t EnvironmentValue(const char* sName, std::uint64_t nDefault, std::uint64_t nMax)
{
    const char* sValue = std::getenv(sName);
    if (!sValue || !*sValue)
        return nDefault;
    char* pEnd = nullptr;
    const unsigned long long nValue = std::strtoull(sValue, &pEnd, 10);
    if (*pEnd != '\0' || nValue == 0 || nValue > nMax || sValue[0] == '-')
        return nDefault;
    return nValue;
}

std::shared_ptr<tbb::task_arena> MakeWorkers(int nThreads)
{
    if (nThreads <= 0)
        nThreads = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
    // One slot for the thread that runs the work (a stream's worker): it takes part, the rest are TBB's.
    return std::make_shared<tbb::task_arena>(nThreads, 1);
}
} // namespace

void LiveObjects::Add(const void* pObject, ObjectKind eKind)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aObjects[pObject] = eKind;
}

bool LiveObjects::Contains(const void* pObject, ObjectKind eKind) const
{
    if (!pObject)
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_aObjects.find(pObject);
    return it != m_aObjects.end() && it->second == eKind;
}

void LiveObjects::Remove(const void* pObject)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aObjects.erase(pObject);
}

std::uint64_t LiveObjects::Count() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_aObjects.size();
}

Driver& Driver::Get()
{
    static Driver s_cDriver;
    return s_cDriver;
}

Driver::Driver()
    : m_nMaxPrimitivesPerGas(static_cast<std::uint32_t>(
          EnvironmentValue("RAYTRACING_CPU_MAX_PRIMITIVES_PER_GAS", 1u << 29, 0xFFFFFFFFu))),
      m_pWorkers(MakeWorkers(static_cast<int>(EnvironmentValue("RAYTRACING_CPU_THREADS", 0, 4096))))
{
}

void Driver::SetThreads(int nThreads)
{
    auto pWorkers = MakeWorkers(nThreads);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pWorkers = std::move(pWorkers);
}

std::shared_ptr<tbb::task_arena> Driver::Workers() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pWorkers;
}
} // namespace OptixStandIn
