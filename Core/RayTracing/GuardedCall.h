// The guarded regions of the entry points: exceptions become result codes, the log reaches the caller.
#pragma once

#include <deque>
#include <exception>
#include <new>
#include <sstream>
#include <string>

#include "RayTracingChecks.h"

// Runs fnWork (returning an ErrorResult); std::bad_alloc is OutOfMemory, a thrown check message or any other
// exception is Failure with its text in sError.
template <typename TWork> RayTracingErrorType RunGuarded(TWork&& fnWork, std::string& sError)
{
    RayTracingErrorType nResult = Success;
    try
    {
        const ErrorResult cResult = fnWork();
        nResult = cResult.first;
        sError = cResult.second;
    }
    catch (const std::bad_alloc&)
    {
        nResult = OutOfMemory;
    }
    catch (const std::string& sMessage)
    {
        nResult = Failure;
        sError = sMessage;
    }
    catch (const std::exception& cException)
    {
        nResult = Failure;
        if (cException.what() != nullptr)
            sError = cException.what();
    }
    catch (...)
    {
        nResult = Failure;
    }
    return nResult;
}

// Joins the log lines into sLog, one per line; a failure to do so turns a success into its code.
inline RayTracingErrorType DeliverLog(const std::deque<std::string>& aLog, std::string& sLog,
                                      RayTracingErrorType nResult)
{
    try
    {
        std::stringstream ss;
        for (const std::string& sLine : aLog)
            ss << sLine << std::endl;
        sLog = ss.str();
    }
    catch (const std::bad_alloc&)
    {
        if (nResult == Success)
            nResult = OutOfMemory;
    }
    catch (...)
    {
        if (nResult == Success)
            nResult = Failure;
    }
    return nResult;
}
