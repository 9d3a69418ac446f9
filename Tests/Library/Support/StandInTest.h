// Base fixture: every test starts from a known stand-in device and leaves no configuration or fault behind.
#pragma once

#include "RayTracingCpu.h"

#include <gtest/gtest.h>

#include <cstdint>

class StandInTest : public ::testing::Test
{
protected:
    static constexpr std::uint64_t c_nGiB = 1ull << 30;

    // 8 GiB, compute capability 8.6, memory pools, two multiprocessors: independent of the host's
    // environment.
    static RayTracingCpu::DeviceConfig DefaultDevice()
    {
        RayTracingCpu::DeviceConfig cConfig = RayTracingCpu::GetConfig();
        cConfig.nTotalMemory = 8 * c_nGiB;
        cConfig.nFreeMemory = 8 * c_nGiB;
        cConfig.iComputeCapability = 86;
        cConfig.bMemoryPools = true;
        cConfig.nMultiprocessors = 2;
        cConfig.nThreadsPerMultiprocessor = 1536;
        cConfig.nMaxPrimitivesPerGas = 1u << 29;
        cConfig.bDeferStreams = false;
        return cConfig;
    }

    void SetUp() override
    {
        RayTracingCpu::ResetConfig();
        RayTracingCpu::SetOptixLibrary("");
        RayTracingCpu::SetConfig(DefaultDevice());
        RayTracingCpu::ResetCallCounts();
        m_nLiveDeviceBytes = RayTracingCpu::LiveDeviceBytes();
        m_nLiveOptixObjects = RayTracingCpu::LiveOptixObjects();
    }

    void TearDown() override
    {
        RayTracingCpu::ResetConfig();
        RayTracingCpu::SetOptixLibrary("");
    }

    template <typename Change> static void Configure(Change fnChange)
    {
        RayTracingCpu::DeviceConfig cConfig = RayTracingCpu::GetConfig();
        fnChange(cConfig);
        RayTracingCpu::SetConfig(cConfig);
    }

    // Every call must give back all device memory and OptiX objects, whatever happened.
    void ExpectNothingLeaked() const
    {
        EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), m_nLiveDeviceBytes) << "device memory leaked";
        EXPECT_EQ(RayTracingCpu::LiveOptixObjects(), m_nLiveOptixObjects) << "OptiX objects leaked";
    }

private:
    std::uint64_t m_nLiveDeviceBytes = 0;
    std::uint64_t m_nLiveOptixObjects = 0;
};
