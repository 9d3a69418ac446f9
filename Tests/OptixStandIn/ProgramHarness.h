// Runs the library's device programs through the OptiX driver stand-in the way the library does, with launch
// blocks built by hand: context, module from the embedded PTX, three program groups, pipeline, acceleration
// structures per chunk, launches on one stream. The stand-in's device memory is host memory, so records and
// launch blocks may live in host memory and point at host arrays.
#pragma once

#include <memory>
#include <vector>

#include <cuda_runtime.h>

#include "LaunchParams.h"
#include "OptixApi.h"
#include "OptixStandInControl.h"

extern "C" OptixQueryFunctionTable_t optixQueryFunctionTable;

// The table the stand-in's entry point fills, and its control interface.
const OptixFunctionTable& Optix();
const OptixStandInControl& Control();

struct ProgramModule
{
    const char* sPtx;
    const char* sRaygen;
    bool bClosestHit; // the nearest-only modules; the others see every hit in any-hit
    int nPayloadValues;
};
extern const ProgramModule c_cCountHits;
extern const ProgramModule c_cAllHits;
extern const ProgramModule c_cOneHit;

struct Triangle
{
    float3 a, b, c;
};

// A small triangle in the plane z = fZ around (fX, fY): rays along z at (fX, fY) hit it, rays one unit away
// do not.
Triangle TriangleAt(float fX, float fY, float fZ);

OptixPipelineCompileOptions PipelineOptions(int nPayloadValues);

struct FreeDevice
{
    void operator()(void* p) const { cudaFree(p); }
};
using DeviceMemory = std::unique_ptr<void, FreeDevice>;

// Context, module, three program groups and pipeline of one module; released in reverse, also when the
// constructor gives up half-way.
class ProgramHarness
{
public:
    explicit ProgramHarness(const ProgramModule& cModule,
                            const OptixDeviceContextOptions* pOptions = nullptr);
    ProgramHarness(const ProgramHarness&) = delete;
    ProgramHarness& operator=(const ProgramHarness&) = delete;

    OptixDeviceContext Context() const { return m_cHandles.hContext; }
    OptixModule Module() const { return m_cHandles.hModule; }
    OptixProgramGroup Group(int i) const { return m_cHandles.aGroups[i]; } // ray generation, miss, hit group
    OptixPipeline Pipeline() const { return m_cHandles.hPipeline; }
    cudaStream_t Stream() const { return m_cHandles.hStream; }

    // One chunk's acceleration structure, alive with the harness; its triangles report indices from
    // iFirstIndex on.
    OptixTraversableHandle BuildChunk(const std::vector<Triangle>& aTriangles, unsigned int iFirstIndex = 0);

    // Launches nRays threads with the block as the ray-generation record's data and, when given, pHitGroup as
    // the hit group's; returns what the stream's synchronisation reports.
    template <class Params>
    cudaError_t Launch(const Params& cParams, unsigned int nRays, const HitGroupData* pHitGroup = nullptr)
    {
        return LaunchBlock(&cParams, nRays, pHitGroup);
    }

private:
    cudaError_t LaunchBlock(const void* pParams, unsigned int nRays, const HitGroupData* pHitGroup);

    struct Handles
    {
        cudaStream_t hStream = nullptr;
        OptixDeviceContext hContext = nullptr;
        OptixModule hModule = nullptr;
        OptixProgramGroup aGroups[3] = {};
        OptixPipeline hPipeline = nullptr;
        ~Handles();
    } m_cHandles;
    bool m_bClosestHit;
    std::vector<DeviceMemory> m_aChunkBuffers; // vertices and acceleration structures
};
