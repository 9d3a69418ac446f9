// Host-side arithmetic of the trace driver: ray batches, the collecting run's batches by hits, and the
// host sort of hit distances.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "RayTracing.h"

constexpr std::uint64_t c_nMinimumRaysPerBatch = 1048576; // 2^20: the budget must hold at least these
constexpr std::uint64_t c_nRayBatchGranularity = 256;
constexpr std::uint64_t c_nMaximumRaysPerBatch = 1073741824;      // 2^30: fits the 32-bit launch width
constexpr std::uint64_t c_nMaximumHitsPerDeviceSort = 2147483647; // CUB's 32-bit item count

// Rays per batch: the fewest batches that fit nBudget, rays spread evenly, a multiple of 256, at most 2^30.
std::uint64_t ComputeRaysPerBatch(std::uint64_t nRays, std::uint64_t nBudget, std::uint64_t nBytesPerRay);

// Batch boundaries of the collecting run (ray indices, beginning with 0) from the running hit counts of the
// counting run; empty when not even one ray fits next to its hits.
std::vector<std::uint64_t> ComputeBatchBounds(const std::uint64_t* pCountHits, std::uint64_t nRays,
                                              bool bSortOnDevice, std::uint64_t nBytesPerRay,
                                              std::uint64_t nBudget);

// Sorts each ray's stretch of cAllHits ascending, in parallel over rays.
void SortHitsOnHost(std::uint64_t nRays, RayTracingResults& cRayTracingResults);
