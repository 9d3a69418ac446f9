// Call counts and injected faults of the stand-in functions, by API name.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace RayTracingCpu::StandIn
{
class CallRegistry
{
public:
    // Counts the call; returns the injected code when a fault is due on it, else 0.
    int Enter(const std::string& sFunction);
    void InjectFault(const std::string& sFunction, std::uint64_t nCall, int nCode);
    void ClearFaults();
    std::uint64_t CallCount(const std::string& sFunction) const;
    void ResetCallCounts();

private:
    struct PendingFault
    {
        std::uint64_t nCallsLeft; // 1: the next call fails
        int nCode;
    };

    mutable std::mutex m_mutex;
    std::map<std::string, std::uint64_t> m_aCounts;
    std::map<std::string, std::vector<PendingFault>> m_aFaults;
};
} // namespace RayTracingCpu::StandIn
