// The stand-in device's process-wide state, created on first use (the CUDA runtime's own state is
// process-wide in the same way): configuration, call counts and faults, memory, streams, worker threads.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <tbb/task_arena.h>

#include "CallRegistry.h"
#include "DeviceMemory.h"
#include "OptixDriverLink.h"
#include "RayTracingCpu.h"
#include "Stream.h"

namespace RayTracingCpu::StandIn
{
class Runtime
{
public:
    static Runtime& Get();

    DeviceConfig Config();
    void SetConfig(const DeviceConfig& cConfig);
    std::string OptixLibrary();
    void SetOptixLibrary(const std::string& sPath);
    // An arena with the configured number of worker threads.
    std::shared_ptr<tbb::task_arena> Arena();

    CallRegistry& Calls() { return m_cCalls; }
    DeviceMemory& Memory() { return m_cMemory; }
    StreamRegistry& Streams() { return m_cStreams; }
    OptixDriverLink& OptixDriver() { return m_cOptixDriver; }

private:
    Runtime();

    std::mutex m_mutex;
    DeviceConfig m_cConfig;
    std::string m_sOptixLibrary;
    std::shared_ptr<tbb::task_arena> m_pArena;
    int m_nArenaThreads = 0;
    CallRegistry m_cCalls;
    DeviceMemory m_cMemory;
    // Streams after memory: their pending stream-ordered releases run when they go.
    StreamRegistry m_cStreams;
    OptixDriverLink m_cOptixDriver;
};
// The calling thread's last error (cudaGetLastError resets it, cudaPeekAtLastError does not).
cudaError_t TakeLastError(bool bReset);
} // namespace RayTracingCpu::StandIn
