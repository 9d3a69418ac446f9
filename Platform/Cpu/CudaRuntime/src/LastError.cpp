#include "Runtime.h"
#include "StandInHooks.h"

namespace RayTracingCpu::StandIn
{
namespace
{
// Per thread, as in the CUDA runtime.
thread_local cudaError_t t_nLastError = cudaSuccess;
} // namespace

cudaError_t Report(cudaError_t nError)
{
    if (nError != cudaSuccess)
        t_nLastError = nError;
    return nError;
}

cudaError_t TakeLastError(bool bReset)
{
    cudaError_t nError = t_nLastError;
    if (bReset)
        t_nLastError = cudaSuccess;
    return nError;
}
} // namespace RayTracingCpu::StandIn
