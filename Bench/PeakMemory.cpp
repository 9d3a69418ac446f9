#include "PeakMemory.h"

#include <fstream>
#include <string>

bool ResetPeakMemory()
{
    std::ofstream cFile("/proc/self/clear_refs");
    cFile << "5";
    cFile.close();
    return static_cast<bool>(cFile);
}

std::uint64_t PeakMemoryMb()
{
    std::ifstream cFile("/proc/self/status");
    std::string sLine;
    while (std::getline(cFile, sLine))
        if (sLine.rfind("VmHWM:", 0) == 0)
            return std::stoull(sLine.substr(6)) / 1024; // the kernel reports kB
    return 0;
}
