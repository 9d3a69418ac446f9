#include "ProgramHarness.h"

#include <cstring>

extern "C" OptixQueryFunctionTable_t optixQueryFunctionTable;

namespace
{

void CheckOptix(OptixResult result, const char* sCall, const char* sLog = "")
{
    if (result != OPTIX_SUCCESS)
    {
        throw std::runtime_error(std::string(sCall) + " failed: " + StandInTable().optixGetErrorName(result) +
                                 " " + sLog);
    }
}

struct ContextDeleter
{
    void operator()(OptixDeviceContext_t* p) const { StandInTable().optixDeviceContextDestroy(p); }
};
struct ModuleDeleter
{
    void operator()(OptixModule_t* p) const { StandInTable().optixModuleDestroy(p); }
};
struct ProgramGroupDeleter
{
    void operator()(OptixProgramGroup_t* p) const { StandInTable().optixProgramGroupDestroy(p); }
};
struct PipelineDeleter
{
    void operator()(OptixPipeline_t* p) const { StandInTable().optixPipelineDestroy(p); }
};
struct StreamDeleter
{
    void operator()(CUstream_st* p) const { cudaStreamDestroy(p); }
};
struct DeviceMemoryDeleter
{
    void operator()(void* p) const { cudaFree(p); }
};

using DeviceMemory = std::unique_ptr<void, DeviceMemoryDeleter>;

DeviceMemory AllocateDevice(std::size_t nBytes)
{
    void* p = nullptr;
    CheckCuda(cudaMalloc(&p, nBytes), "cudaMalloc");
    return DeviceMemory(p);
}

DeviceMemory UploadBytes(const void* pBytes, std::size_t nBytes)
{
    DeviceMemory pDevice = AllocateDevice(nBytes);
    CheckCuda(cudaMemcpy(pDevice.get(), pBytes, nBytes, cudaMemcpyHostToDevice), "cudaMemcpy");
    return pDevice;
}

CUdeviceptr AddressOf(const DeviceMemory& p)
{
    return reinterpret_cast<CUdeviceptr>(p.get());
}

} // namespace

const OptixFunctionTable& StandInTable()
{
    static const OptixFunctionTable table = []
    {
        OptixFunctionTable filled{};
        CheckOptix(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &filled, sizeof(filled)),
                   "optixQueryFunctionTable");
        return filled;
    }();
    return table;
}

void CheckCuda(cudaError_t error, const char* sCall)
{
    if (error != cudaSuccess)
    {
        throw std::runtime_error(std::string(sCall) + " failed: " + cudaGetErrorString(error));
    }
}

Triangle TriangleAt(float fX, float fY, float fZ)
{
    return Triangle{{fX - 0.4f, fY - 0.4f, fZ, fX + 0.4f, fY - 0.4f, fZ, fX, fY + 0.4f, fZ}};
}

struct ProgramHarness::Handles
{
    bool bClosestHit = false;
    std::unique_ptr<CUstream_st, StreamDeleter> pStream;
    std::unique_ptr<OptixDeviceContext_t, ContextDeleter> pContext;
    std::unique_ptr<OptixModule_t, ModuleDeleter> pModule;
    std::unique_ptr<OptixProgramGroup_t, ProgramGroupDeleter> pRaygen;
    std::unique_ptr<OptixProgramGroup_t, ProgramGroupDeleter> pMiss;
    std::unique_ptr<OptixProgramGroup_t, ProgramGroupDeleter> pHitGroup;
    std::unique_ptr<OptixPipeline_t, PipelineDeleter> pPipeline;
    DeviceMemory pMissRecord;
    DeviceMemory pHitGroupRecord;
    std::vector<DeviceMemory> aChunkBuffers; // vertices and acceleration structures, alive with the harness
};

ProgramHarness::ProgramHarness(const ProgramModule& module) : m_pHandles(std::make_unique<Handles>())
{
    const OptixFunctionTable& table = StandInTable();
    Handles& h = *m_pHandles;
    h.bClosestHit = std::strcmp(module.sHitProgram, "__closesthit__ch") == 0;

    cudaStream_t stream = nullptr;
    CheckCuda(cudaStreamCreate(&stream), "cudaStreamCreate");
    h.pStream.reset(stream);

    OptixDeviceContextOptions contextOptions{};
    OptixDeviceContext context = nullptr;
    CheckOptix(table.optixDeviceContextCreate(nullptr, &contextOptions, &context),
               "optixDeviceContextCreate");
    h.pContext.reset(context);

    char aLog[4096];
    std::size_t nLogSize = sizeof(aLog);
    OptixModuleCompileOptions moduleOptions{};
    OptixPipelineCompileOptions pipelineOptions{};
    pipelineOptions.traversableGraphFlags = OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_GAS;
    pipelineOptions.numPayloadValues = module.nPayloadValues;
    pipelineOptions.numAttributeValues = 2;
    pipelineOptions.usesPrimitiveTypeFlags = OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE;
    OptixModule rawModule = nullptr;
    CheckOptix(table.optixModuleCreate(context, &moduleOptions, &pipelineOptions, module.sPtx,
                                       std::strlen(module.sPtx), aLog, &nLogSize, &rawModule),
               "optixModuleCreate", aLog);
    h.pModule.reset(rawModule);

    OptixProgramGroupOptions groupOptions{};
    OptixProgramGroupDesc raygenDesc{};
    raygenDesc.kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
    raygenDesc.raygen = {rawModule, module.sRaygen};
    OptixProgramGroupDesc missDesc{};
    missDesc.kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
    missDesc.miss = {rawModule, "__miss__ms"};
    OptixProgramGroupDesc hitDesc{};
    hitDesc.kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
    if (h.bClosestHit)
    {
        hitDesc.hitgroup.moduleCH = rawModule;
        hitDesc.hitgroup.entryFunctionNameCH = module.sHitProgram;
    }
    else
    {
        hitDesc.hitgroup.moduleAH = rawModule;
        hitDesc.hitgroup.entryFunctionNameAH = module.sHitProgram;
    }
    const auto createGroup = [&](const OptixProgramGroupDesc& desc, auto& pOwner)
    {
        OptixProgramGroup group = nullptr;
        nLogSize = sizeof(aLog);
        CheckOptix(table.optixProgramGroupCreate(context, &desc, 1, &groupOptions, aLog, &nLogSize, &group),
                   "optixProgramGroupCreate", aLog);
        pOwner.reset(group);
    };
    createGroup(raygenDesc, h.pRaygen);
    createGroup(missDesc, h.pMiss);
    createGroup(hitDesc, h.pHitGroup);

    const OptixProgramGroup aGroups[] = {h.pRaygen.get(), h.pMiss.get(), h.pHitGroup.get()};
    OptixPipelineLinkOptions linkOptions{2};
    OptixPipeline pipeline = nullptr;
    nLogSize = sizeof(aLog);
    CheckOptix(table.optixPipelineCreate(context, &pipelineOptions, &linkOptions, aGroups, 3, aLog, &nLogSize,
                                         &pipeline),
               "optixPipelineCreate", aLog);
    h.pPipeline.reset(pipeline);

    SbtRecord missRecord{};
    CheckOptix(table.optixSbtRecordPackHeader(h.pMiss.get(), &missRecord), "optixSbtRecordPackHeader");
    h.pMissRecord = UploadBytes(&missRecord, sizeof(missRecord));
    SbtRecord hitRecord{};
    CheckOptix(table.optixSbtRecordPackHeader(h.pHitGroup.get(), &hitRecord), "optixSbtRecordPackHeader");
    h.pHitGroupRecord = UploadBytes(&hitRecord, sizeof(hitRecord));
}

ProgramHarness::~ProgramHarness()
{
    // Nothing may still run on the stream when its buffers go.
    if (m_pHandles->pStream)
    {
        cudaStreamSynchronize(m_pHandles->pStream.get());
    }
}

OptixTraversableHandle ProgramHarness::BuildChunk(const std::vector<Triangle>& aTriangles,
                                                  unsigned int iFirstIndex)
{
    const OptixFunctionTable& table = StandInTable();
    Handles& h = *m_pHandles;
    h.aChunkBuffers.push_back(UploadBytes(aTriangles.data(), aTriangles.size() * sizeof(Triangle)));
    const CUdeviceptr pVertices = AddressOf(h.aChunkBuffers.back());

    const unsigned int uGeometryFlags =
        h.bClosestHit ? OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT : OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL;
    OptixBuildInput input{};
    input.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
    input.triangleArray.vertexBuffers = &pVertices;
    input.triangleArray.numVertices = static_cast<unsigned int>(aTriangles.size() * 3);
    input.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
    input.triangleArray.vertexStrideInBytes = 12;
    input.triangleArray.flags = &uGeometryFlags;
    input.triangleArray.numSbtRecords = 1;
    input.triangleArray.primitiveIndexOffset = iFirstIndex;

    OptixAccelBuildOptions options{};
    options.buildFlags = OPTIX_BUILD_FLAG_PREFER_FAST_TRACE;
    options.operation = OPTIX_BUILD_OPERATION_BUILD;
    OptixAccelBufferSizes sizes{};
    CheckOptix(table.optixAccelComputeMemoryUsage(h.pContext.get(), &options, &input, 1, &sizes),
               "optixAccelComputeMemoryUsage");
    DeviceMemory pTemp = AllocateDevice(std::max<std::size_t>(sizes.tempSizeInBytes, 1));
    h.aChunkBuffers.push_back(AllocateDevice(std::max<std::size_t>(sizes.outputSizeInBytes, 1)));
    OptixTraversableHandle hTraversable = 0;
    CheckOptix(table.optixAccelBuild(h.pContext.get(), h.pStream.get(), &options, &input, 1, AddressOf(pTemp),
                                     sizes.tempSizeInBytes, AddressOf(h.aChunkBuffers.back()),
                                     sizes.outputSizeInBytes, &hTraversable, nullptr, 0),
               "optixAccelBuild");
    // The build reads the vertices and the temporary buffer on the stream.
    CheckCuda(cudaStreamSynchronize(h.pStream.get()), "cudaStreamSynchronize");
    return hTraversable;
}

cudaError_t ProgramHarness::LaunchBlock(const void* pParams, std::size_t nParamsSize, unsigned int nRays,
                                        const HitGroupData* pHitGroup)
{
    const OptixFunctionTable& table = StandInTable();
    Handles& h = *m_pHandles;
    const DeviceMemory pBlock = UploadBytes(pParams, nParamsSize);

    SbtRecord raygenRecord{};
    CheckOptix(table.optixSbtRecordPackHeader(h.pRaygen.get(), &raygenRecord), "optixSbtRecordPackHeader");
    raygenRecord.aData[0] = AddressOf(pBlock);
    const DeviceMemory pRaygenRecord = UploadBytes(&raygenRecord, sizeof(raygenRecord));

    DeviceMemory pLaunchHitGroupRecord;
    CUdeviceptr pHitGroupRecord = AddressOf(h.pHitGroupRecord);
    if (pHitGroup != nullptr)
    {
        SbtRecord hitRecord{};
        CheckOptix(table.optixSbtRecordPackHeader(h.pHitGroup.get(), &hitRecord), "optixSbtRecordPackHeader");
        std::memcpy(hitRecord.aData, pHitGroup, sizeof(HitGroupData));
        pLaunchHitGroupRecord = UploadBytes(&hitRecord, sizeof(hitRecord));
        pHitGroupRecord = AddressOf(pLaunchHitGroupRecord);
    }

    OptixShaderBindingTable sbt{};
    sbt.raygenRecord = AddressOf(pRaygenRecord);
    sbt.missRecordBase = AddressOf(h.pMissRecord);
    sbt.missRecordStrideInBytes = sizeof(SbtRecord);
    sbt.missRecordCount = 1;
    sbt.hitgroupRecordBase = pHitGroupRecord;
    sbt.hitgroupRecordStrideInBytes = sizeof(SbtRecord);
    sbt.hitgroupRecordCount = 1;
    CheckOptix(table.optixLaunch(h.pPipeline.get(), h.pStream.get(), 0, 0, &sbt, nRays, 1, 1), "optixLaunch");
    return cudaStreamSynchronize(h.pStream.get());
}
