// The array types the module exchanges with its Python part: C-contiguous host arrays of exactly these
// dtypes. The Python part converts anything else once; nothing is converted here.
#pragma once

#include <nanobind/ndarray.h>

#include <cstdint>
#include <optional>

namespace nb = nanobind;

using TriangleArray = nb::ndarray<const float, nb::shape<-1, 9>, nb::c_contig, nb::device::cpu>;
using PointArray = nb::ndarray<const float, nb::shape<-1, 3>, nb::c_contig, nb::device::cpu>;
using DistanceArray = nb::ndarray<const float, nb::ndim<1>, nb::c_contig, nb::device::cpu>;

template <typename T>
using OutputArray = std::optional<nb::ndarray<T, nb::ndim<1>, nb::c_contig, nb::device::cpu>>;

// One request's rays, checked against each other.
struct RayArrays
{
    std::optional<PointArray> cOrigins;
    PointArray cDirections;
    std::optional<DistanceArray> cDistances;

    std::uint64_t Count() const { return cDirections.shape(0); }
    const float* Origins() const { return cOrigins ? cOrigins->data() : nullptr; }
    const float* Distances() const { return cDistances ? cDistances->data() : nullptr; }
    // Throws ValueError when origins or distances do not match the directions.
    void Check() const;
};

// The result arrays the caller allocated; which are given selects the mode, as in RayTracingResults.
struct ResultArrays
{
    OutputArray<float> cNearest;
    OutputArray<std::int32_t> cNearestTriangle;
    OutputArray<float> cFarthest;
    OutputArray<std::int32_t> cFarthestTriangle;
    OutputArray<std::uint64_t> cCounts; // with bAllHits: nRays + 1 offsets
    bool bAllHits = false;
};
