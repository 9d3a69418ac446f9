// Stand-in for CUB's device-wide segmented sort in the CPU flavour: same signature as CCCL 3.0's
// cub::DeviceSegmentedSort::SortKeys, run on the host in stream order, one segment per task.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "StandInHooks.h"

namespace cub
{
namespace StandInDetail
{
// Whatever the stand-in asks for; callers must still allocate and pass it like CUB's.
constexpr std::size_t c_nTempStorageBytes = 256;

template <typename OffsetT> bool IsNegative(OffsetT nOffset)
{
    if constexpr (std::is_signed_v<OffsetT>)
        return nOffset < 0;
    else
        return false;
}

template <typename KeyT> struct RadixOrder
{
    bool operator()(const KeyT& a, const KeyT& b) const { return a < b; }
};

// Floating-point keys ordered by their radix-sort bits, as CUB orders them: a total order (NaNs after
// +infinity, -0 before +0), so that NaN keys cannot break the sort.
template <typename FloatT, typename BitsT> struct FloatRadixOrder
{
    static BitsT Key(FloatT f)
    {
        BitsT nBits;
        std::memcpy(&nBits, &f, sizeof(nBits));
        constexpr BitsT nSign = BitsT(1) << (sizeof(BitsT) * 8 - 1);
        return (nBits & nSign) ? BitsT(~nBits) : BitsT(nBits | nSign);
    }
    bool operator()(FloatT a, FloatT b) const { return Key(a) < Key(b); }
};
template <> struct RadixOrder<float> : FloatRadixOrder<float, std::uint32_t>
{
};
template <> struct RadixOrder<double> : FloatRadixOrder<double, std::uint64_t>
{
};
} // namespace StandInDetail

struct DeviceSegmentedSort
{
    template <typename KeyT, typename BeginOffsetIteratorT, typename EndOffsetIteratorT>
    static cudaError_t SortKeys(void* d_temp_storage, std::size_t& temp_storage_bytes, const KeyT* d_keys_in,
                                KeyT* d_keys_out, std::int64_t num_items, std::int64_t num_segments,
                                BeginOffsetIteratorT d_begin_offsets, EndOffsetIteratorT d_end_offsets,
                                cudaStream_t stream = 0)
    {
        namespace StandIn = RayTracingCpu::StandIn;
        if (cudaError_t nFault = StandIn::EnterCall("cub::DeviceSegmentedSort::SortKeys"))
            return StandIn::Report(nFault);
        if (num_items < 0 || num_segments < 0)
            return StandIn::Report(cudaErrorInvalidValue);
        if (!d_temp_storage)
        {
            temp_storage_bytes = StandInDetail::c_nTempStorageBytes;
            return cudaSuccess;
        }
        if (temp_storage_bytes < StandInDetail::c_nTempStorageBytes)
            return StandIn::Report(cudaErrorInvalidValue);
        if (!StandIn::IsKnownStream(stream))
            return StandIn::Report(cudaErrorInvalidResourceHandle);
        if (num_items == 0 || num_segments == 0)
            return cudaSuccess;
        if (!d_keys_in || !d_keys_out)
            return StandIn::Report(cudaErrorInvalidValue);

        // Offsets are read when the stream reaches the sort, as the GPU would read them.
        auto fnSort = [=]
        {
            StandIn::ParallelFor(std::size_t(num_segments),
                                 [=](std::size_t iFirst, std::size_t iLast)
                                 {
                                     for (std::size_t iSegment = iFirst; iSegment < iLast; ++iSegment)
                                     {
                                         auto nBegin = d_begin_offsets[iSegment];
                                         auto nEnd = d_end_offsets[iSegment];
                                         if (!(nBegin < nEnd))
                                             continue; // empty segment, as in CUB
                                         // An offset outside the keys would be an illegal address on the
                                         // device.
                                         if (StandInDetail::IsNegative(nBegin) ||
                                             std::uint64_t(nEnd) > std::uint64_t(num_items))
                                             throw StandIn::DeviceFault{cudaErrorIllegalAddress};
                                         const KeyT* pIn = d_keys_in + std::size_t(nBegin);
                                         KeyT* pOut = d_keys_out + std::size_t(nBegin);
                                         std::size_t nKeys = std::size_t(nEnd) - std::size_t(nBegin);
                                         if (pIn != pOut)
                                             std::copy(pIn, pIn + nKeys, pOut);
                                         std::sort(pOut, pOut + nKeys, StandInDetail::RadixOrder<KeyT>());
                                     }
                                 });
        };
        return StandIn::Report(StandIn::EnqueueOrdered(stream, fnSort));
    }
};
} // namespace cub
