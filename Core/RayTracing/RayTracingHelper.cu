// One source for both flavours: nvcc compiles it against CUB and Thrust's CUDA system; the CPU flavour
// compiles it as C++ against the stand-in sort and Thrust's CPP system (see PlatformThrust.h).
#include "RayTracingHelper.h"

#include <cstdint>

#include <cub/device/device_segmented_sort.cuh>
#include <thrust/functional.h>
#include <thrust/scan.h>
#include <thrust/transform.h>

#include "PlatformThrust.h"
#include "RayTracingChecks.h"
#include "ThrustExtra.h"

namespace
{
struct AddOffset
{
    unsigned long long nOffset;
    __host__ __device__ unsigned long long operator()(unsigned long long nValue) const
    {
        return nValue + nOffset;
    }
};

struct SubtractOffset
{
    unsigned long long nOffset;
    __host__ __device__ unsigned long long operator()(unsigned long long nValue) const
    {
        return nValue - nOffset;
    }
};
} // namespace

template <typename T>
void SegmentedSortInPlace(unsigned long long n, unsigned long long* pAccumulatedCounts, T* p,
                          cudaStream_t stream, bool bUseMemoryPool, unsigned long long nFirstOffset)
{
    if (n == 0)
        return;
    // clang-format off
    if (nFirstOffset == SIZE_MAX)
    {
        CHECK_CUDA(cudaMemcpyAsync(&nFirstOffset, pAccumulatedCounts, sizeof(size_t), cudaMemcpyDeviceToHost, stream));
        CHECK_CUDA(cudaStreamSynchronize(stream));
    }
    unsigned long long m = 0;
    CHECK_CUDA(cudaMemcpyAsync(&m, pAccumulatedCounts + n, sizeof(size_t), cudaMemcpyDeviceToHost, stream));
    CHECK_CUDA(cudaStreamSynchronize(stream));
    // clang-format on
    m = m - nFirstOffset;
    if (m <= 1)
        return;

    // CUB takes offsets relative to the keys.
    if (nFirstOffset != 0)
        thrust::transform(StreamPolicy(stream), pAccumulatedCounts, pAccumulatedCounts + n + 1,
                          pAccumulatedCounts, SubtractOffset{nFirstOffset});
    {
        DeviceBuffer<T> cResult(stream, bUseMemoryPool);
        cResult.resize(m);
        size_t nBuffer = 0;
        // clang-format off
        CHECK_CUDA(cub::DeviceSegmentedSort::SortKeys(nullptr, nBuffer, p, cResult.data(), m, n, pAccumulatedCounts, pAccumulatedCounts + (size_t)1, stream));
        DeviceBuffer<char> cBuffer(stream, bUseMemoryPool);
        if (nBuffer != 0)
            cBuffer.resize(nBuffer);
        CHECK_CUDA(cub::DeviceSegmentedSort::SortKeys(cBuffer.data(), nBuffer, p, cResult.data(), m, n, pAccumulatedCounts, pAccumulatedCounts + (size_t)1, stream));
        CHECK_CUDA(cudaMemcpyAsync(p, cResult.data(), m * sizeof(T), cudaMemcpyDeviceToDevice, stream));
        // clang-format on
        // Restored before the scratch buffers go, so that their release is ordered after all the sort's work.
        if (nFirstOffset != 0)
            thrust::transform(StreamPolicy(stream), pAccumulatedCounts, pAccumulatedCounts + n + 1,
                              pAccumulatedCounts, AddOffset{nFirstOffset});
    }
}

template void SegmentedSortInPlace<float>(unsigned long long n, unsigned long long* pAccumulatedCounts,
                                          float* p, cudaStream_t stream, bool bUseMemoryPool,
                                          unsigned long long nFirstOffset);

void AccumulateCountsInPlace(cudaStream_t stream, unsigned long long* p, unsigned long long n,
                             unsigned long long nBase)
{
    thrust::inclusive_scan(StreamPolicy(stream), p, p + n, p, nBase, thrust::plus<unsigned long long>());
}
