// The entry functions a module text declares: its ".visible .entry NAME" lines.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace OptixStandIn
{
// Reads sInput up to nInputSize characters or its first NUL, whichever comes first.
std::vector<std::string> ParseEntryNames(const char* sInput, std::size_t nInputSize);
} // namespace OptixStandIn
