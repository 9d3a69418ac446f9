// Stand-in device memory: host blocks, accounted against the configured free memory of the device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

#include "cuda_runtime.h"

namespace RayTracingCpu::StandIn
{
class DeviceMemory
{
public:
    DeviceMemory() = default;
    DeviceMemory(const DeviceMemory&) = delete;
    DeviceMemory& operator=(const DeviceMemory&) = delete;
    ~DeviceMemory();

    // Fails with cudaErrorMemoryAllocation when the live bytes plus nBytes exceed nFreeMemory.
    cudaError_t Allocate(std::size_t nBytes, std::uint64_t nFreeMemory, void** ppBlock);
    cudaError_t Release(void* pBlock);
    // Takes the block out of the accounting at once and hands it back for a release in stream order.
    cudaError_t Detach(void* pBlock);
    // Whether [p, p + nBytes) lies inside one live allocation.
    bool Contains(const void* p, std::size_t nBytes) const;
    std::uint64_t LiveBytes() const;

    // Returns a detached block to the host, or keeps it for reuse.
    void ReleaseDetached(void* pBlock);

private:
    // A cached block of at least nRounded bytes, or null; nRounded becomes the block's capacity.
    void* TakeCachedBlock(std::size_t& nRounded);

    mutable std::mutex m_mutex;
    std::map<std::uintptr_t, std::size_t> m_aBlocks;     // start address -> size in bytes
    std::map<std::uintptr_t, std::size_t> m_aCapacities; // start address -> bytes the host block holds
    // Released blocks kept like a memory pool keeps them, so that repeated calls do not fault in fresh pages
    // each time; never counted as live.
    std::multimap<std::size_t, void*> m_aCached;
    std::size_t m_nCachedBytes = 0;
    std::uint64_t m_nLiveBytes = 0;
};
} // namespace RayTracingCpu::StandIn
