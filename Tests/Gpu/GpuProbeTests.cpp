// The decision behind skipping the GPU tests: only a missing driver or a missing device skips; a driver that
// answers badly is a failure. The driver library is the stand-in FakeCudaDriver.c.
#include "GpuProbe.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{
struct ProbeCase
{
    const char* sName;
    CudaDriverAnswers cAnswers;
    GpuVerdict eVerdict;
    const char* sReasonPart;
};

void PrintTo(const ProbeCase& c, std::ostream* pStream)
{
    *pStream << c.sName;
}

const ProbeCase c_aCases[] = {
    {"NoDriverLibrary", {"libcuda.so.1: cannot open shared object file"}, GpuVerdict::Skip, "cannot open"},
    {"ToolkitStub", {"", "", 34}, GpuVerdict::Skip, "stub"},
    {"NoDevice", {"", "", 100}, GpuVerdict::Skip, "CUDA_ERROR_NO_DEVICE"},
    {"ZeroDevices", {"", "", 0, 0, 0}, GpuVerdict::Skip, "no CUDA device"},
    {"DriverLacksEntry", {"", "cuDeviceGetCount"}, GpuVerdict::Fail, "cuDeviceGetCount"},
    {"InitFails", {"", "", 999}, GpuVerdict::Fail, "error 999"},
    {"CountFails", {"", "", 0, 3}, GpuVerdict::Fail, "cuDeviceGetCount failed"},
    {"OneDevice", {"", "", 0, 0, 1}, GpuVerdict::Run, "1 CUDA device"},
};

class GpuDecisionTest : public ::testing::TestWithParam<ProbeCase>
{
};

TEST_P(GpuDecisionTest, SkipsOnlyWithoutDriverOrDevice)
{
    const GpuDecision c = DecideGpu(GetParam().cAnswers);
    EXPECT_EQ(c.eVerdict, GetParam().eVerdict);
    EXPECT_NE(c.sReason.find(GetParam().sReasonPart), std::string::npos) << c.sReason;
}

INSTANTIATE_TEST_SUITE_P(GpuProbe, GpuDecisionTest, ::testing::ValuesIn(c_aCases),
                         [](const auto& cInfo) { return std::string(cInfo.param.sName); });

TEST(GpuProbe, AsksTheDriverLibraryItFinds)
{
    ASSERT_EQ(setenv("FAKE_CUDA_DEVICES", "2", 1), 0);
    ASSERT_EQ(setenv("FAKE_CUDA_INIT_RESULT", "0", 1), 0);
    const GpuDecision cTwo = DecideGpu(AskCudaDriver(FAKE_CUDA_DRIVER));
    EXPECT_EQ(cTwo.eVerdict, GpuVerdict::Run) << cTwo.sReason;
    EXPECT_EQ(cTwo.sReason, "2 CUDA device(s)");

    ASSERT_EQ(setenv("FAKE_CUDA_INIT_RESULT", "100", 1), 0);
    EXPECT_EQ(DecideGpu(AskCudaDriver(FAKE_CUDA_DRIVER)).eVerdict, GpuVerdict::Skip);
    unsetenv("FAKE_CUDA_INIT_RESULT");
    unsetenv("FAKE_CUDA_DEVICES");

    const GpuDecision cMissing = DecideGpu(AskCudaDriver("/nonexistent/libcuda.so.1"));
    EXPECT_EQ(cMissing.eVerdict, GpuVerdict::Skip);
    EXPECT_NE(cMissing.sReason.find("/nonexistent/libcuda.so.1"), std::string::npos) << cMissing.sReason;
}

// The tool and the benchmark keep dlerror()'s text; so does the suite.
TEST(GpuProbe, SaysWhyOptixDoesNotLoad)
{
    const std::string s = DescribeOptixLibrary("/nonexistent/libnvoptix.so.1");
    EXPECT_NE(s.find("does not load: /nonexistent/libnvoptix.so.1"), std::string::npos) << s;
    EXPECT_NE(DescribeOptixLibrary(FAKE_CUDA_DRIVER).find("lacks optixQueryFunctionTable"),
              std::string::npos);
}
} // namespace
