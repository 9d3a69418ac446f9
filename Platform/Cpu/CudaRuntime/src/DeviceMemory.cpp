#include "DeviceMemory.h"

#include <cstdlib>
#include <iterator>

namespace RayTracingCpu::StandIn
{
namespace
{
// cudaMalloc guarantees 256-byte alignment; code that relies on it must find it here too.
constexpr std::size_t c_nAlignment = 256;
// Under AddressSanitizer every release goes back to the host, so a use after release is still reported.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t c_nCacheLimit = 0;
#else
constexpr std::size_t c_nCacheLimit = std::size_t(1) << 30;
#endif
} // namespace

DeviceMemory::~DeviceMemory()
{
    // Blocks still live here were leaked by their owner; LiveDeviceBytes has reported them.
    for (const auto& [nAddress, nBytes] : m_aBlocks)
        std::free(reinterpret_cast<void*>(nAddress));
    for (const auto& [nBytes, pBlock] : m_aCached)
        std::free(pBlock);
}

void* DeviceMemory::TakeCachedBlock(std::size_t& nRounded)
{
    // A block at most a quarter larger than asked for; the same sizes recur from call to call.
    const auto it = m_aCached.lower_bound(nRounded);
    if (it == m_aCached.end() || it->first > nRounded + nRounded / 4)
        return nullptr;
    void* pBlock = it->second;
    nRounded = it->first;
    m_nCachedBytes -= it->first;
    m_aCached.erase(it);
    return pBlock;
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
    void* pBlock = TakeCachedBlock(nRounded);
    if (!pBlock)
        pBlock = std::aligned_alloc(c_nAlignment, nRounded);
    if (!pBlock)
        return cudaErrorMemoryAllocation;
    m_aBlocks.emplace(reinterpret_cast<std::uintptr_t>(pBlock), nBytes);
    m_aCapacities[reinterpret_cast<std::uintptr_t>(pBlock)] = nRounded;
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
    std::lock_guard<std::mutex> cLock(m_mutex);
    const auto it = m_aCapacities.find(reinterpret_cast<std::uintptr_t>(pBlock));
    const std::size_t nCapacity = it->second;
    m_aCapacities.erase(it);
    if (nCapacity > c_nCacheLimit)
    {
        std::free(pBlock);
        return;
    }
    // Oldest-size-first eviction is not worth it: drop the largest blocks until the new one fits.
    while (m_nCachedBytes + nCapacity > c_nCacheLimit && !m_aCached.empty())
    {
        const auto itLargest = std::prev(m_aCached.end());
        m_nCachedBytes -= itLargest->first;
        std::free(itLargest->second);
        m_aCached.erase(itLargest);
    }
    m_aCached.emplace(nCapacity, pBlock);
    m_nCachedBytes += nCapacity;
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
