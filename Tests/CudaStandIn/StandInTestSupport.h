// Shared set-up of the stand-in tests: a small, known device and no faults left from earlier tests.
#pragma once

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "RayTracingCpu.h"
#include "cuda_runtime.h"

constexpr std::uint64_t c_nTestTotalMemory = 1u << 20;
constexpr std::uint64_t c_nTestFreeMemory = 1u << 19;

class StandInTest : public ::testing::Test
{
protected:
    void SetUp() override { Configure(false); }
    void TearDown() override
    {
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 0u) << "a test leaked stand-in device memory";
        RayTracingCpu::ResetConfig();
        cudaGetLastError();
    }

    void Configure(bool bDeferStreams, bool bMemoryPools = true)
    {
        RayTracingCpu::ResetConfig();
        RayTracingCpu::DeviceConfig cConfig = RayTracingCpu::GetConfig();
        cConfig.nTotalMemory = c_nTestTotalMemory;
        cConfig.nFreeMemory = c_nTestFreeMemory;
        cConfig.bDeferStreams = bDeferStreams;
        cConfig.bMemoryPools = bMemoryPools;
        RayTracingCpu::SetConfig(cConfig);
    }
};

// Sets an environment variable for one scope.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char* sName, const char* sValue) : m_sName(sName)
    {
        if (const char* sOld = std::getenv(sName))
        {
            m_bHadValue = true;
            m_sOld = sOld;
        }
        setenv(sName, sValue, 1);
    }
    ~ScopedEnvironment()
    {
        if (m_bHadValue)
            setenv(m_sName.c_str(), m_sOld.c_str(), 1);
        else
            unsetenv(m_sName.c_str());
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

private:
    std::string m_sName;
    std::string m_sOld;
    bool m_bHadValue = false;
};
