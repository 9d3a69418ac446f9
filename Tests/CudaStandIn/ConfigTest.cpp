#include "StandInTestSupport.h"

namespace
{
// The environment variables of a test are gone by tear-down, so the next test starts from a clean one.
class ConfigTest : public ::testing::Test
{
protected:
    void TearDown() override { RayTracingCpu::ResetConfig(); }
};
} // namespace

TEST_F(ConfigTest, EnvironmentDescribesTheDevice)
{
    ScopedEnvironment cTotal("RAYTRACING_CPU_TOTAL_MEMORY", "8589934592");
    ScopedEnvironment cFree("RAYTRACING_CPU_FREE_MEMORY", "2000000000");
    ScopedEnvironment cCapability("RAYTRACING_CPU_COMPUTE_CAPABILITY", "70");
    ScopedEnvironment cPools("RAYTRACING_CPU_MEMORY_POOLS", "0");
    ScopedEnvironment cProcessors("RAYTRACING_CPU_MULTIPROCESSORS", "12");
    ScopedEnvironment cThreadsPer("RAYTRACING_CPU_THREADS_PER_MULTIPROCESSOR", "2048");
    ScopedEnvironment cThreads("RAYTRACING_CPU_THREADS", "3");
    ScopedEnvironment cPrimitives("RAYTRACING_CPU_MAX_PRIMITIVES_PER_GAS", "1000");
    ScopedEnvironment cDefer("RAYTRACING_CPU_DEFER_STREAMS", "1");
    RayTracingCpu::ResetConfig();

    RayTracingCpu::DeviceConfig cConfig = RayTracingCpu::GetConfig();
    EXPECT_EQ(cConfig.nTotalMemory, 8589934592u);
    EXPECT_EQ(cConfig.nFreeMemory, 2000000000u);
    EXPECT_EQ(cConfig.iComputeCapability, 70);
    EXPECT_FALSE(cConfig.bMemoryPools);
    EXPECT_EQ(cConfig.nMultiprocessors, 12);
    EXPECT_EQ(cConfig.nThreadsPerMultiprocessor, 2048);
    EXPECT_EQ(cConfig.nThreads, 3);
    EXPECT_EQ(cConfig.nMaxPrimitivesPerGas, 1000u);
    EXPECT_TRUE(cConfig.bDeferStreams);

    // What the library reads during device set-up.
    size_t nFree = 0, nTotal = 0;
    ASSERT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    EXPECT_EQ(nFree, 2000000000u);
    EXPECT_EQ(nTotal, 8589934592u);
    cudaDeviceProp prop;
    ASSERT_EQ(cudaGetDeviceProperties(&prop, 0), cudaSuccess);
    EXPECT_EQ(prop.major, 7);
    EXPECT_EQ(prop.minor, 0);
    EXPECT_EQ(prop.totalGlobalMem, 8589934592u);
    EXPECT_EQ(prop.multiProcessorCount, 12);
    EXPECT_EQ(prop.maxThreadsPerMultiProcessor, 2048);
    int iValue = -1;
    ASSERT_EQ(cudaDeviceGetAttribute(&iValue, cudaDevAttrMemoryPoolsSupported, 0), cudaSuccess);
    EXPECT_EQ(iValue, 0);
    ASSERT_EQ(cudaDeviceGetAttribute(&iValue, cudaDevAttrMultiProcessorCount, 0), cudaSuccess);
    EXPECT_EQ(iValue, 12);
    ASSERT_EQ(cudaDeviceGetAttribute(&iValue, cudaDevAttrMaxThreadsPerMultiProcessor, 0), cudaSuccess);
    EXPECT_EQ(iValue, 2048);
}

TEST_F(ConfigTest, HostDefaultsAndInvalidValues)
{
    RayTracingCpu::DeviceConfig cConfig;
    {
        // Each invalid value is reported on stderr and left at its default.
        ScopedEnvironment cTotal("RAYTRACING_CPU_TOTAL_MEMORY", "lots");
        ScopedEnvironment cCapability("RAYTRACING_CPU_COMPUTE_CAPABILITY", "-86");
        ScopedEnvironment cPools("RAYTRACING_CPU_MEMORY_POOLS", "2");
        ScopedEnvironment cThreads("RAYTRACING_CPU_THREADS", "0");
        RayTracingCpu::ResetConfig();
        cConfig = RayTracingCpu::GetConfig();
    }
    EXPECT_GT(cConfig.nTotalMemory, 0u) << "physical memory of the host";
    EXPECT_GT(cConfig.nFreeMemory, 0u);
    EXPECT_LE(cConfig.nFreeMemory, cConfig.nTotalMemory);
    EXPECT_EQ(cConfig.iComputeCapability, 86);
    EXPECT_TRUE(cConfig.bMemoryPools);
    EXPECT_GE(cConfig.nThreads, 1);
    EXPECT_GE(cConfig.nMultiprocessors, 1);

    // Free memory beyond the total cannot exist, whichever way it is set.
    cConfig.nTotalMemory = 1000;
    cConfig.nFreeMemory = 5000;
    RayTracingCpu::SetConfig(cConfig);
    EXPECT_EQ(RayTracingCpu::GetConfig().nFreeMemory, 1000u);
}

TEST_F(ConfigTest, OnlyDeviceZeroExists)
{
    int iCount = 0, iDevice = -1;
    EXPECT_EQ(cudaGetDeviceCount(&iCount), cudaSuccess);
    EXPECT_EQ(iCount, 1);
    EXPECT_EQ(cudaSetDevice(0), cudaSuccess);
    EXPECT_EQ(cudaGetDevice(&iDevice), cudaSuccess);
    EXPECT_EQ(iDevice, 0);
    cudaDeviceProp prop;
    EXPECT_EQ(cudaSetDevice(1), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaSetDevice(-1), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaGetDeviceProperties(&prop, 1), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaGetDeviceProperties(nullptr, 0), cudaErrorInvalidValue);
    int iValue = 0;
    EXPECT_EQ(cudaDeviceGetAttribute(&iValue, cudaDevAttrWarpSize, 2), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaDeviceGetAttribute(&iValue, static_cast<cudaDeviceAttr>(100000), 0), cudaErrorInvalidValue);
    int iVersion = 0;
    EXPECT_EQ(cudaRuntimeGetVersion(&iVersion), cudaSuccess);
    EXPECT_EQ(iVersion, CUDART_VERSION);
    EXPECT_EQ(cudaDriverGetVersion(&iVersion), cudaSuccess);
    EXPECT_GE(iVersion, CUDART_VERSION);
    cudaGetLastError();
}
