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
#include <string>
#include <thread>

#include <embree3/rtcore.h>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "StandInHarness.h"

namespace
{
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
        rtcSetSceneFlags(m_hScene, static_cast<RTCSceneFlags>(RTC_SCENE_FLAG_ROBUST |
                                                              RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION));
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

double StandIn(const TestPipeline& cPipeline, OptixProgramGroup hRaygen, BenchLaunch cLaunch,
               unsigned int nRays)
{
    struct alignas(16) Record
    {
        char aHeader[32];
        const BenchLaunch* pLaunch;
        unsigned long long nUnused;
    } aRecords[3] = {};
    const OptixProgramGroup aGroups[3] = {hRaygen, cPipeline.Miss(), cPipeline.HitGroup()};
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
    Control().SetThreads(nThreads);
    std::vector<Triangle> aTriangles = RandomTriangles(nTriangles, 1, 0.02f);
    if (bMesh)
        SortAlongMortonCurve(aTriangles);
    const RayBatch cRays = RandomRays(nRays, 2);

    ContextOwner cContext;
    TestPipeline::Programs cPrograms;
    cPrograms.sModuleText = c_sBenchModuleText;
    cPrograms.sRaygen = "__raygen__benchNearest";
    cPrograms.sMiss = "__miss__bench";
    cPrograms.sClosestHit = "__closesthit__bench";
    cPrograms.sAnyHit = "__anyhit__bench";
    cPrograms.nPayloadValues = 2;
    TestPipeline cNearest(cContext.Get(), cPrograms);
    cPrograms.sRaygen = "__raygen__benchCount";
    TestPipeline cCount(cContext.Get(), cPrograms);

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
        TestGas cGas(cContext.Get(), aTriangles,
                     bCount ? OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL
                            : OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT);
        const double fBuild = Seconds(tBuild);
        cLaunch.hTraversable = cGas.Handle();
        const TestPipeline& cPipeline = bCount ? cCount : cNearest;
        // Alternating runs, best of three: the machine is shared.
        double fStandIn = 1e30, fEmbree = 1e30;
        for (int iRun = 0; iRun < 3; ++iRun)
        {
            fStandIn = std::min(fStandIn, StandIn(cPipeline, cPipeline.Raygen(), cLaunch, nRays));
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
