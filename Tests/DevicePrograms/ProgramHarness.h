// Runs one device-program module through the OptiX driver stand-in, the way the library does, but with launch
// blocks and records built by hand: context, module from the embedded PTX, three program groups, pipeline,
// acceleration structures per chunk, launches on one stream.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <cuda_runtime.h>

#include "LaunchParams.h"
#include "OptixApi.h"

const OptixFunctionTable& StandInTable();

void CheckCuda(cudaError_t error, const char* sCall);

// One typed device array, freed with its owner.
template <class T> class DeviceArray
{
public:
    explicit DeviceArray(const std::vector<T>& aValues) : m_nCount(aValues.size())
    {
        CheckCuda(cudaMalloc(&m_pDevice, std::max<std::size_t>(m_nCount, 1) * sizeof(T)), "cudaMalloc");
        Upload(aValues);
    }
    DeviceArray(const DeviceArray&) = delete;
    DeviceArray& operator=(const DeviceArray&) = delete;
    ~DeviceArray() { cudaFree(m_pDevice); }

    void Upload(const std::vector<T>& aValues)
    {
        if (aValues.size() != m_nCount)
        {
            throw std::invalid_argument("DeviceArray::Upload: size mismatch");
        }
        CheckCuda(cudaMemcpy(m_pDevice, aValues.data(), m_nCount * sizeof(T), cudaMemcpyHostToDevice),
                  "cudaMemcpy");
    }
    std::vector<T> Download() const
    {
        std::vector<T> aValues(m_nCount);
        CheckCuda(cudaMemcpy(aValues.data(), m_pDevice, m_nCount * sizeof(T), cudaMemcpyDeviceToHost),
                  "cudaMemcpy");
        return aValues;
    }
    T* Get() const { return m_pDevice; }

private:
    std::size_t m_nCount;
    T* m_pDevice = nullptr;
};

struct ProgramModule
{
    const char* sName;
    const char* sPtx;
    const char* sRaygen;
    const char* sHitProgram; // "__closesthit__ch" or "__anyhit__ah"
    int nPayloadValues;
};

// A triangle of the test scenes: three vertices, nine floats.
struct Triangle
{
    float aVertices[9];
};

// A small triangle in the plane z = fZ around (fX, fY): rays along z at (fX, fY) hit it, rays one unit away
// do not.
Triangle TriangleAt(float fX, float fY, float fZ);

class ProgramHarness
{
public:
    explicit ProgramHarness(const ProgramModule& module);
    ~ProgramHarness();

    // Builds one chunk's acceleration structure; its triangles report indices from iFirstIndex on.
    OptixTraversableHandle BuildChunk(const std::vector<Triangle>& aTriangles, unsigned int iFirstIndex);

    // Launches nRays threads with the block as the ray-generation record's data, and, when given, the
    // hit-group record's data; returns what the stream's synchronisation reports.
    template <class Params>
    cudaError_t Launch(const Params& params, unsigned int nRays, const HitGroupData* pHitGroup = nullptr)
    {
        return LaunchBlock(&params, sizeof(Params), nRays, pHitGroup);
    }

private:
    cudaError_t LaunchBlock(const void* pParams, std::size_t nParamsSize, unsigned int nRays,
                            const HitGroupData* pHitGroup);

    struct Handles;
    std::unique_ptr<Handles> m_pHandles;
};
