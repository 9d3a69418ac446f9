#include <gtest/gtest.h>

#include <cstring>

#include "StandInHarness.h"

// The stack-size helpers of OptixApi.h call through the library's global table.
OptixFunctionTable g_optixFunctionTable;

namespace
{
class ModuleTest : public testing::Test
{
protected:
    OptixResult CreateModule(const char* sText, size_t nSize, const OptixPipelineCompileOptions& cOptions,
                             OptixModule* pModule)
    {
        m_nLogSize = sizeof(m_aLog);
        return Optix().optixModuleCreate(m_cContext.Get(), &m_cModuleOptions, &cOptions, sText, nSize, m_aLog,
                                         &m_nLogSize, pModule);
    }

    std::string Log() const { return m_aLog; }

    ContextOwner m_cContext;
    OptixModuleCompileOptions m_cModuleOptions{};
    char m_aLog[512] = {};
    size_t m_nLogSize = 0;
};

TEST_F(ModuleTest, RefusesTextsWithoutMatchingHostPrograms)
{
    OptixModule hModule = nullptr;
    const OptixPipelineCompileOptions cOptions = TestPipelineOptions();
    EXPECT_EQ(CreateModule(c_sUnknownModuleText, std::strlen(c_sUnknownModuleText), cOptions, &hModule),
              OPTIX_ERROR_INVALID_INPUT);
    EXPECT_NE(Log().find("__raygen__nobody"), std::string::npos) << Log();
    EXPECT_EQ(m_nLogSize, Log().size() + 1);
    EXPECT_EQ(hModule, nullptr);

    // The text ends at inputSize or at its first NUL: a cut text names fewer entries than the module has.
    const size_t nFirstEntry = std::strstr(c_sTestModuleText, "__miss__test") - c_sTestModuleText;
    EXPECT_EQ(CreateModule(c_sTestModuleText, nFirstEntry, cOptions, &hModule), OPTIX_ERROR_INVALID_INPUT);
    std::string sWithNul(c_sTestModuleText);
    sWithNul[nFirstEntry] = '\0';
    EXPECT_EQ(CreateModule(sWithNul.data(), sWithNul.size(), cOptions, &hModule), OPTIX_ERROR_INVALID_INPUT);
    EXPECT_EQ(CreateModule("", 0, cOptions, &hModule), OPTIX_ERROR_INVALID_VALUE);
}

TEST_F(ModuleTest, ChecksPayloadCountAndPipelineOptions)
{
    OptixModule hModule = nullptr;
    const size_t nSize = std::strlen(c_sTestModuleText);
    EXPECT_EQ(CreateModule(c_sTestModuleText, nSize, TestPipelineOptions(2), &hModule),
              OPTIX_ERROR_INVALID_FUNCTION_USE);
    EXPECT_NE(Log().find("StandInTest traces with 3 payload values"), std::string::npos) << Log();

    OptixPipelineCompileOptions cOptions = TestPipelineOptions();
    cOptions.numAttributeValues = 9;
    EXPECT_EQ(CreateModule(c_sTestModuleText, nSize, cOptions, &hModule), OPTIX_ERROR_INVALID_VALUE);
    cOptions = TestPipelineOptions();
    cOptions.usesPrimitiveTypeFlags = OPTIX_PRIMITIVE_TYPE_FLAGS_SPHERE;
    EXPECT_EQ(CreateModule(c_sTestModuleText, nSize, cOptions, &hModule), OPTIX_ERROR_NOT_SUPPORTED);

    // More payload values than the programs use is what OptiX accepts too.
    ASSERT_EQ(CreateModule(c_sTestModuleText, nSize, TestPipelineOptions(4), &hModule), OPTIX_SUCCESS);
    EXPECT_EQ(m_nLogSize, 1u);
    EXPECT_EQ(Optix().optixModuleDestroy(hModule), OPTIX_SUCCESS);
}

TEST_F(ModuleTest, TruncatesLongLogsAndReportsTheirFullLength)
{
    char aSmall[8] = {};
    size_t nSize = sizeof(aSmall);
    OptixModule hModule = nullptr;
    const OptixPipelineCompileOptions cOptions = TestPipelineOptions();
    EXPECT_EQ(Optix().optixModuleCreate(m_cContext.Get(), &m_cModuleOptions, &cOptions, c_sUnknownModuleText,
                                        std::strlen(c_sUnknownModuleText), aSmall, &nSize, &hModule),
              OPTIX_ERROR_INVALID_INPUT);
    EXPECT_EQ(std::strlen(aSmall), sizeof(aSmall) - 1);
    EXPECT_GT(nSize, sizeof(aSmall));
    // Without a buffer nothing is written.
    nSize = 0;
    EXPECT_EQ(Optix().optixModuleCreate(m_cContext.Get(), &m_cModuleOptions, &cOptions, c_sUnknownModuleText,
                                        std::strlen(c_sUnknownModuleText), aSmall, &nSize, &hModule),
              OPTIX_ERROR_INVALID_INPUT);
    EXPECT_EQ(nSize, 0u);
}

TEST_F(ModuleTest, ProgramGroupsNeedKnownEntriesOfTheirKind)
{
    OptixModule hModule = nullptr;
    ASSERT_EQ(
        CreateModule(c_sTestModuleText, std::strlen(c_sTestModuleText), TestPipelineOptions(), &hModule),
        OPTIX_SUCCESS);
    const OptixProgramGroupOptions cGroupOptions{};
    auto create = [&](const OptixProgramGroupDesc* aDescs, unsigned int nDescs, OptixProgramGroup* aGroups)
    {
        m_nLogSize = sizeof(m_aLog);
        return Optix().optixProgramGroupCreate(m_cContext.Get(), aDescs, nDescs, &cGroupOptions, m_aLog,
                                               &m_nLogSize, aGroups);
    };
    OptixProgramGroup aGroups[2] = {};
    OptixProgramGroupDesc aDescs[2] = {};
    aDescs[0].kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    aDescs[0].raygen = {hModule, "__raygen__test"};
    aDescs[1].kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    aDescs[1].raygen = {hModule, "__raygen__missing"};

    const std::uint64_t nLive = Control().LiveObjects();
    EXPECT_EQ(create(aDescs, 2, aGroups), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_NE(Log().find("program group 1: unknown entry function \"__raygen__missing\""), std::string::npos)
        << Log();
    EXPECT_EQ(Control().LiveObjects(), nLive) << "all or nothing";

    aDescs[1].raygen = {hModule, "__miss__test"};
    EXPECT_EQ(create(aDescs, 2, aGroups), OPTIX_ERROR_INVALID_VALUE);
    aDescs[1].kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
    aDescs[1].hitgroup = {};
    aDescs[1].hitgroup.moduleIS = hModule;
    aDescs[1].hitgroup.entryFunctionNameIS = "__intersection__test";
    EXPECT_EQ(create(aDescs, 2, aGroups), OPTIX_ERROR_NOT_SUPPORTED);

    // An empty miss group is valid.
    aDescs[1] = {};
    aDescs[1].kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
    ASSERT_EQ(create(aDescs, 2, aGroups), OPTIX_SUCCESS);
    EXPECT_EQ(Control().LiveObjects(), nLive + 2);
    for (OptixProgramGroup hGroup : aGroups)
        EXPECT_EQ(Optix().optixProgramGroupDestroy(hGroup), OPTIX_SUCCESS);
    EXPECT_EQ(Optix().optixModuleDestroy(hModule), OPTIX_SUCCESS);
}

TEST_F(ModuleTest, PipelineChecksOptionsAndComputesStackSizes)
{
    TestPipeline cPipeline(m_cContext.Get());
    const OptixProgramGroup aGroups[3] = {cPipeline.Raygen(), cPipeline.Miss(), cPipeline.HitGroup()};
    OptixPipelineCompileOptions cOptions = TestPipelineOptions();
    cOptions.numPayloadValues = 4; // the module was compiled with 3
    const OptixPipelineLinkOptions cLink{2};
    OptixPipeline hPipeline = nullptr;
    m_nLogSize = sizeof(m_aLog);
    EXPECT_EQ(Optix().optixPipelineCreate(m_cContext.Get(), &cOptions, &cLink, aGroups, 3, m_aLog,
                                          &m_nLogSize, &hPipeline),
              OPTIX_ERROR_INVALID_VALUE);
    EXPECT_NE(Log().find("other pipeline compile options"), std::string::npos) << Log();
    const OptixPipelineLinkOptions cTooDeep{32};
    cOptions = TestPipelineOptions();
    EXPECT_EQ(Optix().optixPipelineCreate(m_cContext.Get(), &cOptions, &cTooDeep, aGroups, 3, nullptr,
                                          nullptr, &hPipeline),
              OPTIX_ERROR_INVALID_VALUE);

    g_optixFunctionTable = Optix();
    OptixStackSizes cSizes{};
    for (OptixProgramGroup hGroup : aGroups)
        ASSERT_EQ(optixUtilAccumulateStackSizes(hGroup, &cSizes, cPipeline.Get()), OPTIX_SUCCESS);
    unsigned int nFromTraversal = 1, nFromState = 1, nContinuation = 0;
    ASSERT_EQ(optixUtilComputeStackSizes(&cSizes, 2, 0, 0, &nFromTraversal, &nFromState, &nContinuation),
              OPTIX_SUCCESS);
    EXPECT_EQ(nFromTraversal, 0u);
    EXPECT_EQ(nFromState, 0u);
    // cssRG + max(cssCH, cssMS) + max(max(cssCH, cssMS), cssIS + cssAH)
    EXPECT_EQ(nContinuation, cSizes.cssRG + 2 * std::max(cSizes.cssCH, cSizes.cssMS));
    EXPECT_GT(cSizes.cssRG, 0u);
    EXPECT_EQ(optixUtilAccumulateStackSizes(nullptr, &cSizes, cPipeline.Get()), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(Optix().optixPipelineSetStackSize(cPipeline.Get(), 0, 0, nContinuation, 1), OPTIX_SUCCESS);
    EXPECT_EQ(Optix().optixPipelineSetStackSize(cPipeline.Get(), 0, 0, nContinuation, 0),
              OPTIX_ERROR_INVALID_VALUE);
}
} // namespace
