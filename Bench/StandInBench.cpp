// Throughput of the stand-in against plain Embree (rtcIntersect1 per ray on the same number of threads), for
// nearest hits and for counting every hit.
// Usage: OptixStandInBench [triangles] [rays] [threads] [nearest|count|both] [soup|mesh]
// A soup keeps the random triangles in random memory order (worst case for the exact distances, which read a
// triangle's vertices); a mesh orders them along a Morton curve, as triangles of real meshes lie.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <embree3/rtcore.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <cuda_runtime.h>

#include "OptixApi.h"
#include "OptixDeviceHost.h"
#include "OptixStandInControl.h"

extern "C" OptixQueryFunctionTable_t optixQueryFunctionTable;

namespace
{
struct Triangle
{
    float3 a, b, c;
};

struct RayBatch
{
    std::vector<float3> aOrigins;
    std::vector<float3> aDirections;
};

void Check(OptixResult nResult, const char* sCall)
{
    if (nResult != OPTIX_SUCCESS)
    {
        std::fprintf(stderr, "%s failed with %d\n", sCall, static_cast<int>(nResult));
        std::exit(1);
    }
}

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

// Module, the three program groups of one ray-generation entry, and their pipeline.
class BenchPipeline
{
public:
    BenchPipeline(OptixDeviceContext hContext, const char* sModuleText, const char* sRaygen)
    {
        const OptixModuleCompileOptions cModuleOptions{};
        OptixPipelineCompileOptions cOptions{};
        cOptions.traversableGraphFlags = OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_GAS;
        cOptions.numPayloadValues = 2;
        cOptions.numAttributeValues = 2;
        cOptions.usesPrimitiveTypeFlags = OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE;
        Check(Optix().optixModuleCreate(hContext, &cModuleOptions, &cOptions, sModuleText,
                                        std::strlen(sModuleText), nullptr, nullptr, &m_hModule),
              "optixModuleCreate");
        OptixProgramGroupDesc aDescs[3] = {};
        aDescs[0].kind = OPTIX_PROGRAM_GROUP_KIND_RAYGEN;
        aDescs[0].raygen = {m_hModule, sRaygen};
        aDescs[1].kind = OPTIX_PROGRAM_GROUP_KIND_MISS;
        aDescs[1].miss = {m_hModule, "__miss__bench"};
        aDescs[2].kind = OPTIX_PROGRAM_GROUP_KIND_HITGROUP;
        aDescs[2].hitgroup.moduleCH = m_hModule;
        aDescs[2].hitgroup.entryFunctionNameCH = "__closesthit__bench";
        aDescs[2].hitgroup.moduleAH = m_hModule;
        aDescs[2].hitgroup.entryFunctionNameAH = "__anyhit__bench";
        const OptixProgramGroupOptions cGroupOptions{};
        Check(
            Optix().optixProgramGroupCreate(hContext, aDescs, 3, &cGroupOptions, nullptr, nullptr, m_aGroups),
            "optixProgramGroupCreate");
        const OptixPipelineLinkOptions cLink{2};
        Check(Optix().optixPipelineCreate(hContext, &cOptions, &cLink, m_aGroups, 3, nullptr, nullptr,
                                          &m_hPipeline),
              "optixPipelineCreate");
    }
    ~BenchPipeline()
    {
        Optix().optixPipelineDestroy(m_hPipeline);
        for (OptixProgramGroup hGroup : m_aGroups)
            Optix().optixProgramGroupDestroy(hGroup);
        Optix().optixModuleDestroy(m_hModule);
    }
    BenchPipeline(const BenchPipeline&) = delete;
    BenchPipeline& operator=(const BenchPipeline&) = delete;

    OptixPipeline Get() const { return m_hPipeline; }
    OptixProgramGroup Group(int i) const { return m_aGroups[i]; }

private:
    OptixModule m_hModule = nullptr;
    OptixProgramGroup m_aGroups[3] = {};
    OptixPipeline m_hPipeline = nullptr;
};

// An acceleration structure over the triangles, in stand-in device memory.
class BenchGas
{
public:
    BenchGas(OptixDeviceContext hContext, const std::vector<Triangle>& aTriangles,
             unsigned int uGeometryFlags)
    {
        cudaMalloc(&m_pVertices, aTriangles.size() * sizeof(Triangle));
        cudaMemcpy(m_pVertices, aTriangles.data(), aTriangles.size() * sizeof(Triangle),
                   cudaMemcpyHostToDevice);
        const CUdeviceptr pVertices = reinterpret_cast<CUdeviceptr>(m_pVertices);
        OptixBuildInput cInput{};
        cInput.type = OPTIX_BUILD_INPUT_TYPE_TRIANGLES;
        cInput.triangleArray.vertexBuffers = &pVertices;
        cInput.triangleArray.numVertices = static_cast<unsigned int>(3 * aTriangles.size());
        cInput.triangleArray.vertexFormat = OPTIX_VERTEX_FORMAT_FLOAT3;
        cInput.triangleArray.flags = &uGeometryFlags;
        cInput.triangleArray.numSbtRecords = 1;
        OptixAccelBuildOptions cOptions{};
        cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
        OptixAccelBufferSizes cSizes{};
        Check(Optix().optixAccelComputeMemoryUsage(hContext, &cOptions, &cInput, 1, &cSizes),
              "optixAccelComputeMemoryUsage");
        cudaMalloc(&m_pTemp, cSizes.tempSizeInBytes);
        cudaMalloc(&m_pOutput, cSizes.outputSizeInBytes);
        Check(Optix().optixAccelBuild(hContext, nullptr, &cOptions, &cInput, 1,
                                      reinterpret_cast<CUdeviceptr>(m_pTemp), cSizes.tempSizeInBytes,
                                      reinterpret_cast<CUdeviceptr>(m_pOutput), cSizes.outputSizeInBytes,
                                      &m_hTraversable, nullptr, 0),
              "optixAccelBuild");
    }
    ~BenchGas()
    {
        cudaFree(m_pVertices);
        cudaFree(m_pTemp);
        cudaFree(m_pOutput);
    }
    BenchGas(const BenchGas&) = delete;
    BenchGas& operator=(const BenchGas&) = delete;
    OptixTraversableHandle Handle() const { return m_hTraversable; }

private:
    void* m_pVertices = nullptr;
    void* m_pTemp = nullptr;
    void* m_pOutput = nullptr;
    OptixTraversableHandle m_hTraversable = 0;
};

std::vector<Triangle> RandomTriangles(unsigned int nTriangles, unsigned int uSeed, float fSize)
{
    std::mt19937 cRandom(uSeed);
    std::uniform_real_distribution<float> cPosition(-1.0f, 1.0f);
    std::uniform_real_distribution<float> cOffset(-fSize, fSize);
    std::vector<Triangle> aTriangles(nTriangles);
    for (Triangle& cTriangle : aTriangles)
    {
        const float3 c{cPosition(cRandom), cPosition(cRandom), cPosition(cRandom)};
        auto Corner = [&] {
            return float3{c.x + cOffset(cRandom), c.y + cOffset(cRandom), c.z + cOffset(cRandom)};
        };
        cTriangle = Triangle{Corner(), Corner(), Corner()};
    }
    return aTriangles;
}

// Rays from the plane z = -2 towards +z, spread a little.
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

struct BenchLaunch
{
    OptixTraversableHandle hTraversable;
    const float3* pOrigins;
    const float3* pDirections;
    unsigned int* pIndices; // nearest triangle, or the hit count
    float* pDistances;
};

const char c_sBenchModuleText[] = ".visible .entry __raygen__benchNearest()\n"
                                  ".visible .entry __raygen__benchCount()\n"
                                  ".visible .entry __miss__bench()\n"
                                  ".visible .entry __closesthit__bench()\n"
                                  ".visible .entry __anyhit__bench()\n";

const BenchLaunch& Bench()
{
    return **reinterpret_cast<const BenchLaunch* const*>(optixGetSbtDataPointer());
}

RT_MODULE(StandInBench, 2)

RT_PROGRAM(__raygen__benchNearest)
{
    const BenchLaunch& cLaunch = Bench();
    const unsigned int i = optixGetLaunchIndex().x;
    unsigned int iPrimitive = ~0u, uDistance = __float_as_uint(1e30f);
    optixTrace(cLaunch.hTraversable, cLaunch.pOrigins[i], cLaunch.pDirections[i], 0.0f, 1e30f, 0.0f, 255u, 0u,
               0u, 1u, 0u, iPrimitive, uDistance);
    cLaunch.pIndices[i] = iPrimitive;
    cLaunch.pDistances[i] = __uint_as_float(uDistance);
}

RT_PROGRAM(__raygen__benchCount)
{
    const BenchLaunch& cLaunch = Bench();
    const unsigned int i = optixGetLaunchIndex().x;
    unsigned int nCount = 0, uUnused = 0;
    optixTrace(cLaunch.hTraversable, cLaunch.pOrigins[i], cLaunch.pDirections[i], 1.17549435e-38f, 1e30f,
               0.0f, 255u, OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT, 0u, 1u, 0u, nCount, uUnused);
    cLaunch.pIndices[i] = nCount;
}

RT_PROGRAM(__miss__bench) {}

RT_PROGRAM(__closesthit__bench)
{
    optixSetPayload_0(optixGetPrimitiveIndex());
    optixSetPayload_1(__float_as_uint(optixGetRayTmax()));
}

RT_PROGRAM(__anyhit__bench)
{
    optixSetPayload_0(optixGetPayload_0() + 1);
    optixIgnoreIntersection();
}

// Morton order of the triangles' centroids in [-1, 1]^3.
void SortAlongMortonCurve(std::vector<Triangle>& aTriangles)
{
    auto spread = [](std::uint64_t x)
    {
        x &= 0x1FFFFF;
        x = (x | x << 32) & 0x1F00000000FFFFull;
        x = (x | x << 16) & 0x1F0000FF0000FFull;
        x = (x | x << 8) & 0x100F00F00F00F00Full;
        x = (x | x << 4) & 0x10C30C30C30C30C3ull;
        x = (x | x << 2) & 0x1249249249249249ull;
        return x;
    };
    auto key = [&](const Triangle& t)
    {
        auto cell = [](float f)
        { return static_cast<std::uint64_t>(std::clamp((f / 3.0f + 0.5f), 0.0f, 1.0f) * 2097151.0f); };
        return spread(cell(t.a.x + t.b.x + t.c.x)) | spread(cell(t.a.y + t.b.y + t.c.y)) << 1 |
               spread(cell(t.a.z + t.b.z + t.c.z)) << 2;
    };
    std::sort(aTriangles.begin(), aTriangles.end(),
              [&](const Triangle& a, const Triangle& b) { return key(a) < key(b); });
}

double Seconds(std::chrono::steady_clock::time_point tStart)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - tStart).count();
}

struct CountContext
{
    RTCIntersectContext rtc;
    unsigned int nCount;
};

void CountAndReject(const RTCFilterFunctionNArguments* pArgs)
{
    if (pArgs->valid[0])
    {
        ++reinterpret_cast<CountContext*>(pArgs->context)->nCount;
        pArgs->valid[0] = 0;
    }
}

RTCRayHit MakeRay(float3 o, float3 d, float fTnear)
{
    RTCRayHit cRayHit{};
    cRayHit.ray.org_x = o.x, cRayHit.ray.org_y = o.y, cRayHit.ray.org_z = o.z;
    cRayHit.ray.dir_x = d.x, cRayHit.ray.dir_y = d.y, cRayHit.ray.dir_z = d.z;
    cRayHit.ray.tnear = fTnear;
    cRayHit.ray.tfar = 1e30f;
    cRayHit.ray.mask = ~0u;
    cRayHit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    return cRayHit;
}

// Plain Embree on the same triangles, scene settings and thread count.
class PlainEmbree
{
public:
    PlainEmbree(const std::vector<Triangle>& aTriangles, int nThreads)
        : m_hDevice(rtcNewDevice(nullptr)), m_hScene(rtcNewScene(m_hDevice)), m_cArena(nThreads, 1)
    {
        rtcSetSceneBuildQuality(m_hScene, RTC_BUILD_QUALITY_MEDIUM);
        rtcSetSceneFlags(m_hScene, RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION);
        RTCGeometry hGeometry = rtcNewGeometry(m_hDevice, RTC_GEOMETRY_TYPE_TRIANGLE);
        auto* pVertices = static_cast<float*>(rtcSetNewGeometryBuffer(
            hGeometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 12, 3 * aTriangles.size()));
        auto* pIndices = static_cast<unsigned int*>(rtcSetNewGeometryBuffer(
            hGeometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 12, aTriangles.size()));
        std::memcpy(pVertices, aTriangles.data(), aTriangles.size() * sizeof(Triangle));
        for (unsigned int i = 0; i < 3 * aTriangles.size(); ++i)
            pIndices[i] = i;
        rtcCommitGeometry(hGeometry);
        rtcAttachGeometry(m_hScene, hGeometry);
        rtcReleaseGeometry(hGeometry);
        m_cArena.execute([&]() { rtcCommitScene(m_hScene); });
    }

    ~PlainEmbree()
    {
        rtcReleaseScene(m_hScene);
        rtcReleaseDevice(m_hDevice);
    }

    // Seconds of one query of every ray.
    double Query(const RayBatch& cRays, bool bCount, std::vector<unsigned int>& aOut)
    {
        aOut.assign(cRays.aDirections.size(), 0);
        const auto tStart = std::chrono::steady_clock::now();
        m_cArena.execute(
            [&]()
            {
                tbb::parallel_for(tbb::blocked_range<size_t>(0, aOut.size(), 64),
                                  [&](const tbb::blocked_range<size_t>& r)
                                  {
                                      for (size_t i = r.begin(); i != r.end(); ++i)
                                      {
                                          RTCRayHit cRayHit = MakeRay(cRays.aOrigins[i], cRays.aDirections[i],
                                                                      bCount ? 1.17549435e-38f : 0.0f);
                                          CountContext cContext;
                                          rtcInitIntersectContext(&cContext.rtc);
                                          cContext.nCount = 0;
                                          if (bCount)
                                              cContext.rtc.filter = &CountAndReject;
                                          rtcIntersect1(m_hScene, &cContext.rtc, &cRayHit);
                                          aOut[i] = bCount ? cContext.nCount
                                                           : (cRayHit.hit.geomID == RTC_INVALID_GEOMETRY_ID
                                                                  ? ~0u
                                                                  : cRayHit.hit.primID);
                                      }
                                  });
            });
        return Seconds(tStart);
    }

private:
    RTCDevice m_hDevice;
    RTCScene m_hScene;
    tbb::task_arena m_cArena;
};

double StandIn(const BenchPipeline& cPipeline, BenchLaunch cLaunch, unsigned int nRays)
{
    struct alignas(16) Record
    {
        char aHeader[32];
        const BenchLaunch* pLaunch;
        unsigned long long nUnused;
    } aRecords[3] = {};
    const OptixProgramGroup aGroups[3] = {cPipeline.Group(0), cPipeline.Group(1), cPipeline.Group(2)};
    for (int i = 0; i < 3; ++i)
    {
        Optix().optixSbtRecordPackHeader(aGroups[i], aRecords[i].aHeader);
        aRecords[i].pLaunch = &cLaunch;
    }
    OptixShaderBindingTable cSbt{};
    cSbt.raygenRecord = reinterpret_cast<CUdeviceptr>(&aRecords[0]);
    cSbt.missRecordBase = reinterpret_cast<CUdeviceptr>(&aRecords[1]);
    cSbt.missRecordStrideInBytes = sizeof(Record);
    cSbt.missRecordCount = 1;
    cSbt.hitgroupRecordBase = reinterpret_cast<CUdeviceptr>(&aRecords[2]);
    cSbt.hitgroupRecordStrideInBytes = sizeof(Record);
    cSbt.hitgroupRecordCount = 1;
    const auto tStart = std::chrono::steady_clock::now();
    if (Optix().optixLaunch(cPipeline.Get(), nullptr, 0, 0, &cSbt, nRays, 1, 1) != OPTIX_SUCCESS)
        std::fprintf(stderr, "launch failed\n");
    return Seconds(tStart);
}
} // namespace

int main(int argc, char** argv)
{
    const unsigned int nTriangles = argc > 1 ? std::atoi(argv[1]) : 1000000;
    const unsigned int nRays = argc > 2 ? std::atoi(argv[2]) : 1000000;
    const int nThreads =
        argc > 3 ? std::atoi(argv[3]) : static_cast<int>(std::thread::hardware_concurrency());
    const std::string sMode = argc > 4 ? argv[4] : "both";
    const bool bMesh = argc > 5 && std::string(argv[5]) == "mesh";
    RayTracingCpuOptixControl()->SetThreads(nThreads);
    std::vector<Triangle> aTriangles = RandomTriangles(nTriangles, 1, 0.02f);
    if (bMesh)
        SortAlongMortonCurve(aTriangles);
    const RayBatch cRays = RandomRays(nRays, 2);

    const std::unique_ptr<OptixDeviceContext_t, OptixResult (*)(OptixDeviceContext)> pContext(
        []
        {
            OptixDeviceContext hNew = nullptr;
            Check(Optix().optixDeviceContextCreate(nullptr, nullptr, &hNew), "optixDeviceContextCreate");
            return hNew;
        }(),
        Optix().optixDeviceContextDestroy);
    const OptixDeviceContext hContext = pContext.get();
    BenchPipeline cNearest(hContext, c_sBenchModuleText, "__raygen__benchNearest");
    BenchPipeline cCount(hContext, c_sBenchModuleText, "__raygen__benchCount");

    std::vector<unsigned int> aIndices(nRays), aReference;
    std::vector<float> aDistances(nRays);
    BenchLaunch cLaunch{0, cRays.aOrigins.data(), cRays.aDirections.data(), aIndices.data(),
                        aDistances.data()};
    PlainEmbree cEmbree(aTriangles, nThreads);
    for (const bool bCount : {false, true})
    {
        if (sMode != "both" && (sMode == "count") != bCount)
            continue;
        const auto tBuild = std::chrono::steady_clock::now();
        BenchGas cGas(hContext, aTriangles,
                      bCount ? OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL
                             : OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT);
        const double fBuild = Seconds(tBuild);
        cLaunch.hTraversable = cGas.Handle();
        const BenchPipeline& cPipeline = bCount ? cCount : cNearest;
        // Alternating runs, best of three: the machine is shared.
        double fStandIn = 1e30, fEmbree = 1e30;
        for (int iRun = 0; iRun < 3; ++iRun)
        {
            fStandIn = std::min(fStandIn, StandIn(cPipeline, cLaunch, nRays));
            fEmbree = std::min(fEmbree, cEmbree.Query(cRays, bCount, aReference));
        }
        unsigned long long nTotal = 0, nDiffer = 0;
        for (unsigned int i = 0; i < nRays; ++i)
        {
            nTotal += bCount ? aIndices[i] : (aIndices[i] != ~0u);
            nDiffer += aIndices[i] != aReference[i];
        }
        std::printf(
            "%-8s %s %u triangles, %u rays, %d threads: build %.3f s, stand-in %.3f s, Embree %.3f s, "
            "ratio %.2f (%llu %s, %llu rays differ)\n",
            bCount ? "count" : "nearest", bMesh ? "mesh" : "soup", nTriangles, nRays, nThreads, fBuild,
            fStandIn, fEmbree, fEmbree / fStandIn, nTotal, bCount ? "hits" : "rays hit", nDiffer);
    }
    return 0;
}
