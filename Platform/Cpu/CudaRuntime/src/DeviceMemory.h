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

    static void ReleaseDetached(void* pBlock);

private:
    mutable std::mutex m_mutex;
    std::map<std::uintptr_t, std::size_t> m_aBlocks; // start address -> size in bytes
    std::uint64_t m_nLiveBytes = 0;
};
} // namespace RayTracingCpu::StandIn
