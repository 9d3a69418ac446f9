// Call counting and fault injection by API name, shared by every entry of the stand-in's function table.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace OptixStandIn
{
class FaultTable
{
public:
    // Counts a call of sFunction; returns the code injected for exactly this call, or 0.
    int Enter(const char* sFunction);
    // The nCall-th call from now on (1 = the next one) of sFunction fails with nCode.
    void Inject(const std::string& sFunction, std::uint64_t nCall, int nCode);
    void ClearFaults();
    std::uint64_t CallCount(const std::string& sFunction) const;
    void ResetCallCounts();

private:
    struct Fault
    {
        std::string sFunction;
        std::uint64_t nAtCall; // value of the call counter that fails
        int nCode;
    };

    mutable std::mutex m_mutex;
    std::unordered_map<std::string, std::uint64_t> m_aCallCounts;
    std::vector<Fault> m_aFaults;
};
} // namespace OptixStandIn
