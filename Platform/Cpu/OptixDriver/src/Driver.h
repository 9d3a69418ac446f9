// Process-wide state of the driver stand-in, as a real driver has it: settings, call counts and injected
// faults, the registry of live objects (so that a stale or foreign handle is an error, not a crash) and the
// worker threads that run builds and launches.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

#include <tbb/task_arena.h>

#include "FaultTable.h"

namespace OptixStandIn
{
enum class ObjectKind
{
    Context,
    Module,
    ProgramGroup,
    Pipeline
};

class LiveObjects
{
public:
    void Add(const void* pObject, ObjectKind eKind);
    // Whether pObject is live and of that kind; null is never live.
    bool Contains(const void* pObject, ObjectKind eKind) const;
    void Remove(const void* pObject);
    std::uint64_t Count() const;

private:
    mutable std::mutex m_mutex;
    std::unordered_map<const void*, ObjectKind> m_aObjects;
};

class Driver
{
public:
    static Driver& Get();

    FaultTable& Faults() { return m_cFaults; }
    LiveObjects& Objects() { return m_cObjects; }

    std::uint32_t MaxPrimitivesPerGas() const { return m_nMaxPrimitivesPerGas.load(); }
    void SetMaxPrimitivesPerGas(std::uint32_t nMax) { m_nMaxPrimitivesPerGas.store(nMax); }

    // 0 = all cores. Work already enqueued keeps the workers it started with.
    void SetThreads(int nThreads);
    std::shared_ptr<tbb::task_arena> Workers() const;

private:
    Driver();

    FaultTable m_cFaults;
    LiveObjects m_cObjects;
    std::atomic<std::uint32_t> m_nMaxPrimitivesPerGas;
    mutable std::mutex m_mutex;
    std::shared_ptr<tbb::task_arena> m_pWorkers;
};
} // namespace OptixStandIn
