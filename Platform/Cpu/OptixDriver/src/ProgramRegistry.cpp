#include "ProgramRegistry.h"

#include <algorithm>
#include <memory>
#include <mutex>

namespace OptixStandIn
{
namespace
{
struct Registry
{
    std::mutex mutex;
    std::map<std::string, std::unique_ptr<RegisteredModule>> aModules;
};

// Constructed on first use: registrars of other translation units run during static initialisation.
Registry& GetRegistry()
{
    static Registry s_cRegistry;
    return s_cRegistry;
}
} // namespace

const RegisteredModule* FindModuleByEntries(const std::vector<std::string>& aEntries, std::string& sError)
{
    std::vector<std::string> aWanted = aEntries;
    std::sort(aWanted.begin(), aWanted.end());
    aWanted.erase(std::unique(aWanted.begin(), aWanted.end()), aWanted.end());

    Registry& cRegistry = GetRegistry();
    std::lock_guard<std::mutex> lock(cRegistry.mutex);
    const RegisteredModule* pFound = nullptr;
    for (const auto& [sName, pModule] : cRegistry.aModules)
    {
        const bool bSame = pModule->aPrograms.size() == aWanted.size() &&
                           std::equal(aWanted.begin(), aWanted.end(), pModule->aPrograms.begin(),
                                      [](const std::string& sEntry, const auto& cProgram)
                                      { return sEntry == cProgram.first; });
        if (!bSame)
            continue;
        if (pFound)
        {
            sError = "the entry functions match both host modules " + pFound->sName + " and " + sName;
            return nullptr;
        }
        pFound = pModule.get();
    }
    if (!pFound)
    {
        sError = "no host-compiled module has exactly the entry functions";
        for (const std::string& sEntry : aWanted)
            sError += " " + sEntry;
    }
    return pFound;
}
} // namespace OptixStandIn

namespace OptixHost
{
bool RegisterProgram(const char* sModule, unsigned int nPayloadValues, const char* sEntry,
                     ProgramFunction fnProgram)
{
    auto& cRegistry = OptixStandIn::GetRegistry();
    std::lock_guard<std::mutex> lock(cRegistry.mutex);
    auto& pModule = cRegistry.aModules[sModule];
    if (!pModule)
    {
        pModule = std::make_unique<OptixStandIn::RegisteredModule>();
        pModule->sName = sModule;
        pModule->nPayloadValues = nPayloadValues;
    }
    return pModule->aPrograms.emplace(sEntry, fnProgram).second;
}
} // namespace OptixHost
