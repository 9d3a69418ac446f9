#include "OptixHolders.h"

#include <iomanip>
#include <mutex>
#include <sstream>

void ContextLogCallback(unsigned int level, const char* tag, const char* message, void* cbdata)
{
    if (cbdata == nullptr)
        return;
    // Nothing may unwind into the driver that called us: out of memory, the line is lost.
    try
    {
        std::stringstream ss;
        ss << "[" << std::setw(2) << level << "][" << std::setw(12) << (tag ? tag : "")
           << "]: " << (message ? message : "") << std::endl;
        // OptiX does not promise to call back on the calling thread only.
        static std::mutex s_mutex;
        const std::lock_guard<std::mutex> cLock(s_mutex);
        static_cast<std::deque<std::string>*>(cbdata)->push_back(ss.str());
    }
    catch (...)
    {
    }
}

ErrorResult CreateDeviceContext(bool bDiagnostics, std::deque<std::string>& aLog,
                                OptixDeviceContext& context_raw)
{
    if (!bDiagnostics)
        return MakeOptixError(optixDeviceContextCreate(0, nullptr, &context_raw), "optixDeviceContextCreate");
    OptixDeviceContextOptions options = {};
    options.logCallbackFunction = &ContextLogCallback;
    options.logCallbackData = &aLog;
    options.logCallbackLevel = 1;
    options.validationMode = OPTIX_DEVICE_CONTEXT_VALIDATION_MODE_OFF;
    return MakeOptixError(optixDeviceContextCreate(0, &options, &context_raw),
                          "optixDeviceContextCreateWithDiagnostics");
}
