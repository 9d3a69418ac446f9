#include "StandInHarness.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <cmath>
#include <random>
#include <stdexcept>

namespace
{
void Check(OptixResult result, const char* sWhat)
{
    if (result != OPTIX_SUCCESS)
        throw std::runtime_error(std::string(sWhat) + " failed with " + std::to_string(result));
}

void* DeviceAlloc(size_t nBytes)
{
    void* p = nullptr;
    if (cudaMalloc(&p, nBytes) != cudaSuccess)
        throw std::runtime_error("cudaMalloc failed");
    return p;
}

struct alignas(OPTIX_SBT_RECORD_ALIGNMENT) TestRecord
{
    char aHeader[OPTIX_SBT_RECORD_HEADER_SIZE];
    const TestLaunch* pLaunch;
    unsigned long long nUnused;
};
} // namespace

const OptixFunctionTable& Optix()
{
    static const OptixFunctionTable s_cTable = []()
    {
        OptixFunctionTable cTable{};
        Check(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, sizeof(cTable)),
              "optixQueryFunctionTable");
        return cTable;
    }();
    return s_cTable;
}

const OptixStandInControl& Control()
{
    return *RayTracingCpuOptixControl();
}

OptixPipelineCompileOptions TestPipelineOptions(int nPayloadValues)
{
    OptixPipelineCompileOptions cOptions{};
    cOptions.traversableGraphFlags = OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_GAS;
    cOptions.numPayloadValues = nPayloadValues;
    cOptions.numAttributeValues = 2;
    cOptions.usesPrimitiveTypeFlags = OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE;
    return cOptions;
}

ContextOwner::ContextOwner(const OptixDeviceContextOptions* pOptions)
{
    Check(Optix().optixDeviceContextCreate(nullptr, pOptions, &m_hContext), "optixDeviceContextCreate");
}

ContextOwner::~ContextOwner()
{
    Optix().optixDeviceContextDestroy(m_hContext);
}

TestPipeline::TestPipeline(OptixDeviceContext hContext, const Programs& cPrograms)
{
    const OptixModuleCompileOptions cModuleOptions{};
    const OptixPipelineCompileOptions cOptions = TestPipelineOptions(cPrograms.nPayloadValues);
    Check(Optix().optixModuleCreate(hContext, &cModuleOptions, &cOptions, cPrograms.sModuleText,
                                    std::strlen(cPrograms.sModuleText), nullptr, nullptr, &m_hModule),
          "optixModuleCreate");
    OptixProgramGroupDesc aDescs[3] = {};
    aDescs[0].kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    aDescs[0].raygen = {m_hModule, cPrograms.sRaygen};
    aDescs[1].kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
    aDescs[1].miss = {cPrograms.sMiss ? m_hModule : nullptr, cPrograms.sMiss};
    aDescs[2].kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
    aDescs[2].hitgroup.moduleCH = cPrograms.sClosestHit ? m_hModule : nullptr;
    aDescs[2].hitgroup.entryFunctionNameCH = cPrograms.sClosestHit;
    aDescs[2].hitgroup.moduleAH = cPrograms.sAnyHit ? m_hModule : nullptr;
    aDescs[2].hitgroup.entryFunctionNameAH = cPrograms.sAnyHit;
    const OptixProgramGroupOptions cGroupOptions{};
    Check(Optix().optixProgramGroupCreate(hContext, aDescs, 3, &cGroupOptions, nullptr, nullptr, m_aGroups),
          "optixProgramGroupCreate");
    const OptixPipelineLinkOptions cLink{2};
    Check(Optix().optixPipelineCreate(hContext, &cOptions, &cLink, m_aGroups, 3, nullptr, nullptr,
                                      &m_hPipeline),
          "optixPipelineCreate");
}

TestPipeline::~TestPipeline()
{
    Optix().optixPipelineDestroy(m_hPipeline);
    for (OptixProgramGroup hGroup : m_aGroups)
        Optix().optixProgramGroupDestroy(hGroup);
    Optix().optixModuleDestroy(m_hModule);
}

TestGas::TestGas(OptixDeviceContext hContext, const std::vector<Triangle>& aTriangles,
                 unsigned int uGeometryFlags, unsigned int iPrimitiveIndexOffset, cudaStream_t stream)
{
    const size_t nBytes = std::max<size_t>(1, aTriangles.size()) * sizeof(Triangle);
    m_pVertices = DeviceAlloc(nBytes);
    cudaMemcpy(m_pVertices, aTriangles.data(), aTriangles.size() * sizeof(Triangle), cudaMemcpyHostToDevice);
    const CUdeviceptr pVertices = reinterpret_cast<CUdeviceptr>(m_pVertices);
    OptixBuildInput cInput{};
    cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
    cInput.triangleArray.vertexBuffers = &pVertices;
    cInput.triangleArray.numVertices = static_cast<unsigned int>(3 * aTriangles.size());
    cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
    cInput.triangleArray.flags = &uGeometryFlags;
    cInput.triangleArray.numSbtRecords = 1;
    cInput.triangleArray.primitiveIndexOffset = iPrimitiveIndexOffset;
    OptixAccelBuildOptions cOptions{};
    cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
    OptixAccelBufferSizes cSizes{};
    Check(Optix().optixAccelComputeMemoryUsage(hContext, &cOptions, &cInput, 1, &cSizes),
          "optixAccelComputeMemoryUsage");
    m_pTemp = DeviceAlloc(cSizes.tempSizeInBytes);
    m_pOutput = DeviceAlloc(cSizes.outputSizeInBytes);
    Check(Optix().optixAccelBuild(hContext, stream, &cOptions, &cInput, 1,
                                  reinterpret_cast<CUdeviceptr>(m_pTemp), cSizes.tempSizeInBytes,
                                  reinterpret_cast<CUdeviceptr>(m_pOutput), cSizes.outputSizeInBytes,
                                  &m_hTraversable, nullptr, 0),
          "optixAccelBuild");
}

TestGas::~TestGas()
{
    cudaFree(m_pVertices);
    cudaFree(m_pTemp);
    cudaFree(m_pOutput);
}

cudaError_t LaunchTest(const TestPipeline& cPipeline, TestLaunch cLaunch, const RayBatch& cRays,
                       std::vector<RayResult>& aResults, cudaStream_t stream, OptixResult* pLaunchResult)
{
    const unsigned int nRays = static_cast<unsigned int>(cRays.aDirections.size());
    aResults.assign(nRays, RayResult{});
    cLaunch.pOrigins = cRays.aOrigins.data();
    cLaunch.pDirections = cRays.aDirections.data();
    cLaunch.pResults = aResults.data();

    TestRecord aRecords[3] = {};
    const OptixProgramGroup aGroups[3] = {cPipeline.Raygen(), cPipeline.Miss(), cPipeline.HitGroup()};
    for (int i = 0; i < 3; ++i)
    {
        Check(Optix().optixSbtRecordPackHeader(aGroups[i], aRecords[i].aHeader), "optixSbtRecordPackHeader");
        aRecords[i].pLaunch = &cLaunch;
    }
    OptixShaderBindingTable cSbt{};
    cSbt.raygenRecord = reinterpret_cast<CUdeviceptr>(&aRecords[0]);
    cSbt.missRecordBase = reinterpret_cast<CUdeviceptr>(&aRecords[1]);
    cSbt.missRecordStrideInBytes = sizeof(TestRecord);
    cSbt.missRecordCount = 1;
    cSbt.hitgroupRecordBase = reinterpret_cast<CUdeviceptr>(&aRecords[2]);
    cSbt.hitgroupRecordStrideInBytes = sizeof(TestRecord);
    cSbt.hitgroupRecordCount = 1;
    const OptixResult result = Optix().optixLaunch(cPipeline.Get(), stream, 0, 0, &cSbt, nRays, 1, 1);
    if (pLaunchResult)
        *pLaunchResult = result;
    else
        Check(result, "optixLaunch");
    return stream ? cudaStreamSynchronize(stream) : cudaSuccess;
}

std::vector<std::pair<unsigned int, double>> ReferenceHits(const std::vector<Triangle>& aTriangles,
                                                           float3 origin, float3 direction, float fTmin,
                                                           float fTmax)
{
    auto sub = [](float3 a, float3 b) {
        return std::array<double, 3>{double(a.x) - b.x, double(a.y) - b.y, double(a.z) - b.z};
    };
    auto cross = [](const std::array<double, 3>& a, const std::array<double, 3>& b)
    {
        return std::array<double, 3>{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                                     a[0] * b[1] - a[1] * b[0]};
    };
    auto dot = [](const std::array<double, 3>& a, const std::array<double, 3>& b)
    { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; };
    const std::array<double, 3> d{direction.x, direction.y, direction.z};
    std::vector<std::pair<unsigned int, double>> aHits;
    for (unsigned int i = 0; i < aTriangles.size(); ++i)
    {
        const Triangle& cTriangle = aTriangles[i];
        const auto e1 = sub(cTriangle.b, cTriangle.a);
        const auto e2 = sub(cTriangle.c, cTriangle.a);
        const auto p = cross(d, e2);
        const double fDet = dot(e1, p);
        if (fDet == 0.0)
            continue;
        const auto s = sub(origin, cTriangle.a);
        const double u = dot(s, p) / fDet;
        const auto q = cross(s, e1);
        const double v = dot(d, q) / fDet;
        const double t = dot(e2, q) / fDet;
        if (u >= 0 && v >= 0 && u + v <= 1 && t >= fTmin && t <= fTmax)
            aHits.emplace_back(i, t);
    }
    std::sort(aHits.begin(), aHits.end(), [](const auto& a, const auto& b) { return a.second < b.second; });
    return aHits;
}

std::vector<Triangle> RandomTriangles(unsigned int nTriangles, unsigned int uSeed, float fSize)
{
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cPosition(-1.0f, 1.0f);
    std::uniform_real_distribution<float> cOffset(-fSize, fSize);
    std::vector<Triangle> aTriangles(nTriangles);
    for (Triangle& cTriangle : aTriangles)
    {
        const float3 center{cPosition(cRandom), cPosition(cRandom), cPosition(cRandom)};
        auto corner = [&]() {
            return float3{center.x + cOffset(cRandom), center.y + cOffset(cRandom),
                          center.z + cOffset(cRandom)};
        };
        cTriangle = Triangle{corner(), corner(), corner()};
    }
    return aTriangles;
}

RayBatch RandomRays(unsigned int nRays, unsigned int uSeed)
{
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cPosition(-1.5f, 1.5f);
    std::normal_distribution<float> cDirection(0.0f, 1.0f);
    RayBatch cRays;
    for (unsigned int i = 0; i < nRays; ++i)
    {
        cRays.aOrigins.push_back(float3{cPosition(cRandom), cPosition(cRandom), -2.0f});
        cRays.aDirections.push_back(float3{0.3f * cDirection(cRandom), 0.3f * cDirection(cRandom),
                                           1.0f + 0.1f * cDirection(cRandom)});
    }
    return cRays;
}
