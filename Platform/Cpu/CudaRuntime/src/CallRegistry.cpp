#include "CallRegistry.h"

namespace RayTracingCpu::StandIn
{
int CallRegistry::Enter(const std::string& sFunction)
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    ++m_aCounts[sFunction];
    auto it = m_aFaults.find(sFunction);
    if (it == m_aFaults.end())
        return 0;
    // Faults are counted down rather than pinned to absolute counts, so resetting the counts keeps them.
    int nCode = 0;
    auto& aFaults = it->second;
    for (auto iFault = aFaults.begin(); iFault != aFaults.end();)
    {
        if (--iFault->nCallsLeft == 0)
        {
            if (nCode == 0)
                nCode = iFault->nCode;
            iFault = aFaults.erase(iFault);
        }
        else
            ++iFault;
    }
    if (aFaults.empty())
        m_aFaults.erase(it);
    return nCode;
}

void CallRegistry::InjectFault(const std::string& sFunction, std::uint64_t nCall, int nCode)
{
    if (nCall == 0 || nCode == 0)
        return;
    std::lock_guard<std::mutex> cLock(m_mutex);
    m_aFaults[sFunction].push_back({nCall, nCode});
}

void CallRegistry::ClearFaults()
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    m_aFaults.clear();
}

std::uint64_t CallRegistry::CallCount(const std::string& sFunction) const
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    auto it = m_aCounts.find(sFunction);
    return it == m_aCounts.end() ? 0 : it->second;
}

void CallRegistry::ResetCallCounts()
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    m_aCounts.clear();
}
} // namespace RayTracingCpu::StandIn
