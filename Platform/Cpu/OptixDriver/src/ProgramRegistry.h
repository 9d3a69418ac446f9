// The host-compiled device programs, registered by module name at load time (RT_PROGRAM's registrars).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "OptixDeviceHost.h"

namespace OptixStandIn
{
struct RegisteredModule
{
    std::string sName;
    unsigned int nPayloadValues = 0;
    std::map<std::string, OptixHost::ProgramFunction> aPrograms; // by entry name
};

// The module registered with exactly these entry names, or null; sError says why not.
const RegisteredModule* FindModuleByEntries(const std::vector<std::string>& aEntries, std::string& sError);
} // namespace OptixStandIn
