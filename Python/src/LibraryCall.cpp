#include "LibraryCall.h"

#include "FlavourError.h"

#include <nanobind/nanobind.h>

namespace nb = nanobind;

namespace
{
void RaiseRayTracingError(RayTracingErrorType eCode, const char* sMessage)
{
    // The classes live in the package's pure-Python part; the module is imported by then.
    PyObject* pErrors = PyImport_ImportModule("raytracing._errors");
    if (pErrors == nullptr)
        return; // the ImportError stands
    PyObject* pError = PyObject_CallMethod(pErrors, "from_library", "is", static_cast<int>(eCode), sMessage);
    Py_DECREF(pErrors);
    if (pError == nullptr)
        return;
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(pError)), pError);
    Py_DECREF(pError);
}
} // namespace

void RegisterLibraryFailure()
{
    nb::register_exception_translator(
        [](const std::exception_ptr& pException, void*)
        {
            try
            {
                std::rethrow_exception(pException);
            }
            catch (const LibraryFailure& cFailure)
            {
                RaiseRayTracingError(cFailure.Code(), cFailure.what());
            }
            catch (const FlavourError& cError)
            {
                RaiseRayTracingError(Failure, cError.what());
            }
        });
}

std::shared_mutex& CallOrder(bool bGpu)
{
    static std::shared_mutex s_aCallOrder[2];
    return s_aCallOrder[bGpu ? 1 : 0];
}
