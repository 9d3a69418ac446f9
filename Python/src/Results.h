// From the caller's result arrays to the library's result record, and the collected hits back to numpy.
#pragma once

#include "Arrays.h"

#include <RayTracing.h>

#include <vector>

// Points the record at cArrays; throws ValueError when an array's length does not fit nRays.
RayTracingResults BindResults(ResultArrays& cArrays, std::uint64_t nRays);

// All-hits distances as a float32 numpy array that owns the vector (no copy); None in the other modes.
nb::object CollectedHits(RayTracingResults& cResults);
