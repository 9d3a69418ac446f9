// What the OptiX driver stand-in refuses and keeps track of, as the driver does: a call the library gets
// wrong must fail here as it would on a GPU, and the leak checks must see every object.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "ProgramHarness.h"

namespace
{
const char c_sUnknownModule[] = ".visible .entry __raygen__nobody()\n{\n}\n";

class DriverTest : public ::testing::Test
{
protected:
    OptixResult CreateModule(const char* sText, std::size_t nSize,
                             const OptixPipelineCompileOptions& cOptions, char* aLog = nullptr,
                             std::size_t* pLogSize = nullptr)
    {
        const OptixModuleCompileOptions cModuleOptions{};
        OptixModule hModule = nullptr;
        const OptixResult nResult = Optix().optixModuleCreate(
            m_cHarness.Context(), &cModuleOptions, &cOptions, sText, nSize, aLog, pLogSize, &hModule);
        if (hModule)
            Optix().optixModuleDestroy(hModule);
        return nResult;
    }
    OptixResult CreateGroup(const OptixProgramGroupDesc& cDesc)
    {
        const OptixProgramGroupOptions cOptions{};
        OptixProgramGroup hGroup = nullptr;
        const OptixResult nResult = Optix().optixProgramGroupCreate(m_cHarness.Context(), &cDesc, 1,
                                                                    &cOptions, nullptr, nullptr, &hGroup);
        if (hGroup)
            Optix().optixProgramGroupDestroy(hGroup);
        return nResult;
    }

    ProgramHarness m_cHarness{c_cOneHit};
    const char* m_sText = c_cOneHit.sPtx;
    const std::size_t m_nText = std::strlen(c_cOneHit.sPtx);
};

// Each row is a mistake the library could make in its calls; the stand-in must refuse it as OptiX does.
TEST_F(DriverTest, RefusesWhatOptixRefuses)
{
    const OptixDeviceContext hContext = m_cHarness.Context();
    auto RaygenGroup = [&](const char* sEntry)
    {
        OptixProgramGroupDesc cDesc{};
        cDesc.kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
        cDesc.raygen = {m_cHarness.Module(), sEntry};
        return CreateGroup(cDesc);
    };
    auto CreatePipeline = [&](int nPayloadValues, unsigned int nTraceDepth)
    {
        const OptixPipelineCompileOptions cOptions = PipelineOptions(nPayloadValues);
        const OptixPipelineLinkOptions cLink{nTraceDepth};
        const OptixProgramGroup aGroups[3] = {m_cHarness.Group(0), m_cHarness.Group(1), m_cHarness.Group(2)};
        OptixPipeline hPipeline = nullptr;
        return Optix().optixPipelineCreate(hContext, &cOptions, &cLink, aGroups, 3, nullptr, nullptr,
                                           &hPipeline);
    };
    const CUdeviceptr pPlaceholder = 1024; // only sizes are asked for
    auto AccelSizes = [&](unsigned int nVertices, const unsigned int* pFlags, unsigned int nRecords)
    {
        OptixBuildInput cInput{};
        cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
        cInput.triangleArray.vertexBuffers = &pPlaceholder;
        cInput.triangleArray.numVertices = nVertices;
        cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
        cInput.triangleArray.flags = pFlags;
        cInput.triangleArray.numSbtRecords = nRecords;
        OptixAccelBuildOptions cOptions{};
        cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
        OptixAccelBufferSizes cSizes{};
        return Optix().optixAccelComputeMemoryUsage(hContext, &cOptions, &cInput, 1, &cSizes);
    };
    const unsigned int uFlags = OPTIX_GEOMETRY_FLAG_NONE;
    alignas(16) char aRecord[48] = {};
    auto Launch = [&](bool bTable, CUdeviceptr nShift, unsigned int nWidth)
    {
        OptixShaderBindingTable cSbt{};
        cSbt.raygenRecord = reinterpret_cast<CUdeviceptr>(aRecord) + nShift;
        return Optix().optixLaunch(m_cHarness.Pipeline(), m_cHarness.Stream(), 0, 0, bTable ? &cSbt : nullptr,
                                   nWidth, nWidth, 1);
    };
    const char* pLastEntry = std::strstr(m_sText, ".visible .entry __closesthit__ch");
    OptixFunctionTable cTable{};
    unsigned long long nWide = 0;
    struct Case
    {
        const char* sWhat;
        std::function<OptixResult()> fnCall;
        OptixResult nExpected;
    };
    const Case aCases[] = {
        {"other ABI version",
         [&] { return optixQueryFunctionTable(93, 0, nullptr, nullptr, &cTable, sizeof(cTable)); },
         OPTIX_ERROR_UNSUPPORTED_ABI_VERSION},
        {"other table size",
         [&] { return optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, 400); },
         OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH},
        {"property of another size",
         [&]
         {
             return Optix().optixDeviceContextGetProperty(
                 hContext, OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS, &nWide, sizeof(nWide));
         },
         OPTIX_ERROR_INVALID_VALUE},
        {"entries no module registered",
         [&] { return CreateModule(c_sUnknownModule, std::strlen(c_sUnknownModule), PipelineOptions(2)); },
         OPTIX_ERROR_INVALID_INPUT},
        {"text cut short by its size",
         [&] {
             return CreateModule(m_sText, static_cast<std::size_t>(pLastEntry - m_sText), PipelineOptions(2));
         },
         OPTIX_ERROR_INVALID_INPUT},
        {"fewer payload values than the programs use",
         [&] { return CreateModule(m_sText, m_nText, PipelineOptions(1)); },
         OPTIX_ERROR_INVALID_FUNCTION_USE},
        {"unknown entry", [&] { return RaygenGroup("__raygen__missing"); }, OPTIX_ERROR_INVALID_VALUE},
        {"entry of another kind", [&] { return RaygenGroup("__miss__ms"); }, OPTIX_ERROR_INVALID_VALUE},
        {"intersection program (a descriptor union not zeroed)",
         [&]
         {
             OptixProgramGroupDesc cDesc{};
             cDesc.kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
             cDesc.hitgroup.moduleIS = m_cHarness.Module();
             return CreateGroup(cDesc);
         },
         OPTIX_ERROR_NOT_SUPPORTED},
        {"pipeline options other than the module's", [&] { return CreatePipeline(4, 2); },
         OPTIX_ERROR_INVALID_VALUE},
        {"trace depth 32", [&] { return CreatePipeline(2, 32); }, OPTIX_ERROR_INVALID_VALUE},
        {"traversal depth 0",
         [&] { return Optix().optixPipelineSetStackSize(m_cHarness.Pipeline(), 0, 0, 1024, 0); },
         OPTIX_ERROR_INVALID_VALUE},
        {"vertex count not a multiple of 3", [&] { return AccelSizes(301, &uFlags, 1); },
         OPTIX_ERROR_INVALID_VALUE},
        {"no geometry flags", [&] { return AccelSizes(300, nullptr, 1); }, OPTIX_ERROR_INVALID_VALUE},
        {"two records per input", [&] { return AccelSizes(300, &uFlags, 2); }, OPTIX_ERROR_NOT_SUPPORTED},
        {"more triangles than the limit",
         [&]
         {
             Control().SetMaxPrimitivesPerGas(99);
             const OptixResult nResult = AccelSizes(300, &uFlags, 1);
             Control().SetMaxPrimitivesPerGas(1u << 29);
             return nResult;
         },
         OPTIX_ERROR_INVALID_VALUE},
        {"no binding table", [&] { return Launch(false, 0, 1); }, OPTIX_ERROR_INVALID_VALUE},
        {"misaligned record", [&] { return Launch(true, 8, 1); }, OPTIX_ERROR_INVALID_VALUE},
        {"launch beyond 2^30 threads", [&] { return Launch(true, 0, 1u << 16); }, OPTIX_ERROR_INVALID_VALUE},
    };
    const std::uint64_t nLive = Control().LiveObjects();
    for (const Case& cCase : aCases)
        EXPECT_EQ(cCase.fnCall(), cCase.nExpected) << cCase.sWhat;
    EXPECT_EQ(Control().LiveObjects(), nLive) << "a refused call must create nothing";

    // A record whose header no group of the pipeline wrote fails the launch, like a GPU fault.
    EXPECT_EQ(Launch(true, 0, 1), OPTIX_SUCCESS);
    EXPECT_EQ(cudaStreamSynchronize(m_cHarness.Stream()), cudaErrorLaunchFailure);
}

TEST_F(DriverTest, LogsReachTheBufferAndTheCallbackAtTheirLevels)
{
    char aLog[512] = {};
    std::size_t nLogSize = sizeof(aLog);
    EXPECT_EQ(
        CreateModule(c_sUnknownModule, std::strlen(c_sUnknownModule), PipelineOptions(2), aLog, &nLogSize),
        OPTIX_ERROR_INVALID_INPUT);
    EXPECT_NE(std::string(aLog).find("__raygen__nobody"), std::string::npos) << aLog;
    EXPECT_EQ(nLogSize, std::strlen(aLog) + 1);
    // A short buffer is cut and the full length reported, which is how the library marks a truncated log.
    char aShort[8] = {};
    nLogSize = sizeof(aShort);
    CreateModule(c_sUnknownModule, std::strlen(c_sUnknownModule), PipelineOptions(2), aShort, &nLogSize);
    EXPECT_EQ(std::strlen(aShort), sizeof(aShort) - 1);
    EXPECT_GT(nLogSize, sizeof(aShort));

    struct Line
    {
        unsigned int nLevel;
        std::string sTag, sMessage;
    };
    for (const int nLevel : {4, 1})
    {
        std::vector<Line> aLines;
        OptixDeviceContextOptions cOptions{};
        cOptions.logCallbackFunction = [](unsigned int n, const char* sTag, const char* sMessage, void* p) {
            static_cast<std::vector<Line>*>(p)->push_back(Line{n, sTag, sMessage});
        };
        cOptions.logCallbackData = &aLines;
        cOptions.logCallbackLevel = nLevel;
        {
            ProgramHarness cHarness(c_cOneHit, &cOptions);
            const OptixModuleCompileOptions cModuleOptions{};
            const OptixPipelineCompileOptions cPipelineOptions = PipelineOptions(2);
            OptixModule hModule = nullptr;
            Optix().optixModuleCreate(cHarness.Context(), &cModuleOptions, &cPipelineOptions,
                                      c_sUnknownModule, std::strlen(c_sUnknownModule), nullptr, nullptr,
                                      &hModule);
        }
        if (nLevel == 1)
        {
            EXPECT_TRUE(aLines.empty()) << "only fatal messages at level 1";
            continue;
        }
        // The context's greeting at level 4, then the error at level 2 as one line without its newline.
        ASSERT_GE(aLines.size(), 2u);
        EXPECT_EQ(aLines.front().nLevel, 4u);
        EXPECT_EQ(aLines.front().sTag, "DEVICE");
        EXPECT_EQ(aLines.back().nLevel, 2u);
        EXPECT_NE(aLines.back().sMessage.find("__raygen__nobody"), std::string::npos)
            << aLines.back().sMessage;
        EXPECT_NE(aLines.back().sMessage.back(), '\n');
    }
}

TEST_F(DriverTest, CountsLiveObjectsAndReleasesLeftoversWithTheirContext)
{
    const std::uint64_t nBefore = Control().LiveObjects();
    {
        ProgramHarness cHarness(c_cOneHit);
        EXPECT_EQ(Control().LiveObjects(), nBefore + 6); // context, module, three groups, pipeline
    }
    EXPECT_EQ(Control().LiveObjects(), nBefore);

    OptixDeviceContext hContext = nullptr;
    ASSERT_EQ(Optix().optixDeviceContextCreate(nullptr, nullptr, &hContext), OPTIX_SUCCESS);
    const OptixModuleCompileOptions cModuleOptions{};
    const OptixPipelineCompileOptions cOptions = PipelineOptions(2);
    OptixModule hModule = nullptr;
    ASSERT_EQ(Optix().optixModuleCreate(hContext, &cModuleOptions, &cOptions, m_sText, m_nText, nullptr,
                                        nullptr, &hModule),
              OPTIX_SUCCESS);
    // A failing destroy still releases, and takes what is left of its context along.
    Control().InjectFault("optixDeviceContextDestroy", 1, OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hContext), OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Control().LiveObjects(), nBefore);
    // Stale handles are errors, not crashes.
    EXPECT_EQ(Optix().optixModuleDestroy(hModule), OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hContext), OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
}
} // namespace
