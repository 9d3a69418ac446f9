// Call checks shared by the library's sources. A failing call's message quotes the call as written at the
// call site, so call sites are kept exactly as the messages must read (clang-format is off around them).
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include <cuda_runtime.h>

#include "OptixTypes.h"
#include "RayTracing.h"

#ifndef _countof
#define _countof(a) (sizeof(a) / sizeof((a)[0]))
#endif

// {Success, ""} on success, else a code and the finished message.
using ErrorResult = std::pair<RayTracingErrorType, std::string>;

inline ErrorResult SuccessResult()
{
    return {Success, std::string()};
}

// Throws the message as a std::string when nError is not cudaSuccess.
void CheckCudaCall(cudaError_t nError, const char* sCall, const char* sFile, unsigned int nLine);
// Throws the message as a std::string when nResult is not OPTIX_SUCCESS.
void CheckOptixCall(OptixResult nResult, const char* sCall, const char* sFile, unsigned int nLine);
// {Success, ""} on OPTIX_SUCCESS, else {Failure, message naming sCall}.
ErrorResult MakeOptixError(OptixResult nResult, const std::string& sCall);
// Message of a failed call that filled a compile or link log of nLogCapacity bytes.
std::string MakeOptixLogMessage(const char* sCall, const char* sFile, unsigned int nLine, const char* sLog,
                                std::size_t nLogCapacity, std::size_t nLogSize);

#define CHECK_CUDA(call) CheckCudaCall((call), #call, __FILE__, __LINE__)
#define CHECK_OPTIX(call) CheckOptixCall((call), #call, __FILE__, __LINE__)
// Needs `LOG` (a char array) and `LOG_SIZE` (size_t) in scope.
#define CHECK_OPTIX_LOG(call)                                                                                \
    do                                                                                                       \
    {                                                                                                        \
        LOG_SIZE = sizeof(LOG);                                                                              \
        LOG[0] = '\0'; /* a call that fails before writing its log must not quote an earlier one */          \
        const OptixResult nLogCheckResult = (call);                                                          \
        if (nLogCheckResult != OPTIX_SUCCESS)                                                                \
            throw MakeOptixLogMessage(#call, __FILE__, __LINE__, LOG, sizeof(LOG), LOG_SIZE);                \
    } while (0)
