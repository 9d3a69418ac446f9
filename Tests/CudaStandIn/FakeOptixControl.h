// What the fake OptiX control library was told; the test reads it through dlsym("FakeOptixRecorded").
#pragma once

#include <cstdint>

struct FakeOptixRecorded
{
    std::uint32_t nMaxPrimitives;
    int nThreads;
    char sFaultFunction[64];
    std::uint64_t nFaultCall;
    int nFaultCode;
    int nClearFaults;
    int nResetCallCounts;
};
