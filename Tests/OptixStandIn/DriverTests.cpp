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
    OptixResult CreateModule(const char* sText, std::size_t nSize, int nPayloadValues, char* aLog = nullptr,
                             std::size_t* pLogSize = nullptr)
    {
        const OptixModuleCompileOptions cModuleOptions{};
        const OptixPipelineCompileOptions cOptions = PipelineOptions(nPayloadValues);
        OptixModule hModule = nullptr;
        const OptixResult nResult = Optix().optixModuleCreate(
            m_cHarness.Context(), &cModuleOptions, &cOptions, sText, nSize, aLog, pLogSize, &hModule);
        if (hModule)
            Optix().optixModuleDestroy(hModule);
        return nResult;
    }

    ProgramHarness m_cHarness{c_cOneHit};
    const char* m_sText = c_cOneHit.sPtx;
    const std::size_t m_nText = std::strlen(c_cOneHit.sPtx);
};

// Each row is a mistake the library could make that would pass unnoticed if the stand-in accepted it.
TEST_F(DriverTest, RefusesWhatOptixRefuses)
{
    const OptixDeviceContext hContext = m_cHarness.Context();
    const CUdeviceptr pPlaceholder = 1024; // only sizes are asked for
    const unsigned int uFlags = OPTIX_GEOMETRY_FLAG_NONE;
    auto AccelSizes = [&](unsigned int nVertices)
    {
        OptixBuildInput cInput{};
        cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
        cInput.triangleArray.vertexBuffers = &pPlaceholder;
        cInput.triangleArray.numVertices = nVertices;
        cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
        cInput.triangleArray.flags = &uFlags;
        cInput.triangleArray.numSbtRecords = 1;
        OptixAccelBuildOptions cOptions{};
        cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
        OptixAccelBufferSizes cSizes{};
        return Optix().optixAccelComputeMemoryUsage(hContext, &cOptions, &cInput, 1, &cSizes);
    };
    alignas(16) char aRecord[48] = {};
    auto Launch = [&](CUdeviceptr nShift, unsigned int nWidth)
    {
        OptixShaderBindingTable cSbt{};
        cSbt.raygenRecord = reinterpret_cast<CUdeviceptr>(aRecord) + nShift;
        return Optix().optixLaunch(m_cHarness.Pipeline(), m_cHarness.Stream(), 0, 0, &cSbt, nWidth, nWidth,
                                   1);
    };
    struct Case
    {
        const char* sWhat;
        std::function<OptixResult()> fnCall;
        OptixResult nExpected;
    };
    const Case aCases[] = {
        {"text cut short by its size",
         [&]
         {
             const char* pLast = std::strstr(m_sText, ".visible .entry __closesthit__ch");
             return CreateModule(m_sText, static_cast<std::size_t>(pLast - m_sText), 2);
         },
         OPTIX_ERROR_INVALID_INPUT},
        {"fewer payload values than the programs use", [&] { return CreateModule(m_sText, m_nText, 1); },
         OPTIX_ERROR_INVALID_FUNCTION_USE},
        {"intersection program (a descriptor union not zeroed)",
         [&]
         {
             OptixProgramGroupDesc cDesc{};
             cDesc.kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
             cDesc.hitgroup.moduleIS = m_cHarness.Module();
             const OptixProgramGroupOptions cOptions{};
             OptixProgramGroup hGroup = nullptr;
             return Optix().optixProgramGroupCreate(hContext, &cDesc, 1, &cOptions, nullptr, nullptr,
                                                    &hGroup);
         },
         OPTIX_ERROR_NOT_SUPPORTED},
        {"pipeline options other than the module's",
         [&]
         {
             const OptixPipelineCompileOptions cOptions = PipelineOptions(4);
             const OptixPipelineLinkOptions cLink{2};
             const OptixProgramGroup aGroups[3] = {m_cHarness.Group(0), m_cHarness.Group(1),
                                                   m_cHarness.Group(2)};
             OptixPipeline hPipeline = nullptr;
             return Optix().optixPipelineCreate(hContext, &cOptions, &cLink, aGroups, 3, nullptr, nullptr,
                                                &hPipeline);
         },
         OPTIX_ERROR_INVALID_VALUE},
        {"traversal depth 0",
         [&] { return Optix().optixPipelineSetStackSize(m_cHarness.Pipeline(), 0, 0, 1024, 0); },
         OPTIX_ERROR_INVALID_VALUE},
        {"vertex count not a multiple of 3", [&] { return AccelSizes(301); }, OPTIX_ERROR_INVALID_VALUE},
        {"more triangles than the limit",
         [&]
         {
             Control().SetMaxPrimitivesPerGas(99);
             const OptixResult nResult = AccelSizes(300);
             Control().SetMaxPrimitivesPerGas(1u << 29);
             return nResult;
         },
         OPTIX_ERROR_INVALID_VALUE},
        {"misaligned record", [&] { return Launch(8, 1); }, OPTIX_ERROR_INVALID_VALUE},
        {"launch beyond 2^30 threads", [&] { return Launch(0, 1u << 16); }, OPTIX_ERROR_INVALID_VALUE},
    };
    const std::uint64_t nLive = Control().LiveObjects();
    for (const Case& cCase : aCases)
        EXPECT_EQ(cCase.fnCall(), cCase.nExpected) << cCase.sWhat;
    EXPECT_EQ(Control().LiveObjects(), nLive) << "a refused call must create nothing";

    // A record whose header no group of the pipeline wrote fails the launch, like a GPU fault.
    EXPECT_EQ(Launch(0, 1), OPTIX_SUCCESS);
    EXPECT_EQ(cudaStreamSynchronize(m_cHarness.Stream()), cudaErrorLaunchFailure);
}

// A short log buffer is cut and the full length reported, which is how the library marks a truncated log.
TEST_F(DriverTest, LogsAreCutToTheirBufferAndReportTheirFullLength)
{
    char aLog[512] = {};
    std::size_t nLogSize = sizeof(aLog);
    EXPECT_EQ(CreateModule(c_sUnknownModule, std::strlen(c_sUnknownModule), 2, aLog, &nLogSize),
              OPTIX_ERROR_INVALID_INPUT);
    EXPECT_NE(std::string(aLog).find("__raygen__nobody"), std::string::npos) << aLog;
    EXPECT_EQ(nLogSize, std::strlen(aLog) + 1);
    char aShort[8] = {};
    nLogSize = sizeof(aShort);
    CreateModule(c_sUnknownModule, std::strlen(c_sUnknownModule), 2, aShort, &nLogSize);
    EXPECT_EQ(std::strlen(aShort), sizeof(aShort) - 1);
    EXPECT_GT(nLogSize, sizeof(aShort));
}

// The leak checks of every library test count on these figures.
TEST_F(DriverTest, CountsLiveObjectsAndReleasesLeftoversWithTheirContext)
{
    const std::uint64_t nBefore = Control().LiveObjects();
    OptixDeviceContext hContext = nullptr;
    ASSERT_EQ(Optix().optixDeviceContextCreate(nullptr, nullptr, &hContext), OPTIX_SUCCESS);
    const OptixModuleCompileOptions cModuleOptions{};
    const OptixPipelineCompileOptions cOptions = PipelineOptions(2);
    OptixModule hModule = nullptr;
    ASSERT_EQ(Optix().optixModuleCreate(hContext, &cModuleOptions, &cOptions, m_sText, m_nText, nullptr,
                                        nullptr, &hModule),
              OPTIX_SUCCESS);
    EXPECT_EQ(Control().LiveObjects(), nBefore + 2);
    // A failing destroy still releases, and takes what is left of its context along.
    Control().InjectFault("optixDeviceContextDestroy", 1, OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Optix().optixDeviceContextDestroy(hContext), OPTIX_ERROR_INVALID_DEVICE_CONTEXT);
    EXPECT_EQ(Control().LiveObjects(), nBefore);
}
} // namespace
