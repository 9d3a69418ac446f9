// Device set-up: selects the GPU, measures it and fixes the memory budget of the work that follows.
#pragma once

#include <cstdint>

#include "RayTracingChecks.h"

struct DeviceBudget
{
    std::uint64_t nFreeGPUMemory = 0; // free memory less the reserve
    bool bMemoryPoolsSupported = false;
    bool bCC75 = false; // compute capability 7.5 or higher: hit distances sorted on the device
};

// nFreeGPUMemory is the caller's figure, or 0 to measure it. Check failures leave as thrown strings; too
// little memory is {OutOfMemory, "Not enough free GPU memory."}.
ErrorResult SetUpDevice(int iGpuId, std::uint64_t nFreeGPUMemory, DeviceBudget& cBudget);
