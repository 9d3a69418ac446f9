// GPU memory owners of the library: grow-only stream-bound buffers, the call's stream, and single-record
// device copies for the shader binding table and launch blocks.
#pragma once

#include <cstddef>
#include <new>
#include <stdexcept>
#include <string>

#include <cuda_runtime.h>

#include "RayTracingChecks.h"

// Grow-only typed device buffer bound to one stream and one allocation mode (stream-ordered pool
// allocation, or plain cudaMalloc). Contents do not survive a growth.
template <typename T> class DeviceBuffer
{
public:
    DeviceBuffer(cudaStream_t stream, bool bUseMemoryPool)
        : m_stream(stream), m_bUseMemoryPool(bUseMemoryPool)
    {
    }
    DeviceBuffer(const DeviceBuffer&) = delete;
    DeviceBuffer& operator=(const DeviceBuffer&) = delete;

    ~DeviceBuffer()
    {
        if (m_pDevicePtr == nullptr)
            return;
        if (m_bUseMemoryPool)
            cudaFreeAsync(m_pDevicePtr, m_stream);
        else
            cudaFree(m_pDevicePtr);
    }

    void resize(std::size_t n)
    {
        if (n <= m_nSize)
            return;
        // The old block goes first, so a growth never holds both.
        // clang-format off
        if (m_bUseMemoryPool)
            CHECK_CUDA(cudaFreeAsync(m_pDevicePtr, m_stream));
        else
            CHECK_CUDA(cudaFree(m_pDevicePtr));
        m_pDevicePtr = nullptr;
        m_nSize = 0;
        if (m_bUseMemoryPool)
            CHECK_CUDA(cudaMallocAsync(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T), m_stream));
        else
            CHECK_CUDA(cudaMalloc(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T)));
        // clang-format on
        m_nSize = n;
    }

    T* data() const { return m_pDevicePtr; }
    std::size_t size() const { return m_nSize; }

private:
    cudaStream_t m_stream;
    bool m_bUseMemoryPool;
    T* m_pDevicePtr = nullptr;
    std::size_t m_nSize = 0;
};

// Owner of the call's one stream.
class CudaStream
{
public:
    CudaStream()
    {
        m_stream = nullptr;
        if (cudaStreamCreate(&m_stream) != cudaSuccess)
        {
            m_stream = nullptr;
            throw std::bad_alloc();
        }
    }
    CudaStream(const CudaStream&) = delete;
    CudaStream& operator=(const CudaStream&) = delete;
    ~CudaStream() { cudaStreamDestroy(m_stream); }

    cudaStream_t GetStream() const { return m_stream; }

private:
    cudaStream_t m_stream;
};

// Device allocation failure of a DeviceRecord: an out-of-memory condition like Thrust's bad_alloc.
class DeviceRecordAllocationError : public std::bad_alloc
{
public:
    const char* what() const noexcept override { return "DeviceRecord: device allocation failed"; }
};

// One record in device memory, filled by synchronous host-to-device copies, so it is on the GPU when
// Assign returns. Allocated with plain cudaMalloc whatever the call's allocation mode.
template <typename T> class DeviceRecord
{
public:
    DeviceRecord() = default;
    DeviceRecord(const DeviceRecord&) = delete;
    DeviceRecord& operator=(const DeviceRecord&) = delete;
    ~DeviceRecord()
    {
        if (m_pDevicePtr)
            cudaFree(m_pDevicePtr);
    }

    void Assign(const T& cValue)
    {
        if (m_pDevicePtr == nullptr)
        {
            void* pDevice = nullptr;
            if (cudaMalloc(&pDevice, sizeof(T)) != cudaSuccess)
                throw DeviceRecordAllocationError();
            m_pDevicePtr = static_cast<T*>(pDevice);
        }
        const cudaError_t nError = cudaMemcpy(m_pDevicePtr, &cValue, sizeof(T), cudaMemcpyHostToDevice);
        if (nError != cudaSuccess)
            throw std::runtime_error(std::string("__copy::trivial_device_copy H->D: failed: ") +
                                     cudaGetErrorString(nError));
    }

    T* data() const { return m_pDevicePtr; }
    unsigned long long DevicePointer() const { return reinterpret_cast<unsigned long long>(m_pDevicePtr); }

private:
    T* m_pDevicePtr = nullptr;
};
