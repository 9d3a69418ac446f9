// Streams of the stand-in: work runs in call order, at once or (deferred) at the next synchronisation,
// and the registry that lets the legacy default stream and device-wide calls wait for all of them.
#pragma once

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "StandInStream.h"

namespace RayTracingCpu::StandIn
{
class Stream final : public CUstream_st
{
public:
    explicit Stream(bool bDeferred) : m_bDeferred(bDeferred) {}
    ~Stream() override;

    void Enqueue(std::function<void()> fnWork) override;
    void Fail(cudaError_t nError) override;

    // Runs all pending work; returns the sticky error (cudaSuccess while none).
    cudaError_t Synchronize();

private:
    void Drain();
    void Run(std::function<void()>& fnWork);

    const bool m_bDeferred;
    std::mutex m_mutex;
    std::condition_variable m_cIdle;
    std::deque<std::function<void()>> m_aPending;
    bool m_bDraining = false;
    std::thread::id m_iDrainer;
    cudaError_t m_nError = cudaSuccess;
};

class StreamRegistry
{
public:
    StreamRegistry() = default;
    StreamRegistry(const StreamRegistry&) = delete;
    StreamRegistry& operator=(const StreamRegistry&) = delete;
    ~StreamRegistry();

    cudaError_t Create(bool bDeferred, cudaStream_t* pStream);
    // Runs the stream's pending work, then forgets it; cudaErrorInvalidResourceHandle for unknown handles.
    cudaError_t Destroy(cudaStream_t stream);
    // The stream object behind a handle, or null when the stand-in does not know it.
    Stream* Find(cudaStream_t stream);
    // Runs the pending work of every stream; returns the first sticky error among them.
    cudaError_t SynchronizeAll();

private:
    std::mutex m_mutex;
    std::map<CUstream_st*, std::unique_ptr<Stream>> m_aStreams;
};
} // namespace RayTracingCpu::StandIn
