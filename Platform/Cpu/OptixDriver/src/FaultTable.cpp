#include "FaultTable.h"

#include <algorithm>

namespace OptixStandIn
{
int FaultTable::Enter(const char* sFunction)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::uint64_t nCall = ++m_aCallCounts[sFunction];
    const auto it = std::find_if(m_aFaults.begin(), m_aFaults.end(),
                                 [&](const Fault& cFault)
                                 { return cFault.nAtCall == nCall && cFault.sFunction == sFunction; });
    if (it == m_aFaults.end())
        return 0;
    const int nCode = it->nCode;
    m_aFaults.erase(it);
    return nCode;
}

void FaultTable::Inject(const std::string& sFunction, std::uint64_t nCall, int nCode)
{
    if (nCall == 0)
        return;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aFaults.push_back(Fault{sFunction, m_aCallCounts[sFunction] + nCall, nCode});
}

void FaultTable::ClearFaults()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_aFaults.clear();
}

std::uint64_t FaultTable::CallCount(const std::string& sFunction) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_aCallCounts.find(sFunction);
    return it == m_aCallCounts.end() ? 0 : it->second;
}

void FaultTable::ResetCallCounts()
{
    // Pending faults keep their distance from the current count.
    std::lock_guard<std::mutex> lock(m_mutex);
    for (Fault& cFault : m_aFaults)
        cFault.nAtCall -= std::min(cFault.nAtCall - 1, m_aCallCounts[cFault.sFunction]);
    m_aCallCounts.clear();
}
} // namespace OptixStandIn
