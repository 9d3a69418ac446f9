#include "PtxEntries.h"

#include <cctype>
#include <cstring>

namespace OptixStandIn
{
namespace
{
bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
bool IsNameChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$';
}
} // namespace

std::vector<std::string> ParseEntryNames(const char* sInput, std::size_t nInputSize)
{
    const char* pEnd = static_cast<const char*>(std::memchr(sInput, '\0', nInputSize));
    const std::string sText(sInput, pEnd ? pEnd : sInput + nInputSize);

    std::vector<std::string> aEntries;
    static const std::string c_sVisible = ".visible";
    for (size_t iPos = sText.find(c_sVisible); iPos != std::string::npos;
         iPos = sText.find(c_sVisible, iPos + 1))
    {
        size_t i = iPos + c_sVisible.size();
        if (i >= sText.size() || !IsBlank(sText[i]))
            continue;
        while (i < sText.size() && IsBlank(sText[i]))
            ++i;
        if (sText.compare(i, 6, ".entry") != 0 || i + 6 >= sText.size() || !IsBlank(sText[i + 6]))
            continue;
        i += 6;
        while (i < sText.size() && IsBlank(sText[i]))
            ++i;
        const size_t iName = i;
        while (i < sText.size() && IsNameChar(sText[i]))
            ++i;
        if (i > iName)
            aEntries.push_back(sText.substr(iName, i - iName));
    }
    return aEntries;
}
} // namespace OptixStandIn
