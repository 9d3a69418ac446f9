// The smallest nFreeGPUMemory figure the library accepts for a request, found by asking it. Just above that
// figure only a small triangle chunk fits beside the fewest rays per batch, which is how a test makes a GPU
// with tens of GiB cut a small mesh into several chunks and a few million rays into several batches.
#pragma once

#include "RayTracing.h"

#include <cstdint>
#include <functional>
#include <string>

// Runs the request with the given figure; returns the library's code and sets sError.
using TryFreeMemory = std::function<RayTracingErrorType(std::uint64_t nFreeGPUMemory, std::string& sError)>;

// Bisects to within 256 bytes. OutOfMemory means "too small"; any other failure throws std::runtime_error
// with the library's message.
std::uint64_t SmallestAcceptedFreeMemory(const TryFreeMemory& fnTry);

// Several chunks: a figure that leaves room for chunks of a small share of nTriangles (the acceleration
// structure, its build scratch and 36 vertex bytes take more than 25 bytes a triangle, so never all of them).
inline std::uint64_t SeveralChunksFreeMemory(std::uint64_t nSmallest, std::uint64_t nTriangles)
{
    return nSmallest + 25 * nTriangles;
}
