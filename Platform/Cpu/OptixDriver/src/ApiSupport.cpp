#include "ApiSupport.h"

#include <algorithm>
#include <cstring>

namespace OptixStandIn
{
void LogBuffer::Write(const std::string& sText) const
{
    if (!m_sLog || !m_pLogSize || *m_pLogSize == 0)
        return;
    const size_t nCopy = std::min(sText.size(), *m_pLogSize - 1);
    std::memcpy(m_sLog, sText.data(), nCopy);
    m_sLog[nCopy] = '\0';
    *m_pLogSize = sText.size() + 1;
}

OptixResult Fail(OptixDeviceContext_t* pContext, const LogBuffer* pLog, OptixResult result,
                 const std::string& sMessage)
{
    if (pLog)
        pLog->Write(sMessage);
    if (pContext)
        pContext->Log(2, "ERROR", sMessage);
    return result;
}
} // namespace OptixStandIn
