// Drives the stand-in through the function table its entry point fills, as the library does: owners for
// context, pipeline and acceleration structure, and one launch of the test programs.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <cuda_runtime.h>

#include "OptixApi.h"
#include "OptixStandInControl.h"
#include "TestPrograms.h"

extern "C" OptixQueryFunctionTable_t optixQueryFunctionTable;

// The table filled by the stand-in's optixQueryFunctionTable (once per process).
const OptixFunctionTable& Optix();
const OptixStandInControl& Control();

OptixPipelineCompileOptions TestPipelineOptions(int nPayloadValues = c_nTestPayloadValues);

class ContextOwner
{
public:
    explicit ContextOwner(const OptixDeviceContextOptions* pOptions = nullptr);
    ~ContextOwner();
    ContextOwner(const ContextOwner&) = delete;
    ContextOwner& operator=(const ContextOwner&) = delete;
    OptixDeviceContext Get() const { return m_hContext; }

private:
    OptixDeviceContext m_hContext = nullptr;
};

// Module, ray-generation, miss and hit groups and pipeline of one test module.
class TestPipeline
{
public:
    struct Programs
    {
        const char* sModuleText = c_sTestModuleText;
        const char* sRaygen = "__raygen__test";
        const char* sMiss = "__miss__test";
        const char* sClosestHit = "__closesthit__test";
        const char* sAnyHit = "__anyhit__test";
        int nPayloadValues = c_nTestPayloadValues;
    };

    TestPipeline(OptixDeviceContext hContext, const Programs& cPrograms);
    explicit TestPipeline(OptixDeviceContext hContext) : TestPipeline(hContext, Programs()) {}
    ~TestPipeline();
    TestPipeline(const TestPipeline&) = delete;
    TestPipeline& operator=(const TestPipeline&) = delete;

    OptixPipeline Get() const { return m_hPipeline; }
    OptixProgramGroup Raygen() const { return m_aGroups[0]; }
    OptixProgramGroup Miss() const { return m_aGroups[1]; }
    OptixProgramGroup HitGroup() const { return m_aGroups[2]; }

private:
    OptixModule m_hModule = nullptr;
    OptixProgramGroup m_aGroups[3] = {};
    OptixPipeline m_hPipeline = nullptr;
};

struct Triangle
{
    float3 a, b, c;
};

// A GAS over one triangle input, in stand-in device memory.
class TestGas
{
public:
    TestGas(OptixDeviceContext hContext, const std::vector<Triangle>& aTriangles, unsigned int uGeometryFlags,
            unsigned int iPrimitiveIndexOffset = 0, cudaStream_t stream = nullptr);
    ~TestGas();
    TestGas(const TestGas&) = delete;
    TestGas& operator=(const TestGas&) = delete;
    OptixTraversableHandle Handle() const { return m_hTraversable; }

private:
    void* m_pVertices = nullptr;
    void* m_pTemp = nullptr;
    void* m_pOutput = nullptr;
    OptixTraversableHandle m_hTraversable = 0;
};

struct RayBatch
{
    std::vector<float3> aOrigins;
    std::vector<float3> aDirections;
};

// Launches the pipeline's programs over the rays with the given launch block (its arrays and results are
// filled in here) and waits; returns what the stream's synchronisation reports.
cudaError_t LaunchTest(const TestPipeline& cPipeline, TestLaunch cLaunch, const RayBatch& cRays,
                       std::vector<RayResult>& aResults, cudaStream_t stream = nullptr,
                       OptixResult* pLaunchResult = nullptr);

// Every intersection of a ray with t in [fTmin, fTmax], in double precision: (triangle, t) pairs by t.
std::vector<std::pair<unsigned int, double>> ReferenceHits(const std::vector<Triangle>& aTriangles,
                                                           float3 origin, float3 direction, float fTmin,
                                                           float fTmax);

std::vector<Triangle> RandomTriangles(unsigned int nTriangles, unsigned int uSeed, float fSize = 0.2f);
RayBatch RandomRays(unsigned int nRays, unsigned int uSeed);
