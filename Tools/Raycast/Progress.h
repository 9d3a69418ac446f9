// One self-overwriting status line on a terminal: rays done, rate, time left.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

class Progress
{
public:
    // Shows nothing unless bEnabled; callers pass StdoutIsTerminal() so that redirected output stays clean.
    Progress(std::uint64_t nTotal, bool bEnabled, std::FILE* pStream = stdout);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Update(std::uint64_t nDone);

private:
    std::uint64_t m_nTotal;
    bool m_bEnabled;
    std::FILE* m_pStream;
    std::size_t m_nLastWidth = 0;
    std::chrono::steady_clock::time_point m_cStart;
};

bool StdoutIsTerminal();
