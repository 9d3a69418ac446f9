#include <gtest/gtest.h>

#include <cstring>

#include "StandInHarness.h"

namespace
{
struct LogLine
{
    unsigned int nLevel;
    std::string sTag;
    std::string sMessage;
};

void CollectLog(unsigned int nLevel, const char* sTag, const char* sMessage, void* pData)
{
    static_cast<std::vector<LogLine>*>(pData)->push_back(LogLine{nLevel, sTag, sMessage});
}

OptixDeviceContextOptions LogOptions(std::vector<LogLine>& aLog, int nLevel)
{
    OptixDeviceContextOptions cOptions{};
    cOptions.logCallbackFunction = &CollectLog;
    cOptions.logCallbackData = &aLog;
    cOptions.logCallbackLevel = nLevel;
    return cOptions;
}

// Triggers an error message: a module text with entries no module registered.
void FailModuleCreate(OptixDeviceContext hContext)
{
    const OptixModuleCompileOptions cModuleOptions{};
    const OptixPipelineCompileOptions cOptions = TestPipelineOptions();
    OptixModule hModule = nullptr;
    EXPECT_EQ(Optix().optixModuleCreate(hContext, &cModuleOptions, &cOptions, c_sUnknownModuleText,
                                        std::strlen(c_sUnknownModuleText), nullptr, nullptr, &hModule),
              OPTIX_ERROR_INVALID_INPUT);
}

TEST(Context, LogCallbackSeesOnlyEnabledLevels)
{
    std::vector<LogLine> aPrint;
    {
        const OptixDeviceContextOptions cOptions = LogOptions(aPrint, 4);
        ContextOwner cContext(&cOptions);
        FailModuleCreate(cContext.Get());
    }
    ASSERT_EQ(aPrint.size(), 2u);
    EXPECT_EQ(aPrint[0].nLevel, 4u);
    EXPECT_EQ(aPrint[0].sTag, "DEVICE");
    EXPECT_EQ(aPrint[1].nLevel, 2u);
    EXPECT_NE(aPrint[1].sMessage.find("__raygen__nobody"), std::string::npos) << aPrint[1].sMessage;
    EXPECT_NE(aPrint[1].sMessage.back(), '\n');

    std::vector<LogLine> aFatal;
    {
        const OptixDeviceContextOptions cOptions = LogOptions(aFatal, 1);
        ContextOwner cContext(&cOptions);
        FailModuleCreate(cContext.Get());
    }
    EXPECT_TRUE(aFatal.empty());

    std::vector<LogLine> aUnused;
    OptixDeviceContextOptions cBad = LogOptions(aUnused, 5);
    OptixDeviceContext hContext = nullptr;
    EXPECT_EQ(Optix().optixDeviceContextCreate(nullptr, &cBad, &hContext), OPTIX_ERROR_INVALID_VALUE);
    cBad.logCallbackLevel = 4;
    cBad.validationMode = static_cast<OptixDeviceContextValidationMode>(3);
    EXPECT_EQ(Optix().optixDeviceContextCreate(nullptr, &cBad, &hContext), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(hContext, nullptr);
}

TEST(Context, PrimitiveLimitIsConfigurable)
{
    ContextOwner cContext;
    unsigned int nMax = 0;
    ASSERT_EQ(Optix().optixDeviceContextGetProperty(
                  cContext.Get(), OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS, &nMax, sizeof(nMax)),
              OPTIX_SUCCESS);
    EXPECT_EQ(nMax, 1u << 29);
    Control().SetMaxPrimitivesPerGas(1000);
    EXPECT_EQ(Optix().optixDeviceContextGetProperty(
                  cContext.Get(), OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS, &nMax, sizeof(nMax)),
              OPTIX_SUCCESS);
    EXPECT_EQ(nMax, 1000u);
    Control().SetMaxPrimitivesPerGas(1u << 29);

    unsigned long long nWide = 0;
    EXPECT_EQ(Optix().optixDeviceContextGetProperty(
                  cContext.Get(), OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS, &nWide, sizeof(nWide)),
              OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(Optix().optixDeviceContextGetProperty(cContext.Get(), static_cast<OptixDeviceProperty>(0x1234),
                                                    &nMax, sizeof(nMax)),
              OPTIX_ERROR_INVALID_VALUE);
}

TEST(Context, CountsLiveObjectsAndReleasesLeftoversWithTheContext)
{
    const std::uint64_t nBefore = Control().LiveObjects();
    OptixDeviceContext hContext = nullptr;
    ASSERT_EQ(Optix().optixDeviceContextCreate(nullptr, nullptr, &hContext), OPTIX_SUCCESS);
    {
        TestPipeline cPipeline(hContext);
        EXPECT_EQ(Control().LiveObjects(), nBefore + 6); // context, module, three groups, pipeline
    }
    EXPECT_EQ(Control().LiveObjects(), nBefore + 1);

    // Objects left behind go with their context, as in the driver.
    OptixModule hModule = nullptr;
    const OptixModuleCompileOptions cModuleOptions{};
    const OptixPipelineCompileOptions cOptions = TestPipelineOptions();
    ASSERT_EQ(Optix().optixModuleCreate(hContext, &cModuleOptions, &cOptions, c_sTestModuleText,
                                        std::strlen(c_sTestModuleText), nullptr, nullptr, &hModule),
              OPTIX_SUCCESS);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hContext), OPTIX_SUCCESS);
    EXPECT_EQ(Control().LiveObjects(), nBefore);

    // Stale handles are errors, not crashes.
    EXPECT_EQ(Optix().optixModuleDestroy(hModule), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hContext), OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(nullptr), OPTIX_ERROR_INVALID_VALUE);
}

TEST(Context, InjectedFaultsCountCallsAndFailedDestroysStillRelease)
{
    const std::uint64_t nBefore = Control().LiveObjects();
    Control().ResetCallCounts();
    Control().InjectFault("optixDeviceContextCreate", 2, OPTIX_ERROR_HOST_OUT_OF_MEMORY);
    OptixDeviceContext hFirst = nullptr;
    OptixDeviceContext hSecond = nullptr;
    EXPECT_EQ(Optix().optixDeviceContextCreate(nullptr, nullptr, &hFirst), OPTIX_SUCCESS);
    EXPECT_EQ(Optix().optixDeviceContextCreate(nullptr, nullptr, &hSecond), OPTIX_ERROR_HOST_OUT_OF_MEMORY);
    EXPECT_EQ(Control().CallCount("optixDeviceContextCreate"), 2u);
    EXPECT_EQ(Control().LiveObjects(), nBefore + 1);

    Control().InjectFault("optixDeviceContextDestroy", 1, OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hFirst), OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Control().LiveObjects(), nBefore);

    Control().InjectFault("optixDeviceContextCreate", 1, OPTIX_ERROR_HOST_OUT_OF_MEMORY);
    Control().ClearFaults();
    EXPECT_EQ(Optix().optixDeviceContextCreate(nullptr, nullptr, &hSecond), OPTIX_SUCCESS);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hSecond), OPTIX_SUCCESS);
}
} // namespace
