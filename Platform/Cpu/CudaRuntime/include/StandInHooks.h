// Entry points of the CUDA runtime stand-in for header-only parts of the CPU platform (the stand-in sort,
// the stream-bound Thrust policy), so that they count calls, take injected faults and share the
// configured worker threads like the runtime functions do.
#pragma once

#include <cstddef>
#include <functional>

#include "cuda_runtime.h"

namespace RayTracingCpu::StandIn
{
// Thrown by stream work that went wrong the way a kernel can (e.g. an out-of-range offset): the stream
// fails with nError instead of the host process.
struct DeviceFault
{
    cudaError_t nError;
};

// Counts a call of sFunction; returns the fault injected for this call, or cudaSuccess.
cudaError_t EnterCall(const char* sFunction);
// Records a non-success result as the calling thread's last error (cudaGetLastError) and returns it.
cudaError_t Report(cudaError_t nError);
// Whether the stream is one the stand-in created and has not destroyed (the null stream counts as known).
bool IsKnownStream(cudaStream_t stream);
// Runs fnWork in the order of stream; the null stream first waits for all streams and runs it at once,
// returning its failure. cudaErrorInvalidResourceHandle for a stream the stand-in does not know.
cudaError_t EnqueueOrdered(cudaStream_t stream, std::function<void()> fnWork);
// Runs fnRange over consecutive sub-ranges of [0, n) on the configured number of worker threads.
void ParallelFor(std::size_t n, const std::function<void(std::size_t iBegin, std::size_t iEnd)>& fnRange);
} // namespace RayTracingCpu::StandIn
