// Scan of hit counts and segmented sort of hit distances on the call's stream.
#pragma once

#include <cuda_runtime.h>

// Sorts the keys of each of the n segments ascending, in place. pAccumulatedCounts holds n + 1 absolute
// offsets on the device (entry 0 = absolute position of p[0]); they hold their old values on return.
// nFirstOffset is entry 0 when known, or all bits set to read it from the device.
template <typename T>
void SegmentedSortInPlace(unsigned long long n, unsigned long long* pAccumulatedCounts, T* p,
                          cudaStream_t stream, bool bUseMemoryPool, unsigned long long nFirstOffset);

extern template void SegmentedSortInPlace<float>(unsigned long long n, unsigned long long* pAccumulatedCounts,
                                                 float* p, cudaStream_t stream, bool bUseMemoryPool,
                                                 unsigned long long nFirstOffset);

// p[i] = nBase + p[0] + ... + p[i] for i < n; returns when the scan has finished.
void AccumulateCountsInPlace(cudaStream_t stream, unsigned long long* p, unsigned long long n,
                             unsigned long long nBase);
