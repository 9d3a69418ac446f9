// Host backend of the device functions: the device programs compiled for the CPU flavour call these, and
// the OptiX driver stand-in runs them. Each function reads or writes the per-invocation state that the
// driver points the calling thread at before it runs a program.
#pragma once

#include <cstring>
#include <type_traits>

#include <cuda_runtime.h>

#include "OptixTypes.h"

namespace OptixHost
{
using ProgramFunction = void (*)();

struct LaunchContext; // the launch a program runs in, owned by the driver

// What a device program may ask about its invocation.
struct ProgramState
{
    unsigned int* pPayload;      // the trace's payload registers (null in ray generation)
    unsigned int nPayloadValues; // how many of them the trace passed
    unsigned int iPrimitive;     // primitive index, primitiveIndexOffset included
    float fRayTmax;              // candidate distance (any hit), hit distance (closest hit), tmax (miss)
    bool bIgnored;               // set by optixIgnoreIntersection
    unsigned int nTraceDepth;    // nesting of optixTrace calls
    CUdeviceptr pSbtData;        // the current record's data, past its header
    uint3 launchIndex;
    LaunchContext* pLaunch;
};

// The invocation running on this thread (plain TLS: no guard on the per-ray path).
extern __thread ProgramState* t_pProgramState;

// Called by the static registrars of RT_PROGRAM; returns whether the entry was new.
bool RegisterProgram(const char* sModule, unsigned int nPayloadValues, const char* sEntry,
                     ProgramFunction fnProgram);

// Aborts the current launch: its stream's next synchronisation reports cudaErrorAssert.
void DeviceAssertFailed(const char* sExpression, const char* sFile, unsigned int nLine);

// A payload slot beyond what the trace passed: the launch fails; reads give 0.
unsigned int InvalidPayloadAccess(unsigned int iSlot);

// optixTrace with the payload registers gathered in an array.
void Trace(OptixTraversableHandle hTraversable, float3 origin, float3 direction, float fTmin, float fTmax,
           float fRayTime, OptixVisibilityMask uVisibilityMask, unsigned int uRayFlags,
           unsigned int iSbtOffset, unsigned int nSbtStride, unsigned int iMissSbtIndex,
           unsigned int* aPayload, unsigned int nPayloadValues);

template <unsigned int iSlot> inline unsigned int GetPayload()
{
    const ProgramState* pState = t_pProgramState;
    if (iSlot >= pState->nPayloadValues)
        return InvalidPayloadAccess(iSlot);
    return pState->pPayload[iSlot];
}

template <unsigned int iSlot> inline void SetPayload(unsigned int uValue)
{
    const ProgramState* pState = t_pProgramState;
    if (iSlot >= pState->nPayloadValues)
    {
        InvalidPayloadAccess(iSlot);
        return;
    }
    pState->pPayload[iSlot] = uValue;
}
} // namespace OptixHost

// On the host a module is a name and a payload count that its programs register under.
#define RT_MODULE(ModuleName, nPayloadValues)                                                                \
    static_assert((nPayloadValues) >= 1 && (nPayloadValues) <= 32,                                           \
                  #ModuleName ": payload count out of range");                                               \
    namespace                                                                                                \
    {                                                                                                        \
    constexpr const char* c_sRtModuleName = #ModuleName;                                                     \
    constexpr unsigned int c_nRtModulePayloadValues = (nPayloadValues);                                      \
    }

// A file-static function (the same entry name exists in several modules) plus its registrar.
#define RT_PROGRAM(entryName)                                                                                \
    static void entryName();                                                                                 \
    [[maybe_unused]] static const bool c_bRtRegistered##entryName =                                          \
        ::OptixHost::RegisterProgram(c_sRtModuleName, c_nRtModulePayloadValues, #entryName, &entryName);     \
    static void entryName()

#define RT_DEVICE_ASSERT(sFile, expr)                                                                        \
    do                                                                                                       \
    {                                                                                                        \
        if (!(expr))                                                                                         \
        {                                                                                                    \
            ::OptixHost::DeviceAssertFailed(#expr, sFile, __LINE__);                                         \
            return;                                                                                          \
        }                                                                                                    \
    } while (0)

inline uint3 optixGetLaunchIndex()
{
    return OptixHost::t_pProgramState->launchIndex;
}
inline CUdeviceptr optixGetSbtDataPointer()
{
    return OptixHost::t_pProgramState->pSbtData;
}
inline unsigned int optixGetPrimitiveIndex()
{
    return OptixHost::t_pProgramState->iPrimitive;
}
inline float optixGetRayTmax()
{
    return OptixHost::t_pProgramState->fRayTmax;
}
// Only marks the candidate: the program returns afterwards, and the traversal then rejects it.
inline void optixIgnoreIntersection()
{
    OptixHost::t_pProgramState->bIgnored = true;
}

inline unsigned int optixGetPayload_0()
{
    return OptixHost::GetPayload<0>();
}
inline unsigned int optixGetPayload_1()
{
    return OptixHost::GetPayload<1>();
}
inline unsigned int optixGetPayload_2()
{
    return OptixHost::GetPayload<2>();
}
inline unsigned int optixGetPayload_3()
{
    return OptixHost::GetPayload<3>();
}
inline void optixSetPayload_0(unsigned int uValue)
{
    OptixHost::SetPayload<0>(uValue);
}
inline void optixSetPayload_1(unsigned int uValue)
{
    OptixHost::SetPayload<1>(uValue);
}
inline void optixSetPayload_2(unsigned int uValue)
{
    OptixHost::SetPayload<2>(uValue);
}
inline void optixSetPayload_3(unsigned int uValue)
{
    OptixHost::SetPayload<3>(uValue);
}

template <class... Payload>
inline void optixTrace(OptixTraversableHandle hTraversable, float3 origin, float3 direction, float fTmin,
                       float fTmax, float fRayTime, OptixVisibilityMask uVisibilityMask,
                       unsigned int uRayFlags, unsigned int iSbtOffset, unsigned int nSbtStride,
                       unsigned int iMissSbtIndex, Payload&... payload)
{
    constexpr unsigned int nPayloadValues = sizeof...(Payload);
    static_assert(nPayloadValues >= 1 && nPayloadValues <= 32, "optixTrace takes 1 to 32 payload values");
    static_assert((std::is_same<Payload, unsigned int>::value && ...), "payload values are unsigned int");
    unsigned int aPayload[nPayloadValues] = {payload...};
    OptixHost::Trace(hTraversable, origin, direction, fTmin, fTmax, fRayTime, uVisibilityMask, uRayFlags,
                     iSbtOffset, nSbtStride, iMissSbtIndex, aPayload, nPayloadValues);
    unsigned int iSlot = 0;
    ((payload = aPayload[iSlot++]), ...);
}

inline unsigned int __float_as_uint(float fValue)
{
    unsigned int uValue;
    std::memcpy(&uValue, &fValue, sizeof(uValue));
    return uValue;
}

inline float __uint_as_float(unsigned int uValue)
{
    float fValue;
    std::memcpy(&fValue, &uValue, sizeof(fValue));
    return fValue;
}
