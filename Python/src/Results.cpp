#include "Results.h"

#include <memory>
#include <string>

namespace
{
template <typename T> T* Bind(OutputArray<T>& cArray, std::uint64_t nExpected, const char* sName)
{
    if (!cArray)
        return nullptr;
    if (cArray->shape(0) != nExpected)
        throw nb::value_error((std::string(sName) + " holds " + std::to_string(cArray->shape(0)) +
                               " entries, not " + std::to_string(nExpected))
                                  .c_str());
    return cArray->data();
}
} // namespace

void RayArrays::Check() const
{
    if (cOrigins && cOrigins->shape(0) != Count())
        throw nb::value_error("origins and directions differ in length");
    if (cDistances && cDistances->shape(0) != Count())
        throw nb::value_error("distances and directions differ in length");
}

RayTracingResults BindResults(ResultArrays& cArrays, std::uint64_t nRays)
{
    RayTracingResults cResults;
    cResults.bCollectAllHits = cArrays.bAllHits;
    cResults.pFirstHit = Bind(cArrays.cNearest, nRays, "nearest");
    cResults.pFirstIndex = Bind(cArrays.cNearestTriangle, nRays, "nearest_triangle");
    cResults.pLastHit = Bind(cArrays.cFarthest, nRays, "farthest");
    cResults.pLastIndex = Bind(cArrays.cFarthestTriangle, nRays, "farthest_triangle");
    cResults.pCountHits = Bind(cArrays.cCounts, cArrays.bAllHits ? nRays + 1 : nRays, "counts");
    return cResults;
}

nb::object CollectedHits(RayTracingResults& cResults)
{
    if (!cResults.bCollectAllHits)
        return nb::none();
    auto pHits = std::make_unique<std::vector<float>>(std::move(cResults.cAllHits));
    nb::capsule cOwner(pHits.get(), [](void* p) noexcept { delete static_cast<std::vector<float>*>(p); });
    std::vector<float>& aHits = *pHits.release();
    return nb::cast(nb::ndarray<nb::numpy, float, nb::ndim<1>>(aHits.data(), {aHits.size()}, cOwner));
}
