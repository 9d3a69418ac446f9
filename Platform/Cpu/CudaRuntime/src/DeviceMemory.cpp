#include "DeviceMemory.h"

#include <cstdlib>

namespace RayTracingCpu::StandIn
{
namespace
{
// cudaMalloc guarantees 256-byte alignment; code that relies on it must find it here too.
constexpr std::size_t c_nAlignment = 256;
} // namespace

DeviceMemory::~DeviceMemory()
{
    // Blocks still live here were leaked by their owner; LiveDeviceBytes has reported them.
    for (const auto& [nAddress, nBytes] : m_aBlocks)
        std::free(reinterpret_cast<void*>(nAddress));
}

cudaError_t DeviceMemory::Allocate(std::size_t nBytes, std::uint64_t nFreeMemory, void** ppBlock)
{
    *ppBlock = nullptr;
    if (nBytes == 0)
        return cudaSuccess;
    std::lock_guard<std::mutex> cLock(m_mutex);
    if (m_nLiveBytes > nFreeMemory || nBytes > nFreeMemory - m_nLiveBytes || nBytes > SIZE_MAX - c_nAlignment)
        return cudaErrorMemoryAllocation;
    std::size_t nRounded = (nBytes + c_nAlignment - 1) / c_nAlignment * c_nAlignment;
    void* pBlock = std::aligned_alloc(c_nAlignment, nRounded);
    if (!pBlock)
        return cudaErrorMemoryAllocation;
    m_aBlocks.emplace(reinterpret_cast<std::uintptr_t>(pBlock), nBytes);
    m_nLiveBytes += nBytes;
    *ppBlock = pBlock;
    return cudaSuccess;
}

cudaError_t DeviceMemory::Release(void* pBlock)
{
    cudaError_t nResult = Detach(pBlock);
    if (nResult == cudaSuccess)
        ReleaseDetached(pBlock);
    return nResult;
}

cudaError_t DeviceMemory::Detach(void* pBlock)
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    auto it = m_aBlocks.find(reinterpret_cast<std::uintptr_t>(pBlock));
    if (it == m_aBlocks.end())
        return cudaErrorInvalidValue;
    m_nLiveBytes -= it->second;
    m_aBlocks.erase(it);
    return cudaSuccess;
}

void DeviceMemory::ReleaseDetached(void* pBlock)
{
    std::free(pBlock);
}

bool DeviceMemory::Contains(const void* p, std::size_t nBytes) const
{
    auto nAddress = reinterpret_cast<std::uintptr_t>(p);
    std::lock_guard<std::mutex> cLock(m_mutex);
    auto it = m_aBlocks.upper_bound(nAddress);
    if (it == m_aBlocks.begin())
        return false;
    --it;
    std::uintptr_t nOffset = nAddress - it->first;
    return nOffset < it->second && nBytes <= it->second - nOffset;
}

std::uint64_t DeviceMemory::LiveBytes() const
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    return m_nLiveBytes;
}
} // namespace RayTracingCpu::StandIn
