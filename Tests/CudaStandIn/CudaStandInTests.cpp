// The CUDA runtime stand-in's own promises, on which the library's tests rely: the device its environment
// describes, memory accounted against the free figure, and stream work that can be held back until a
// synchronisation, which is how a missing synchronisation shows. (Failing calls on demand are exercised call
// by call by the library's fault sweep.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "RayTracing/Platform.h"
#include "RayTracingCpu.h"
#include "StandInStream.h"
#include "cuda_runtime.h"

namespace
{
constexpr std::uint64_t c_nFree = 1u << 19;

class CudaStandInTest : public ::testing::Test
{
protected:
    void SetUp() override { Configure(false, true); }
    void TearDown() override
    {
        EXPECT_EQ(cudaDeviceSynchronize(), cudaSuccess);
        EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 0u) << "the test leaked stand-in device memory";
        RayTracingCpu::ResetConfig();
        cudaGetLastError();
    }
    static void Configure(bool bDeferStreams, bool bMemoryPools)
    {
        RayTracingCpu::ResetConfig();
        RayTracingCpu::DeviceConfig cConfig = RayTracingCpu::GetConfig();
        cConfig.nTotalMemory = 2 * c_nFree;
        cConfig.nFreeMemory = c_nFree;
        cConfig.bDeferStreams = bDeferStreams;
        cConfig.bMemoryPools = bMemoryPools;
        RayTracingCpu::SetConfig(cConfig);
    }
};

TEST_F(CudaStandInTest, EnvironmentDescribesTheDeviceAndBadValuesKeepTheDefaults)
{
    const std::pair<const char*, const char*> aVariables[] = {
        {"RAYTRACING_CPU_TOTAL_MEMORY", "8589934592"},
        {"RAYTRACING_CPU_FREE_MEMORY", "2000000000"},
        {"RAYTRACING_CPU_COMPUTE_CAPABILITY", "70"},
        {"RAYTRACING_CPU_MEMORY_POOLS", "0"},
        {"RAYTRACING_CPU_MULTIPROCESSORS", "12"},
        {"RAYTRACING_CPU_THREADS_PER_MULTIPROCESSOR", "2048"},
        {"RAYTRACING_CPU_THREADS", "3"},
        {"RAYTRACING_CPU_MAX_PRIMITIVES_PER_GAS", "1000"},
        {"RAYTRACING_CPU_DEFER_STREAMS", "1"},
        {"RAYTRACING_CPU_OPTIX_LIBRARY", "/from/environment.so"},
    };
    for (const auto& [sName, sValue] : aVariables)
        setenv(sName, sValue, 1);
    RayTracingCpu::ResetConfig();
    const RayTracingCpu::DeviceConfig c = RayTracingCpu::GetConfig();
    EXPECT_EQ(PlatformOptixLibraryName(), "/from/environment.so");
    for (const auto& [sName, sValue] : aVariables)
        unsetenv(sName);
    EXPECT_EQ(c.nTotalMemory, 8589934592u);
    EXPECT_EQ(c.nFreeMemory, 2000000000u);
    EXPECT_EQ(c.iComputeCapability, 70);
    EXPECT_FALSE(c.bMemoryPools);
    EXPECT_EQ(c.nMultiprocessors, 12);
    EXPECT_EQ(c.nThreadsPerMultiprocessor, 2048);
    EXPECT_EQ(c.nThreads, 3);
    EXPECT_EQ(c.nMaxPrimitivesPerGas, 1000u);
    EXPECT_TRUE(c.bDeferStreams);
    // Each bad value is reported on stderr and left at its default.
    setenv("RAYTRACING_CPU_COMPUTE_CAPABILITY", "-86", 1);
    setenv("RAYTRACING_CPU_MEMORY_POOLS", "2", 1);
    RayTracingCpu::ResetConfig();
    EXPECT_EQ(RayTracingCpu::GetConfig().iComputeCapability, 86);
    EXPECT_TRUE(RayTracingCpu::GetConfig().bMemoryPools);
    unsetenv("RAYTRACING_CPU_COMPUTE_CAPABILITY");
    unsetenv("RAYTRACING_CPU_MEMORY_POOLS");
}

TEST_F(CudaStandInTest, MemoryIsAccountedAgainstTheFreeFigureAndCopiesStayInside)
{
    void* pFirst = nullptr;
    void* pTooMuch = reinterpret_cast<void*>(1);
    ASSERT_EQ(cudaMalloc(&pFirst, 1000), cudaSuccess);
    EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 1000u);
    EXPECT_EQ(cudaMalloc(&pTooMuch, c_nFree - 1000 + 1), cudaErrorMemoryAllocation);
    EXPECT_EQ(pTooMuch, nullptr);
    std::size_t nFree = 0, nTotal = 0;
    ASSERT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    EXPECT_EQ(nFree, c_nFree - 1000);

    // An overrun or a host pointer where a device one belongs is refused, not written.
    std::vector<char> aHost(1001);
    EXPECT_EQ(cudaMemcpy(pFirst, aHost.data(), 1001, cudaMemcpyHostToDevice), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemcpy(aHost.data(), aHost.data() + 1, 8, cudaMemcpyDeviceToHost), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFree(static_cast<char*>(pFirst) + 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFree(pFirst), cudaSuccess);
    EXPECT_EQ(cudaFree(pFirst), cudaErrorInvalidValue) << "double free";

    // Stream-ordered allocation needs pools.
    Configure(false, false);
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    EXPECT_EQ(cudaMallocAsync(&pFirst, 16, stream), cudaErrorNotSupported);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

class StreamTest : public CudaStandInTest, public ::testing::WithParamInterface<bool>
{
};

TEST_P(StreamTest, WorkRunsInOrderAndDeferredWorkWaitsForASynchronisation)
{
    const bool bDeferred = GetParam();
    Configure(bDeferred, true);
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    int* d_value = nullptr;
    int iIn = 7, iOut = 0;
    ASSERT_EQ(cudaMallocAsync(&d_value, sizeof(int), stream), cudaSuccess);
    ASSERT_EQ(cudaMemcpyAsync(d_value, &iIn, sizeof(int), cudaMemcpyHostToDevice, stream), cudaSuccess);
    ASSERT_EQ(cudaMemcpyAsync(&iOut, d_value, sizeof(int), cudaMemcpyDeviceToHost, stream), cudaSuccess);
    EXPECT_EQ(iOut, bDeferred ? 0 : 7) << "a read before the synchronisation";
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    EXPECT_EQ(iOut, 7);

    // Synchronous calls wait for every stream, as the legacy default stream does.
    iIn = 8;
    ASSERT_EQ(cudaMemcpyAsync(d_value, &iIn, sizeof(int), cudaMemcpyHostToDevice, stream), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(&iOut, d_value, sizeof(int), cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(iOut, 8);
    ASSERT_EQ(cudaFreeAsync(d_value, stream), cudaSuccess);

    // A failure sticks to the stream and reaches every later synchronisation.
    stream->Enqueue([&] { stream->Fail(cudaErrorAssert); });
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaErrorAssert);
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaErrorAssert);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorAssert);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

INSTANTIATE_TEST_SUITE_P(CudaStandIn, StreamTest, ::testing::Bool(),
                         [](const auto& cInfo) { return cInfo.param ? "Deferred" : "Immediate"; });
} // namespace
