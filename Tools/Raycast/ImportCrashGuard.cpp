#include "ImportCrashGuard.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <unistd.h>

namespace
{
const int c_aSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

// A signal handler sees only static storage: the message is composed before the import starts.
char s_aPrefix[1024];
std::size_t s_nPrefix = 0;

void Write(const char* sText, std::size_t nBytes)
{
    while (nBytes > 0)
    {
        const ssize_t nWritten = write(STDERR_FILENO, sText, nBytes);
        if (nWritten <= 0)
            return;
        sText += nWritten;
        nBytes -= static_cast<std::size_t>(nWritten);
    }
}

extern "C" void OnImporterCrash(int iSignal)
{
    const char* sSignal = iSignal == SIGSEGV  ? "segmentation fault"
                          : iSignal == SIGBUS ? "bus error"
                          : iSignal == SIGFPE ? "arithmetic fault"
                          : iSignal == SIGILL ? "illegal instruction"
                                              : "abort";
    const char c_sEnd[] = "): the file is malformed or uses what the importer cannot read\n";
    Write(s_aPrefix, s_nPrefix);
    Write(sSignal, std::strlen(sSignal));
    Write(c_sEnd, sizeof(c_sEnd) - 1);
    _exit(1);
}
} // namespace

ImportCrashGuard::ImportCrashGuard(const std::string& sPath)
    : m_aStack(std::max<std::size_t>(SIGSTKSZ, 1 << 16))
{
    const std::string sPrefix = "raycast: error: " + sPath + ": the importer crashed (";
    s_nPrefix = std::min(sPrefix.size(), sizeof(s_aPrefix));
    std::memcpy(s_aPrefix, sPrefix.data(), s_nPrefix);

    stack_t cStack = {};
    cStack.ss_sp = m_aStack.data();
    cStack.ss_size = m_aStack.size();
    sigaltstack(&cStack, &m_cPreviousStack);
    struct sigaction cAction = {};
    cAction.sa_handler = OnImporterCrash;
    cAction.sa_flags = SA_ONSTACK;
    sigemptyset(&cAction.sa_mask);
    for (std::size_t i = 0; i < std::size(c_aSignals); ++i)
        sigaction(c_aSignals[i], &cAction, &m_aPrevious[i]);
}

ImportCrashGuard::~ImportCrashGuard()
{
    for (std::size_t i = 0; i < std::size(c_aSignals); ++i)
        sigaction(c_aSignals[i], &m_aPrevious[i], nullptr);
    sigaltstack(&m_cPreviousStack, nullptr);
}
