#include "ProgramHarness.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "OptixPrograms.h"

namespace
{
void Check(OptixResult nResult, const char* sCall)
{
    if (nResult != OPTIX_SUCCESS)
        throw std::runtime_error(std::string(sCall) + " failed: " + Optix().optixGetErrorName(nResult));
}

void CheckCuda(cudaError_t nError, const char* sCall)
{
    if (nError != cudaSuccess)
        throw std::runtime_error(std::string(sCall) + " failed: " + cudaGetErrorString(nError));
}

// nBytes of device memory, filled from pBytes when given.
DeviceMemory Upload(const void* pBytes, std::size_t nBytes)
{
    void* p = nullptr;
    CheckCuda(cudaMalloc(&p, std::max<std::size_t>(nBytes, 1)), "cudaMalloc");
    DeviceMemory pOwner(p);
    if (pBytes)
        CheckCuda(cudaMemcpy(p, pBytes, nBytes, cudaMemcpyHostToDevice), "cudaMemcpy");
    return pOwner;
}

CUdeviceptr Address(const DeviceMemory& p)
{
    return reinterpret_cast<CUdeviceptr>(p.get());
}
} // namespace

const ProgramModule c_cCountHits{c_sOptixTriangleCountHits2, "__raygen__rgCountHits", false, 2};
const ProgramModule c_cAllHits{c_sOptixTriangleAllHits2, "__raygen__rgAllHits", false, 2};
const ProgramModule c_cOneHit{c_sOptixTriangleOneHit2, "__raygen__rgFirst", true, 2};

const OptixFunctionTable& Optix()
{
    static const OptixFunctionTable s_cTable = []
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

Triangle TriangleAt(float fX, float fY, float fZ)
{
    return Triangle{{fX - 0.4f, fY - 0.4f, fZ}, {fX + 0.4f, fY - 0.4f, fZ}, {fX, fY + 0.4f, fZ}};
}

OptixPipelineCompileOptions PipelineOptions(int nPayloadValues)
{
    OptixPipelineCompileOptions cOptions{};
    cOptions.traversableGraphFlags = OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_GAS;
    cOptions.numPayloadValues = nPayloadValues;
    cOptions.numAttributeValues = 2;
    cOptions.usesPrimitiveTypeFlags = OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE;
    return cOptions;
}

ProgramHarness::Handles::~Handles()
{
    if (hStream)
    {
        cudaStreamSynchronize(hStream);
        cudaStreamDestroy(hStream);
    }
    if (hPipeline)
        Optix().optixPipelineDestroy(hPipeline);
    for (OptixProgramGroup hGroup : aGroups)
        if (hGroup)
            Optix().optixProgramGroupDestroy(hGroup);
    if (hModule)
        Optix().optixModuleDestroy(hModule);
    if (hContext)
        Optix().optixDeviceContextDestroy(hContext);
}

ProgramHarness::ProgramHarness(const ProgramModule& cModule, const OptixDeviceContextOptions* pOptions)
    : m_bClosestHit(cModule.bClosestHit)
{
    Handles& h = m_cHandles;
    CheckCuda(cudaStreamCreate(&h.hStream), "cudaStreamCreate");
    Check(Optix().optixDeviceContextCreate(nullptr, pOptions, &h.hContext), "optixDeviceContextCreate");
    const OptixModuleCompileOptions cModuleOptions{};
    const OptixPipelineCompileOptions cOptions = PipelineOptions(cModule.nPayloadValues);
    Check(Optix().optixModuleCreate(h.hContext, &cModuleOptions, &cOptions, cModule.sPtx,
                                    std::strlen(cModule.sPtx), nullptr, nullptr, &h.hModule),
          "optixModuleCreate");
    OptixProgramGroupDesc aDescs[3] = {};
    aDescs[0].kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    aDescs[0].raygen = {h.hModule, cModule.sRaygen};
    aDescs[1].kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
    aDescs[1].miss = {h.hModule, "__miss__ms"};
    aDescs[2].kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
    if (cModule.bClosestHit)
    {
        aDescs[2].hitgroup.moduleCH = h.hModule;
        aDescs[2].hitgroup.entryFunctionNameCH = "__closesthit__ch";
    }
    else
    {
        aDescs[2].hitgroup.moduleAH = h.hModule;
        aDescs[2].hitgroup.entryFunctionNameAH = "__anyhit__ah";
    }
    const OptixProgramGroupOptions cGroupOptions{};
    Check(Optix().optixProgramGroupCreate(h.hContext, aDescs, 3, &cGroupOptions, nullptr, nullptr, h.aGroups),
          "optixProgramGroupCreate");
    const OptixPipelineLinkOptions cLink{2};
    Check(Optix().optixPipelineCreate(h.hContext, &cOptions, &cLink, h.aGroups, 3, nullptr, nullptr,
                                      &h.hPipeline),
          "optixPipelineCreate");
}

OptixTraversableHandle ProgramHarness::BuildChunk(const std::vector<Triangle>& aTriangles,
                                                  unsigned int iFirstIndex)
{
    Handles& h = m_cHandles;
    m_aChunkBuffers.push_back(Upload(aTriangles.data(), aTriangles.size() * sizeof(Triangle)));
    const CUdeviceptr pVertices = Address(m_aChunkBuffers.back());
    const unsigned int uFlags =
        m_bClosestHit ? OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT : OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL;
    OptixBuildInput cInput{};
    cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
    cInput.triangleArray.vertexBuffers = &pVertices;
    cInput.triangleArray.numVertices = static_cast<unsigned int>(3 * aTriangles.size());
    cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
    cInput.triangleArray.flags = &uFlags;
    cInput.triangleArray.numSbtRecords = 1;
    cInput.triangleArray.primitiveIndexOffset = iFirstIndex;
    OptixAccelBuildOptions cOptions{};
    cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
    OptixAccelBufferSizes cSizes{};
    Check(Optix().optixAccelComputeMemoryUsage(h.hContext, &cOptions, &cInput, 1, &cSizes),
          "optixAccelComputeMemoryUsage");
    const DeviceMemory pTemp = Upload(nullptr, cSizes.tempSizeInBytes);
    m_aChunkBuffers.push_back(Upload(nullptr, cSizes.outputSizeInBytes));
    OptixTraversableHandle hChunk = 0;
    Check(Optix().optixAccelBuild(h.hContext, h.hStream, &cOptions, &cInput, 1, Address(pTemp),
                                  cSizes.tempSizeInBytes, Address(m_aChunkBuffers.back()),
                                  cSizes.outputSizeInBytes, &hChunk, nullptr, 0),
          "optixAccelBuild");
    // The build reads the vertices and the scratch buffer on the stream.
    CheckCuda(cudaStreamSynchronize(h.hStream), "cudaStreamSynchronize");
    return hChunk;
}

cudaError_t ProgramHarness::LaunchBlock(const void* pParams, unsigned int nRays,
                                        const HitGroupData* pHitGroup)
{
    SbtRecord aRecords[3] = {};
    for (int i = 0; i < 3; ++i)
        Check(Optix().optixSbtRecordPackHeader(m_cHandles.aGroups[i], &aRecords[i]),
              "optixSbtRecordPackHeader");
    aRecords[0].aData[0] = reinterpret_cast<unsigned long long>(pParams);
    if (pHitGroup)
        std::memcpy(aRecords[2].aData, pHitGroup, sizeof(HitGroupData));
    OptixShaderBindingTable cSbt{};
    cSbt.raygenRecord = reinterpret_cast<CUdeviceptr>(&aRecords[0]);
    cSbt.missRecordBase = cSbt.raygenRecord + sizeof(SbtRecord);
    cSbt.missRecordStrideInBytes = sizeof(SbtRecord);
    cSbt.missRecordCount = 1;
    cSbt.hitgroupRecordBase = cSbt.missRecordBase + sizeof(SbtRecord);
    cSbt.hitgroupRecordStrideInBytes = sizeof(SbtRecord);
    cSbt.hitgroupRecordCount = 1;
    Check(Optix().optixLaunch(m_cHandles.hPipeline, m_cHandles.hStream, 0, 0, &cSbt, nRays, 1, 1),
          "optixLaunch");
    return cudaStreamSynchronize(m_cHandles.hStream);
}
