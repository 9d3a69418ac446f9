// Thrust on the CPU flavour's platform: Thrust's host (CPP) system stands in for its CUDA system.
#pragma once

#include <string>

#include <thrust/execution_policy.h>
#include <thrust/system_error.h>

#include "cuda_runtime.h"

namespace RayTracingCpu::StandIn
{
// Thrust's "cuda" category, whose messages read "cudaErrorName: text" as on the GPU.
class CudaErrorCategory final : public thrust::error_category
{
public:
    const char* name() const override { return "cuda"; }
    std::string message(int nError) const override
    {
        return std::string(cudaGetErrorName(cudaError_t(nError))) + ": " +
               cudaGetErrorString(cudaError_t(nError));
    }
};

inline const thrust::error_category& CudaCategory()
{
    static const CudaErrorCategory s_cCategory;
    return s_cCategory;
}
} // namespace RayTracingCpu::StandIn

// The policy for Thrust algorithms ordered on stream. The host system has no streams, so the stream's
// earlier work is finished first; the algorithm then runs at once, which also covers Thrust's wait for the
// stream before it returns. A failed stream throws thrust::system_error, as Thrust's CUDA system does.
inline auto StreamPolicy(cudaStream_t stream)
{
    cudaError_t nError = cudaStreamSynchronize(stream);
    if (nError != cudaSuccess)
        throw thrust::system_error(nError, RayTracingCpu::StandIn::CudaCategory(),
                                   "failed to synchronize stream");
    return thrust::cpp::par;
}
