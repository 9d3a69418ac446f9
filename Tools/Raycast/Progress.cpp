#include "Progress.h"

#include <string>
#include <unistd.h>

Progress::Progress(std::uint64_t nTotal, bool bEnabled, std::FILE* pStream)
    : m_nTotal(nTotal), m_bEnabled(bEnabled), m_pStream(pStream), m_cStart(std::chrono::steady_clock::now())
{
}

Progress::~Progress()
{
    if (m_bEnabled && m_nLastWidth > 0)
    {
        std::fprintf(m_pStream, "\r%*s\r", static_cast<int>(m_nLastWidth), "");
        std::fflush(m_pStream);
    }
}

void Progress::Update(std::uint64_t nDone)
{
    if (!m_bEnabled || m_nTotal == 0)
        return;
    const double fSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - m_cStart).count();
    const double fRate = fSeconds > 0.0 ? nDone / fSeconds : 0.0;
    const long nLeft = fRate > 0.0 ? static_cast<long>((m_nTotal - nDone) / fRate + 0.5) : 0;
    char aLine[160];
    const int nWidth = std::snprintf(
        aLine, sizeof(aLine), "  %.2fM / %.2fM rays (%.0f%%)  %.2f M rays/s  %ld:%02ld left", nDone * 1e-6,
        m_nTotal * 1e-6, 100.0 * nDone / m_nTotal, fRate * 1e-6, nLeft / 60, nLeft % 60);
    const std::size_t nPad = m_nLastWidth > static_cast<std::size_t>(nWidth) ? m_nLastWidth - nWidth : 0;
    std::fprintf(m_pStream, "\r%s%*s", aLine, static_cast<int>(nPad), "");
    std::fflush(m_pStream);
    m_nLastWidth = static_cast<std::size_t>(nWidth);
}

bool StdoutIsTerminal()
{
    return isatty(STDOUT_FILENO) == 1;
}
