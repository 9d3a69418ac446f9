#include "Runtime.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "DeviceConfigFromEnvironment.h"
#include "StandInHooks.h"

namespace RayTracingCpu::StandIn
{
Runtime& Runtime::Get()
{
    static Runtime s_cRuntime;
    return s_cRuntime;
}

Runtime::Runtime() : m_cConfig(ReadDeviceConfig()) {}

DeviceConfig Runtime::Config()
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    return m_cConfig;
}

void Runtime::SetConfig(const DeviceConfig& cConfig)
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    m_cConfig = Normalise(cConfig);
}

std::string Runtime::OptixLibrary()
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    return m_sOptixLibrary;
}

void Runtime::SetOptixLibrary(const std::string& sPath)
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    m_sOptixLibrary = sPath;
}

std::shared_ptr<tbb::task_arena> Runtime::Arena()
{
    std::lock_guard<std::mutex> cLock(m_mutex);
    if (!m_pArena || m_nArenaThreads != m_cConfig.nThreads)
    {
        m_pArena = std::make_shared<tbb::task_arena>(m_cConfig.nThreads);
        m_nArenaThreads = m_cConfig.nThreads;
    }
    return m_pArena;
}

cudaError_t EnterCall(const char* sFunction)
{
    return cudaError_t(Runtime::Get().Calls().Enter(sFunction));
}

bool IsKnownStream(cudaStream_t stream)
{
    return !stream || Runtime::Get().Streams().Find(stream);
}

cudaError_t EnqueueOrdered(cudaStream_t stream, std::function<void()> fnWork)
{
    if (stream)
    {
        Stream* pStream = Runtime::Get().Streams().Find(stream);
        if (!pStream)
            return cudaErrorInvalidResourceHandle;
        pStream->Enqueue(std::move(fnWork));
        return cudaSuccess;
    }
    Runtime::Get().Streams().SynchronizeAll();
    try
    {
        fnWork();
        return cudaSuccess;
    }
    catch (const DeviceFault& cFault)
    {
        return cFault.nError;
    }
    catch (const std::bad_alloc&)
    {
        return cudaErrorMemoryAllocation;
    }
    catch (...)
    {
        return cudaErrorLaunchFailure;
    }
}

void ParallelFor(std::size_t n, const std::function<void(std::size_t iBegin, std::size_t iEnd)>& fnRange)
{
    if (n == 0)
        return;
    std::shared_ptr<tbb::task_arena> pArena = Runtime::Get().Arena();
    pArena->execute(
        [&]
        {
            tbb::parallel_for(tbb::blocked_range<std::size_t>(0, n),
                              [&](const tbb::blocked_range<std::size_t>& cRange)
                              { fnRange(cRange.begin(), cRange.end()); });
        });
}
} // namespace RayTracingCpu::StandIn
