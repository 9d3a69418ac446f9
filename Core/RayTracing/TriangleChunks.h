// Sizing of triangle chunks: the largest chunk whose acceleration structure, build scratch and vertex
// buffer fit the budget and OptiX's primitive limit.
#pragma once

#include <cstddef>
#include <utility>

#include "OptixTypes.h"
#include "RayTracingChecks.h"
#include "ThrustExtra.h"

constexpr std::size_t c_nChunkBudgetFloor = 268435456;          // 256 MiB kept out of every chunk budget
constexpr std::size_t c_nMaximumTrianglesPerChunk = 1431655765; // 3 * n vertices fit 32 bits

// {nTrianglesPerChunk, nGasBytes}; {0, 0} when no chunk fits. OptiX failures throw the check's message.
std::pair<std::size_t, std::size_t> FindTriangleChunkSize(OptixDeviceContext ctx, std::size_t nTriangles,
                                                          std::size_t nBudget, unsigned int uGeometryFlags,
                                                          const OptixAccelBuildOptions& opts);

// A triangle build input over numVertices packed float3 vertices at *pVertexBuffer.
OptixBuildInput MakeTriangleBuildInput(const CUdeviceptr* pVertexBuffer, unsigned int numVertices,
                                       unsigned int vertexStrideInBytes, const unsigned int* pGeometryFlags,
                                       unsigned int primitiveIndexOffset);

// Builds the acceleration structure of triangles [iStart, iEnd) into d_gas_output, with d_gas_temp as build
// scratch; the vertices go up through a buffer released on return. OptiX failures are returned (and recorded
// in cRunningResult); CUDA failures throw.
ErrorResult BuildChunkGas(OptixDeviceContext hContext, CudaStream& cStream, bool bMemoryPoolsSupported,
                          const float* pTriangles, std::size_t iStart, std::size_t iEnd,
                          const unsigned int& uGeometryFlags, DeviceBuffer<char>& d_gas_temp,
                          DeviceBuffer<char>& d_gas_output, OptixTraversableHandle& gas_handle,
                          ErrorResult& cRunningResult);
