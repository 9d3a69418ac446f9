// The device functions the programs use, with OptiX's names, for both builds of one source: under nvcc they
// are the inline-PTX calls the driver's module compiler resolves; on the host they come from the driver
// stand-in, which runs the programs itself.
#pragma once

#if defined(__CUDACC__)

#include <cuda_runtime.h>
#include <stddef.h>

#include "OptixTypes.h"

// Declared by the CUDA headers only for NVRTC; the device runtime provides it everywhere.
extern "C" __device__ void __assertfail(const char* sAssertion, const char* sFile, unsigned int nLine,
                                        const char* sFunction, size_t nCharSize);

// Nothing to register: the module compiler finds the programs by their entry names.
#define RT_MODULE(ModuleName, nPayloadValues)                                                                \
    static_assert((nPayloadValues) >= 1 && (nPayloadValues) <= 32,                                           \
                  #ModuleName ": payload count out of range");

#define RT_PROGRAM(entryName) extern "C" __global__ void entryName()

// Independent of NDEBUG: a broken slot protocol must abort the launch in every build.
#define RT_DEVICE_ASSERT(sFile, expr)                                                                        \
    do                                                                                                       \
    {                                                                                                        \
        if (!(expr))                                                                                         \
        {                                                                                                    \
            __assertfail(#expr, sFile, __LINE__, "", sizeof(char));                                          \
            return;                                                                                          \
        }                                                                                                    \
    } while (0)

static __forceinline__ __device__ uint3 optixGetLaunchIndex()
{
    unsigned int x, y, z;
    asm("call (%0), _optix_get_launch_index_x, ();" : "=r"(x) :);
    asm("call (%0), _optix_get_launch_index_y, ();" : "=r"(y) :);
    asm("call (%0), _optix_get_launch_index_z, ();" : "=r"(z) :);
    return make_uint3(x, y, z);
}

static __forceinline__ __device__ CUdeviceptr optixGetSbtDataPointer()
{
    unsigned long long pData;
    asm("call (%0), _optix_get_sbt_data_ptr_64, ();" : "=l"(pData) :);
    return pData;
}

static __forceinline__ __device__ unsigned int optixGetPrimitiveIndex()
{
    unsigned int iPrimitive;
    asm("call (%0), _optix_read_primitive_idx, ();" : "=r"(iPrimitive) :);
    return iPrimitive;
}

static __forceinline__ __device__ float optixGetRayTmax()
{
    float fTmax;
    asm("call (%0), _optix_get_ray_tmax, ();" : "=f"(fTmax) :);
    return fTmax;
}

static __forceinline__ __device__ void optixIgnoreIntersection()
{
    asm volatile("call _optix_ignore_intersection, ();");
}

template <unsigned int iSlot> static __forceinline__ __device__ unsigned int GetPayloadSlot()
{
    unsigned int uValue;
    asm volatile("call (%0), _optix_get_payload, (%1);" : "=r"(uValue) : "r"(iSlot) :);
    return uValue;
}

template <unsigned int iSlot> static __forceinline__ __device__ void SetPayloadSlot(unsigned int uValue)
{
    asm volatile("call _optix_set_payload, (%0, %1);" : : "r"(iSlot), "r"(uValue) :);
}

static __forceinline__ __device__ unsigned int optixGetPayload_0()
{
    return GetPayloadSlot<0>();
}
static __forceinline__ __device__ unsigned int optixGetPayload_1()
{
    return GetPayloadSlot<1>();
}
static __forceinline__ __device__ unsigned int optixGetPayload_2()
{
    return GetPayloadSlot<2>();
}
static __forceinline__ __device__ unsigned int optixGetPayload_3()
{
    return GetPayloadSlot<3>();
}
static __forceinline__ __device__ void optixSetPayload_0(unsigned int uValue)
{
    SetPayloadSlot<0>(uValue);
}
static __forceinline__ __device__ void optixSetPayload_1(unsigned int uValue)
{
    SetPayloadSlot<1>(uValue);
}
static __forceinline__ __device__ void optixSetPayload_2(unsigned int uValue)
{
    SetPayloadSlot<2>(uValue);
}
static __forceinline__ __device__ void optixSetPayload_3(unsigned int uValue)
{
    SetPayloadSlot<3>(uValue);
}

// Every trace passes all 32 payload registers; the driver copies back only the first nPayloadValues.
template <class... Payload>
static __forceinline__ __device__ void
optixTrace(OptixTraversableHandle hTraversable, float3 origin, float3 direction, float fTmin, float fTmax,
           float fRayTime, OptixVisibilityMask uVisibilityMask, unsigned int uRayFlags,
           unsigned int iSbtOffset, unsigned int nSbtStride, unsigned int iMissSbtIndex, Payload&... payload)
{
    constexpr unsigned int nPayloadValues = sizeof...(Payload);
    static_assert(nPayloadValues >= 1 && nPayloadValues <= 32, "optixTrace takes 1 to 32 payload values");
    unsigned int p[32] = {payload...};
    const unsigned int uPayloadType = 0; // default payload type
    const unsigned int nPayload = nPayloadValues;
    // clang-format off
    asm volatile(
        "call"
        "(%0,%1,%2,%3,%4,%5,%6,%7,%8,%9,%10,%11,%12,%13,%14,%15,"
        "%16,%17,%18,%19,%20,%21,%22,%23,%24,%25,%26,%27,%28,%29,%30,%31),"
        "_optix_trace_typed_32,"
        "(%32,%33,%34,%35,%36,%37,%38,%39,%40,%41,%42,%43,%44,%45,%46,%47,%48,"
        "%49,%50,%51,%52,%53,%54,%55,%56,%57,%58,%59,%60,%61,%62,%63,%64,"
        "%65,%66,%67,%68,%69,%70,%71,%72,%73,%74,%75,%76,%77,%78,%79,%80);"
        : "=r"(p[0]), "=r"(p[1]), "=r"(p[2]), "=r"(p[3]), "=r"(p[4]), "=r"(p[5]), "=r"(p[6]), "=r"(p[7]),
          "=r"(p[8]), "=r"(p[9]), "=r"(p[10]), "=r"(p[11]), "=r"(p[12]), "=r"(p[13]), "=r"(p[14]), "=r"(p[15]),
          "=r"(p[16]), "=r"(p[17]), "=r"(p[18]), "=r"(p[19]), "=r"(p[20]), "=r"(p[21]), "=r"(p[22]), "=r"(p[23]),
          "=r"(p[24]), "=r"(p[25]), "=r"(p[26]), "=r"(p[27]), "=r"(p[28]), "=r"(p[29]), "=r"(p[30]), "=r"(p[31])
        : "r"(uPayloadType), "l"(hTraversable),
          "f"(origin.x), "f"(origin.y), "f"(origin.z), "f"(direction.x), "f"(direction.y), "f"(direction.z),
          "f"(fTmin), "f"(fTmax), "f"(fRayTime),
          "r"(uVisibilityMask), "r"(uRayFlags), "r"(iSbtOffset), "r"(nSbtStride), "r"(iMissSbtIndex),
          "r"(nPayload),
          "r"(p[0]), "r"(p[1]), "r"(p[2]), "r"(p[3]), "r"(p[4]), "r"(p[5]), "r"(p[6]), "r"(p[7]),
          "r"(p[8]), "r"(p[9]), "r"(p[10]), "r"(p[11]), "r"(p[12]), "r"(p[13]), "r"(p[14]), "r"(p[15]),
          "r"(p[16]), "r"(p[17]), "r"(p[18]), "r"(p[19]), "r"(p[20]), "r"(p[21]), "r"(p[22]), "r"(p[23]),
          "r"(p[24]), "r"(p[25]), "r"(p[26]), "r"(p[27]), "r"(p[28]), "r"(p[29]), "r"(p[30]), "r"(p[31])
        :);
    // clang-format on
    unsigned int iSlot = 0;
    ((payload = p[iSlot++]), ...);
}

#else

#include <cmath>

#include "OptixDeviceHost.h"

#endif
