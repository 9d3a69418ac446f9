#include <dlfcn.h>
#include <unistd.h>

#include "RayTracing/Platform.h"

#include "FakeOptixControl.h"
#include "StandInTestSupport.h"

using FaultInjectionTest = StandInTest;

TEST_F(FaultInjectionTest, NthCallFailsOnceWithoutDoingTheWork)
{
    RayTracingCpu::ResetCallCounts();
    RayTracingCpu::InjectFault("cudaMalloc", 2, cudaErrorMemoryAllocation);
    RayTracingCpu::InjectFault("cudaMalloc", 3, cudaErrorUnknown);

    void* pFirst = nullptr;
    void* pSecond = reinterpret_cast<void*>(1);
    void* pThird = nullptr;
    void* pFourth = nullptr;
    EXPECT_EQ(cudaMalloc(&pFirst, 64), cudaSuccess);
    EXPECT_EQ(cudaMalloc(&pSecond, 64), cudaErrorMemoryAllocation);
    EXPECT_EQ(pSecond, reinterpret_cast<void*>(1)) << "an injected failure leaves the output alone";
    EXPECT_EQ(cudaMalloc(&pThird, 64), cudaErrorUnknown);
    EXPECT_EQ(cudaMalloc(&pFourth, 64), cudaSuccess);
    EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 128u);
    EXPECT_EQ(RayTracingCpu::CallCount("cudaMalloc"), 4u);
    EXPECT_EQ(RayTracingCpu::CallCount("cudaFree"), 0u);
    EXPECT_EQ(cudaGetLastError(), cudaErrorUnknown);

    // A fault counts from when it is injected, whatever the counts say.
    RayTracingCpu::ResetCallCounts();
    RayTracingCpu::InjectFault("cudaFree", 1, cudaErrorLaunchFailure);
    EXPECT_EQ(cudaFree(pFirst), cudaErrorLaunchFailure);
    EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 128u);
    EXPECT_EQ(cudaFree(pFirst), cudaSuccess);
    EXPECT_EQ(cudaFree(pFourth), cudaSuccess);
    EXPECT_EQ(RayTracingCpu::CallCount("cudaFree"), 3u);
}

TEST_F(FaultInjectionTest, ClearingAndResettingDropPendingFaults)
{
    RayTracingCpu::InjectFault("cudaStreamCreate", 1, cudaErrorMemoryAllocation);
    RayTracingCpu::ClearFaults();
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    RayTracingCpu::InjectFault("cudaStreamSynchronize", 1, cudaErrorAssert);
    RayTracingCpu::ResetConfig();
    EXPECT_EQ(RayTracingCpu::CallCount("cudaStreamCreate"), 0u);
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaSuccess);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

TEST_F(FaultInjectionTest, DriverSideSettingsGoToTheOptixStandIn)
{
    RayTracingCpu::SetOptixLibrary(FAKE_OPTIX_CONTROL_PATH);
    void* pHandle = dlopen(FAKE_OPTIX_CONTROL_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(pHandle, nullptr) << dlerror();
    auto fnRecorded = reinterpret_cast<FakeOptixRecorded* (*)()>(dlsym(pHandle, "FakeOptixRecordedState"));
    ASSERT_NE(fnRecorded, nullptr);
    FakeOptixRecorded& cRecorded = *fnRecorded();

    RayTracingCpu::DeviceConfig cConfig = RayTracingCpu::GetConfig();
    cConfig.nMaxPrimitivesPerGas = 1000;
    cConfig.nThreads = 3;
    RayTracingCpu::SetConfig(cConfig);
    EXPECT_EQ(cRecorded.nMaxPrimitives, 1000u);
    EXPECT_EQ(cRecorded.nThreads, 3);

    RayTracingCpu::InjectFault("optixLaunch", 2, 7050);
    EXPECT_STREQ(cRecorded.sFaultFunction, "optixLaunch");
    EXPECT_EQ(cRecorded.nFaultCall, 2u);
    EXPECT_EQ(cRecorded.nFaultCode, 7050);
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 11u) << "the fake answers the name's length";
    EXPECT_EQ(RayTracingCpu::CallCount("cudaLaunch"), 0u) << "CUDA names stay on the CUDA side";
    EXPECT_EQ(RayTracingCpu::LiveOptixObjects(), 42u);

    int nClears = cRecorded.nClearFaults;
    int nResets = cRecorded.nResetCallCounts;
    RayTracingCpu::ResetConfig();
    EXPECT_EQ(cRecorded.nClearFaults, nClears + 1);
    EXPECT_EQ(cRecorded.nResetCallCounts, nResets + 1);

    RayTracingCpu::SetOptixLibrary("/nonexistent/libRayTracingCpuOptix.so");
    EXPECT_EQ(RayTracingCpu::LiveOptixObjects(), 0u) << "without the driver the CUDA side still answers";
    RayTracingCpu::SetOptixLibrary("");
    dlclose(pHandle);
}

TEST(OptixLibraryNameTest, SetValueThenEnvironmentThenNextToTheCode)
{
    RayTracingCpu::SetOptixLibrary("/opt/custom/libnvoptix.so.1");
    EXPECT_EQ(RayTracingCpu::GetOptixLibrary(), "/opt/custom/libnvoptix.so.1");
    EXPECT_EQ(PlatformOptixLibraryName(), "/opt/custom/libnvoptix.so.1");
    RayTracingCpu::SetOptixLibrary("");
    {
        ScopedEnvironment cEnvironment("RAYTRACING_CPU_OPTIX_LIBRARY", "/from/environment.so");
        EXPECT_EQ(PlatformOptixLibraryName(), "/from/environment.so");
    }
    // Built here, the stand-in driver lies in build/lib while this test runs from build/bin.
    std::string sFound = PlatformOptixLibraryName();
    const std::string sName = "libRayTracingCpuOptix.so";
    ASSERT_GE(sFound.size(), sName.size());
    EXPECT_EQ(sFound.substr(sFound.size() - sName.size()), sName);
    if (sFound != sName)
    {
        EXPECT_EQ(sFound.front(), '/');
        EXPECT_EQ(access(sFound.c_str(), R_OK), 0) << sFound;
    }
}
