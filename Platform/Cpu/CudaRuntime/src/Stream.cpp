#include "Stream.h"

#include "StandInHooks.h"

#include <new>
#include <vector>

namespace RayTracingCpu::StandIn
{
Stream::~Stream()
{
    Drain();
}

void Stream::Enqueue(std::function<void()> fnWork)
{
    {
        std::lock_guard<std::mutex> cLock(m_mutex);
        m_aPending.push_back(std::move(fnWork));
    }
    if (!m_bDeferred)
        Drain();
}

void Stream::Fail(cudaError_t nError)
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    if (m_nError == cudaSuccess)
        m_nError = nError;
}

cudaError_t Stream::Synchronize()
{
    Drain();
    std::lock_guard<std::mutex> cLock(m_mutex);
    return m_nError;
}

void Stream::Drain()
{
    std::unique_lock<std::mutex> cLock(m_mutex);
    // Work that enqueues more work on its own stream: the running drain picks it up in order.
    if (m_bDraining && m_iDrainer == std::this_thread::get_id())
        return;
    m_cIdle.wait(cLock, [this] { return !m_bDraining; });
    m_bDraining = true;
    m_iDrainer = std::this_thread::get_id();
    while (!m_aPending.empty())
    {
        std::function<void()> fnWork = std::move(m_aPending.front());
        m_aPending.pop_front();
        cLock.unlock();
        Run(fnWork);
        cLock.lock();
    }
    m_bDraining = false;
    m_cIdle.notify_all();
}

void Stream::Run(std::function<void()>& fnWork)
{
    // An exception must not cross into the caller of a later synchronisation: it fails the stream instead.
    try
    {
        fnWork();
    }
    catch (const DeviceFault& cFault)
    {
        Fail(cFault.nError);
    }
    catch (const std::bad_alloc&)
    {
        Fail(cudaErrorMemoryAllocation);
    }
    catch (...)
    {
        Fail(cudaErrorLaunchFailure);
    }
}

StreamRegistry::~StreamRegistry()
{
    // Pending stream-ordered releases still run, so no block outlives the process unreleased.
    m_aStreams.clear();
}

cudaError_t StreamRegistry::Create(bool bDeferred, cudaStream_t* pStream)
{
    try
    {
        auto cStream = std::make_unique<Stream>(bDeferred);
        std::lock_guard<std::mutex> cLock(m_mutex);
        CUstream_st* pHandle = cStream.get();
        m_aStreams.emplace(pHandle, std::move(cStream));
        *pStream = pHandle;
        return cudaSuccess;
    }
    catch (const std::bad_alloc&)
    {
        return cudaErrorMemoryAllocation;
    }
}

cudaError_t StreamRegistry::Destroy(cudaStream_t stream)
{
    std::unique_ptr<Stream> cStream;
    {
        std::lock_guard<std::mutex> cLock(m_mutex);
        auto it = m_aStreams.find(stream);
        if (it == m_aStreams.end())
            return cudaErrorInvalidResourceHandle;
        cStream = std::move(it->second);
        m_aStreams.erase(it);
    }
    cStream->Synchronize();
    return cudaSuccess;
}

Stream* StreamRegistry::Find(cudaStream_t stream)
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    auto it = m_aStreams.find(stream);
    return it == m_aStreams.end() ? nullptr : it->second.get();
}

cudaError_t StreamRegistry::SynchronizeAll()
{
    std::vector<Stream*> aStreams;
    {
        std::lock_guard<std::mutex> cLock(m_mutex);
        for (auto& [pHandle, cStream] : m_aStreams)
            aStreams.push_back(cStream.get());
    }
    cudaError_t nFirstError = cudaSuccess;
    for (Stream* pStream : aStreams)
    {
        cudaError_t nError = pStream->Synchronize();
        if (nFirstError == cudaSuccess)
            nFirstError = nError;
    }
    return nFirstError;
}
} // namespace RayTracingCpu::StandIn
