// Running library calls for Python: results and failures in Python's terms, the GIL released meanwhile, and
// the order the library requires between its entry points.
#pragma once

#include <RayTracing.h>

#include <new>
#include <shared_mutex>
#include <stdexcept>
#include <string>

// A failed call on its way to Python, where it becomes raytracing.RayTracingError (OutOfMemoryError for
// OutOfMemory) carrying the library's code and message.
class LibraryFailure : public std::runtime_error
{
public:
    LibraryFailure(RayTracingErrorType eCode, const std::string& sMessage)
        : std::runtime_error(sMessage), m_eCode(eCode)
    {
    }
    RayTracingErrorType Code() const { return m_eCode; }

private:
    RayTracingErrorType m_eCode;
};

// Translates LibraryFailure and the loader's FlavourError into the package's exception classes.
void RegisterLibraryFailure();

// RayTracing refills its flavour's process-wide OptiX function table, which that flavour's scenes use: it
// runs alone, while scenes may trace at the same time. One lock per flavour library.
std::shared_mutex& CallOrder(bool bGpu);

// Runs fCall (returning a result code) and throws LibraryFailure unless it succeeds. A device set-up failure
// leaves RayTracing as a thrown std::string or std::bad_alloc; those become Failure and OutOfMemory.
template <typename Call> void CallLibrary(Call&& fCall)
{
    std::string sError;
    RayTracingErrorType eResult = Failure;
    try
    {
        eResult = fCall(sError);
    }
    catch (const std::string& sThrown)
    {
        sError = sThrown;
    }
    catch (const std::bad_alloc&)
    {
        eResult = OutOfMemory;
        sError = "out of host memory";
    }
    catch (const std::exception& cException)
    {
        sError = cException.what();
    }
    if (eResult != Success)
        throw LibraryFailure(eResult, sError);
}
