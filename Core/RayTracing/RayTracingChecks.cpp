#include "RayTracingChecks.h"

#include <cstring>
#include <sstream>

#include "OptixApi.h"

void CheckCudaCall(cudaError_t nError, const char* sCall, const char* sFile, unsigned int nLine)
{
    if (nError == cudaSuccess)
        return;
    std::stringstream ss;
    ss << "CUDA call (" << sCall << " ) failed with error: '" << cudaGetErrorString(nError) << "' (" << sFile
       << ":" << nLine << ")" << std::endl;
    throw ss.str();
}

void CheckOptixCall(OptixResult nResult, const char* sCall, const char* sFile, unsigned int nLine)
{
    if (nResult == OPTIX_SUCCESS)
        return;
    std::stringstream ss;
    ss << "Optix call '" << sCall << "' failed: " << sFile << ':' << nLine << std::endl;
    ss << "Error Name: " << optixGetErrorName(nResult) << std::endl;
    ss << "Description: " << optixGetErrorString(nResult) << std::endl;
    throw ss.str();
}

ErrorResult MakeOptixError(OptixResult nResult, const std::string& sCall)
{
    if (nResult == OPTIX_SUCCESS)
        return SuccessResult();
    std::stringstream ss;
    ss << "Optix call \"" << sCall << "\" failed." << std::endl;
    ss << "Error Name: " << optixGetErrorName(nResult) << std::endl;
    ss << "Description: " << optixGetErrorString(nResult) << std::endl;
    return {Failure, ss.str()};
}

std::string MakeOptixLogMessage(const char* sCall, const char* sFile, unsigned int nLine, const char* sLog,
                                std::size_t nLogCapacity, std::size_t nLogSize)
{
    std::stringstream ss;
    ss << "Optix call '" << sCall << "' failed: " << sFile << ':' << nLine << std::endl;
    ss << "Log:" << std::endl;
    // A full buffer need not be terminated.
    ss.write(sLog, static_cast<std::streamsize>(strnlen(sLog, nLogCapacity)));
    if (nLogSize > nLogCapacity)
        ss << "<TRUNCATED>";
    ss << std::endl;
    return ss.str();
}
