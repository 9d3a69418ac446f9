// Records what the CUDA side forwards to the OptiX driver stand-in.
#include <cstring>

#include "FakeOptixControl.h"
#include "OptixDriver/OptixStandInControl.h"

namespace
{
FakeOptixRecorded g_cRecorded{};

const OptixStandInControl c_cControl = {
    [](std::uint32_t nMax) { g_cRecorded.nMaxPrimitives = nMax; },
    [](int nThreads) { g_cRecorded.nThreads = nThreads; },
    [](const char* sFunction, std::uint64_t nCall, int nCode)
    {
        std::strncpy(g_cRecorded.sFaultFunction, sFunction, sizeof(g_cRecorded.sFaultFunction) - 1);
        g_cRecorded.nFaultCall = nCall;
        g_cRecorded.nFaultCode = nCode;
    },
    [] { ++g_cRecorded.nClearFaults; },
    [](const char* sFunction) -> std::uint64_t { return std::strlen(sFunction); },
    [] { ++g_cRecorded.nResetCallCounts; },
    [] { return std::uint64_t(42); },
};
} // namespace

extern "C" __attribute__((visibility("default"))) const OptixStandInControl* RayTracingCpuOptixControl()
{
    return &c_cControl;
}

extern "C" __attribute__((visibility("default"))) FakeOptixRecorded* FakeOptixRecordedState()
{
    return &g_cRecorded;
}
