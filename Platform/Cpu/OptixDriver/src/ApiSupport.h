// What every entry of the stand-in does alike: count the call, honour an injected fault, turn exceptions
// into result codes, and report failures to the log callback and the caller's log buffer.
#pragma once

#include <new>
#include <string>

#include "Driver.h"
#include "Objects.h"

namespace OptixStandIn
{
// Runs fnBody unless a fault is injected for this call of sFunction.
template <class Body> OptixResult GuardedCall(const char* sFunction, Body&& fnBody)
{
    if (const int nFault = Driver::Get().Faults().Enter(sFunction))
        return static_cast<OptixResult>(nFault);
    try
    {
        return fnBody();
    }
    catch (const std::bad_alloc&)
    {
        return OPTIX_ERROR_HOST_OUT_OF_MEMORY;
    }
    catch (...)
    {
        return OPTIX_ERROR_INTERNAL_ERROR;
    }
}

// The caller's log buffer: capacity in, full length (NUL included) out; nothing written without a buffer.
class LogBuffer
{
public:
    LogBuffer(char* sLog, size_t* pLogSize) : m_sLog(sLog), m_pLogSize(pLogSize) {}
    void Write(const std::string& sText) const;

private:
    char* m_sLog;
    size_t* m_pLogSize;
};

// Reports a failed call: the message goes to the log buffer and, as an error, to the context's callback.
OptixResult Fail(OptixDeviceContext_t* pContext, const LogBuffer* pLog, OptixResult result,
                 const std::string& sMessage);

inline bool IsLive(const OptixDeviceContext_t* p)
{
    return Driver::Get().Objects().Contains(p, ObjectKind::Context);
}
inline bool IsLive(const OptixModule_t* p)
{
    return Driver::Get().Objects().Contains(p, ObjectKind::Module);
}
inline bool IsLive(const OptixProgramGroup_t* p)
{
    return Driver::Get().Objects().Contains(p, ObjectKind::ProgramGroup);
}
inline bool IsLive(const OptixPipeline_t* p)
{
    return Driver::Get().Objects().Contains(p, ObjectKind::Pipeline);
}
} // namespace OptixStandIn
