// Owners of the OptiX handles of one run, and the device context's log callback.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "OptixApi.h"
#include "RayTracingChecks.h"

template <typename T> using OptixHolder = std::unique_ptr<T, std::function<void(T*)>>;

// A holder whose deleter destroys the handle and records a failed destroy in cRunningResult, but only while
// nothing failed before: the first failure wins. Never throws.
template <typename T>
OptixHolder<T> MakeOptixHolder(ErrorResult& cRunningResult, OptixResult (*pDestroy)(T*),
                               const char* sReleaseCall)
{
    return OptixHolder<T>(nullptr,
                          [&cRunningResult, pDestroy, sReleaseCall](T* pHandle)
                          {
                              const OptixResult nResult = pDestroy(pHandle);
                              if (nResult == OPTIX_SUCCESS || cRunningResult.first != Success)
                                  return;
                              try
                              {
                                  cRunningResult = MakeOptixError(nResult, sReleaseCall);
                              }
                              catch (...)
                              {
                                  cRunningResult.first = Failure;
                              }
                          });
}

// OptiX's log callback: appends "[ L][         TAG]: message\n" to the std::deque<std::string> at cbdata.
void ContextLogCallback(unsigned int level, const char* tag, const char* message, void* cbdata);

// Creates a device context on the current device; with diagnostics its fatal messages go to aLog. A failure
// is named after the call made: "optixDeviceContextCreate" or "optixDeviceContextCreateWithDiagnostics".
ErrorResult CreateDeviceContext(bool bDiagnostics, std::deque<std::string>& aLog,
                                OptixDeviceContext& context_raw);
