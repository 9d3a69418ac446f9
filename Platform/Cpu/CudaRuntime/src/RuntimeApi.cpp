// The CUDA runtime functions of the stand-in. Each counts its call and takes injected faults first; host
// memory plays device memory; synchronous calls wait for all streams, as the legacy default stream does.
#include <cstring>
#include <new>
#include <thread>

#include "Runtime.h"
#include "StandInHooks.h"

using RayTracingCpu::DeviceConfig;
using RayTracingCpu::StandIn::EnterCall;
using RayTracingCpu::StandIn::Report;
using RayTracingCpu::StandIn::Runtime;
using RayTracingCpu::StandIn::Stream;

namespace
{
constexpr int c_iOnlyDevice = 0;
constexpr int c_nVersion = 13000;

// Checks the stream handle; the null (legacy default) stream first waits for all other streams.
cudaError_t ResolveStream(cudaStream_t stream, Stream*& pStream)
{
    pStream = nullptr;
    if (!stream)
    {
        Runtime::Get().Streams().SynchronizeAll();
        return cudaSuccess;
    }
    pStream = Runtime::Get().Streams().Find(stream);
    return pStream ? cudaSuccess : cudaErrorInvalidResourceHandle;
}

void RunOn(Stream* pStream, std::function<void()> fnWork)
{
    if (pStream)
        pStream->Enqueue(std::move(fnWork));
    else
        fnWork();
}

bool IsDevice(const void* p, size_t nBytes)
{
    return Runtime::Get().Memory().Contains(p, nBytes);
}

// Device-side ranges must lie inside one live allocation: a stray or overlong copy fails here instead of
// corrupting host memory.
cudaError_t CheckCopy(void* dst, const void* src, size_t count, cudaMemcpyKind kind)
{
    if (kind < cudaMemcpyHostToHost || kind > cudaMemcpyDefault)
        return cudaErrorInvalidMemcpyDirection;
    if (count == 0)
        return cudaSuccess;
    if (!dst || !src)
        return cudaErrorInvalidValue;
    bool bDeviceDst = kind == cudaMemcpyHostToDevice || kind == cudaMemcpyDeviceToDevice;
    bool bDeviceSrc = kind == cudaMemcpyDeviceToHost || kind == cudaMemcpyDeviceToDevice;
    if ((bDeviceDst && !IsDevice(dst, count)) || (bDeviceSrc && !IsDevice(src, count)))
        return cudaErrorInvalidValue;
    return cudaSuccess;
}

cudaError_t CheckDevice(int device)
{
    return device == c_iOnlyDevice ? cudaSuccess : cudaErrorInvalidDevice;
}
} // namespace

// C linkage comes from the declarations in cuda_runtime.h.
cudaError_t cudaSetDevice(int device)
{
    if (cudaError_t nFault = EnterCall("cudaSetDevice"))
        return Report(nFault);
    return Report(CheckDevice(device));
}

cudaError_t cudaGetDevice(int* device)
{
    if (cudaError_t nFault = EnterCall("cudaGetDevice"))
        return Report(nFault);
    if (!device)
        return Report(cudaErrorInvalidValue);
    *device = c_iOnlyDevice;
    return cudaSuccess;
}

cudaError_t cudaGetDeviceCount(int* count)
{
    if (cudaError_t nFault = EnterCall("cudaGetDeviceCount"))
        return Report(nFault);
    if (!count)
        return Report(cudaErrorInvalidValue);
    *count = 1;
    return cudaSuccess;
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device)
{
    if (cudaError_t nFault = EnterCall("cudaGetDeviceProperties"))
        return Report(nFault);
    if (!prop)
        return Report(cudaErrorInvalidValue);
    if (cudaError_t nError = CheckDevice(device))
        return Report(nError);
    DeviceConfig cConfig = Runtime::Get().Config();
    std::memset(prop, 0, sizeof(*prop));
    std::strncpy(prop->name, "RayTracing CPU stand-in", sizeof(prop->name) - 1);
    prop->totalGlobalMem = cConfig.nTotalMemory;
    prop->sharedMemPerBlock = 48 * 1024;
    prop->warpSize = 32;
    prop->maxThreadsPerBlock = 1024;
    prop->totalConstMem = 64 * 1024;
    prop->major = cConfig.iComputeCapability / 10;
    prop->minor = cConfig.iComputeCapability % 10;
    prop->multiProcessorCount = cConfig.nMultiprocessors;
    prop->maxThreadsPerMultiProcessor = cConfig.nThreadsPerMultiprocessor;
    prop->unifiedAddressing = 1;
    prop->memoryPoolsSupported = cConfig.bMemoryPools ? 1 : 0;
    return cudaSuccess;
}

cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attr, int device)
{
    if (cudaError_t nFault = EnterCall("cudaDeviceGetAttribute"))
        return Report(nFault);
    if (!value)
        return Report(cudaErrorInvalidValue);
    if (cudaError_t nError = CheckDevice(device))
        return Report(nError);
    DeviceConfig cConfig = Runtime::Get().Config();
    switch (attr)
    {
    case cudaDevAttrMaxThreadsPerBlock:
        *value = 1024;
        break;
    case cudaDevAttrMaxSharedMemoryPerBlock:
        *value = 48 * 1024;
        break;
    case cudaDevAttrTotalConstantMemory:
        *value = 64 * 1024;
        break;
    case cudaDevAttrWarpSize:
        *value = 32;
        break;
    case cudaDevAttrMultiProcessorCount:
        *value = cConfig.nMultiprocessors;
        break;
    case cudaDevAttrMaxThreadsPerMultiProcessor:
        *value = cConfig.nThreadsPerMultiprocessor;
        break;
    case cudaDevAttrUnifiedAddressing:
        *value = 1;
        break;
    case cudaDevAttrComputeCapabilityMajor:
        *value = cConfig.iComputeCapability / 10;
        break;
    case cudaDevAttrComputeCapabilityMinor:
        *value = cConfig.iComputeCapability % 10;
        break;
    case cudaDevAttrConcurrentManagedAccess:
        *value = 0;
        break;
    case cudaDevAttrMemoryPoolsSupported:
        *value = cConfig.bMemoryPools ? 1 : 0;
        break;
    default:
        return Report(cudaErrorInvalidValue);
    }
    return cudaSuccess;
}

cudaError_t cudaDeviceSynchronize(void)
{
    if (cudaError_t nFault = EnterCall("cudaDeviceSynchronize"))
        return Report(nFault);
    return Report(Runtime::Get().Streams().SynchronizeAll());
}

cudaError_t cudaDriverGetVersion(int* driverVersion)
{
    if (cudaError_t nFault = EnterCall("cudaDriverGetVersion"))
        return Report(nFault);
    if (!driverVersion)
        return Report(cudaErrorInvalidValue);
    *driverVersion = c_nVersion;
    return cudaSuccess;
}

cudaError_t cudaRuntimeGetVersion(int* runtimeVersion)
{
    if (cudaError_t nFault = EnterCall("cudaRuntimeGetVersion"))
        return Report(nFault);
    if (!runtimeVersion)
        return Report(cudaErrorInvalidValue);
    *runtimeVersion = c_nVersion;
    return cudaSuccess;
}

cudaError_t cudaMalloc(void** devPtr, size_t size)
{
    if (cudaError_t nFault = EnterCall("cudaMalloc"))
        return Report(nFault);
    if (!devPtr)
        return Report(cudaErrorInvalidValue);
    return Report(Runtime::Get().Memory().Allocate(size, Runtime::Get().Config().nFreeMemory, devPtr));
}

cudaError_t cudaFree(void* devPtr)
{
    if (cudaError_t nFault = EnterCall("cudaFree"))
        return Report(nFault);
    // cudaFree waits for the device, so that no queued work still uses the block.
    Runtime::Get().Streams().SynchronizeAll();
    if (!devPtr)
        return cudaSuccess;
    return Report(Runtime::Get().Memory().Release(devPtr));
}

cudaError_t cudaMallocAsync(void** devPtr, size_t size, cudaStream_t hStream)
{
    if (cudaError_t nFault = EnterCall("cudaMallocAsync"))
        return Report(nFault);
    if (!devPtr)
        return Report(cudaErrorInvalidValue);
    if (!RayTracingCpu::StandIn::IsKnownStream(hStream))
        return Report(cudaErrorInvalidResourceHandle);
    DeviceConfig cConfig = Runtime::Get().Config();
    if (!cConfig.bMemoryPools)
        return Report(cudaErrorNotSupported);
    return Report(Runtime::Get().Memory().Allocate(size, cConfig.nFreeMemory, devPtr));
}

cudaError_t cudaFreeAsync(void* devPtr, cudaStream_t hStream)
{
    if (cudaError_t nFault = EnterCall("cudaFreeAsync"))
        return Report(nFault);
    Stream* pStream = nullptr;
    if (cudaError_t nError = ResolveStream(hStream, pStream))
        return Report(nError);
    if (!Runtime::Get().Config().bMemoryPools)
        return Report(cudaErrorNotSupported);
    if (!devPtr)
        return cudaSuccess;
    // The bytes return to the pool at once, as stream-ordered allocations after this one may reuse them;
    // the block itself stays valid until the stream reaches the release.
    if (cudaError_t nError = Runtime::Get().Memory().Detach(devPtr))
        return Report(nError);
    RunOn(pStream, [devPtr] { Runtime::Get().Memory().ReleaseDetached(devPtr); });
    return cudaSuccess;
}

cudaError_t cudaMemGetInfo(size_t* free, size_t* total)
{
    if (cudaError_t nFault = EnterCall("cudaMemGetInfo"))
        return Report(nFault);
    if (!free || !total)
        return Report(cudaErrorInvalidValue);
    DeviceConfig cConfig = Runtime::Get().Config();
    std::uint64_t nLive = Runtime::Get().Memory().LiveBytes();
    *free = cConfig.nFreeMemory > nLive ? cConfig.nFreeMemory - nLive : 0;
    *total = cConfig.nTotalMemory;
    return cudaSuccess;
}

cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, cudaMemcpyKind kind)
{
    if (cudaError_t nFault = EnterCall("cudaMemcpy"))
        return Report(nFault);
    if (cudaError_t nError = CheckCopy(dst, src, count, kind))
        return Report(nError);
    Runtime::Get().Streams().SynchronizeAll();
    if (count)
        std::memmove(dst, src, count);
    return cudaSuccess;
}

cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, cudaMemcpyKind kind,
                            cudaStream_t stream)
{
    if (cudaError_t nFault = EnterCall("cudaMemcpyAsync"))
        return Report(nFault);
    if (cudaError_t nError = CheckCopy(dst, src, count, kind))
        return Report(nError);
    Stream* pStream = nullptr;
    if (cudaError_t nError = ResolveStream(stream, pStream))
        return Report(nError);
    if (count)
        RunOn(pStream, [dst, src, count] { std::memmove(dst, src, count); });
    return cudaSuccess;
}

cudaError_t cudaMemset(void* devPtr, int value, size_t count)
{
    if (cudaError_t nFault = EnterCall("cudaMemset"))
        return Report(nFault);
    if (count && !IsDevice(devPtr, count))
        return Report(cudaErrorInvalidValue);
    Runtime::Get().Streams().SynchronizeAll();
    if (count)
        std::memset(devPtr, value, count);
    return cudaSuccess;
}

cudaError_t cudaMemsetAsync(void* devPtr, int value, size_t count, cudaStream_t stream)
{
    if (cudaError_t nFault = EnterCall("cudaMemsetAsync"))
        return Report(nFault);
    if (count && !IsDevice(devPtr, count))
        return Report(cudaErrorInvalidValue);
    Stream* pStream = nullptr;
    if (cudaError_t nError = ResolveStream(stream, pStream))
        return Report(nError);
    if (count)
        RunOn(pStream, [devPtr, value, count] { std::memset(devPtr, value, count); });
    return cudaSuccess;
}

cudaError_t cudaStreamCreate(cudaStream_t* pStream)
{
    if (cudaError_t nFault = EnterCall("cudaStreamCreate"))
        return Report(nFault);
    if (!pStream)
        return Report(cudaErrorInvalidValue);
    return Report(Runtime::Get().Streams().Create(Runtime::Get().Config().bDeferStreams, pStream));
}

cudaError_t cudaStreamDestroy(cudaStream_t stream)
{
    if (cudaError_t nFault = EnterCall("cudaStreamDestroy"))
        return Report(nFault);
    if (!stream)
        return Report(cudaErrorInvalidResourceHandle);
    return Report(Runtime::Get().Streams().Destroy(stream));
}

cudaError_t cudaStreamSynchronize(cudaStream_t stream)
{
    if (cudaError_t nFault = EnterCall("cudaStreamSynchronize"))
        return Report(nFault);
    if (!stream)
        return Report(Runtime::Get().Streams().SynchronizeAll());
    Stream* pStream = Runtime::Get().Streams().Find(stream);
    if (!pStream)
        return Report(cudaErrorInvalidResourceHandle);
    return Report(pStream->Synchronize());
}

cudaError_t cudaGetLastError(void)
{
    if (cudaError_t nFault = EnterCall("cudaGetLastError"))
        return nFault;
    return RayTracingCpu::StandIn::TakeLastError(true);
}

cudaError_t cudaPeekAtLastError(void)
{
    if (cudaError_t nFault = EnterCall("cudaPeekAtLastError"))
        return nFault;
    return RayTracingCpu::StandIn::TakeLastError(false);
}
