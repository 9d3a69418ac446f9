#include "BudgetSearch.h"

#include <stdexcept>

std::uint64_t SmallestAcceptedFreeMemory(const TryFreeMemory& fnTry)
{
    const auto Accepted = [&](std::uint64_t nFreeGPUMemory)
    {
        std::string sError;
        const RayTracingErrorType eResult = fnTry(nFreeGPUMemory, sError);
        if (eResult == Success)
            return true;
        if (eResult == OutOfMemory)
            return false;
        throw std::runtime_error("RayTracing returned " + std::to_string(eResult) + " with nFreeGPUMemory " +
                                 std::to_string(nFreeGPUMemory) + ": " + sError);
    };
    // 0 would mean "measure": start above it.
    std::uint64_t nRefused = 1;
    std::uint64_t nAccepted = std::uint64_t(1) << 30;
    while (!Accepted(nAccepted))
    {
        nRefused = nAccepted;
        if (nAccepted >= (std::uint64_t(1) << 44))
            throw std::runtime_error("no nFreeGPUMemory figure up to 16 TiB is accepted");
        nAccepted *= 2;
    }
    while (nAccepted - nRefused > 256)
    {
        const std::uint64_t nMiddle = nRefused + (nAccepted - nRefused) / 2;
        (Accepted(nMiddle) ? nAccepted : nRefused) = nMiddle;
    }
    return nAccepted;
}
