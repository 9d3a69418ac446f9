// The driver's own names and descriptions of its result codes (slots 0 and 1 of the table).
#include "Api.h"

namespace OptixStandIn
{
namespace
{
struct ErrorText
{
    OptixResult result;
    const char* sName;
    const char* sDescription;
};

#define RT_ERROR_TEXT(code, description)                                                                     \
    {                                                                                                        \
        code, #code, description                                                                             \
    }
constexpr ErrorText c_aErrorTexts[] = {
    RT_ERROR_TEXT(OPTIX_SUCCESS, "Success"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_VALUE, "Invalid value"),
    RT_ERROR_TEXT(OPTIX_ERROR_HOST_OUT_OF_MEMORY, "Host is out of memory"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_OPERATION, "Invalid operation"),
    RT_ERROR_TEXT(OPTIX_ERROR_FILE_IO_ERROR, "File I/O error"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_FILE_FORMAT, "Invalid file format"),
    RT_ERROR_TEXT(OPTIX_ERROR_DISK_CACHE_INVALID_PATH, "Invalid path to disk cache file"),
    RT_ERROR_TEXT(OPTIX_ERROR_DISK_CACHE_PERMISSION_ERROR, "Disk cache file is not writable"),
    RT_ERROR_TEXT(OPTIX_ERROR_DISK_CACHE_DATABASE_ERROR, "Disk cache database error"),
    RT_ERROR_TEXT(OPTIX_ERROR_DISK_CACHE_INVALID_DATA, "Invalid data in disk cache"),
    RT_ERROR_TEXT(OPTIX_ERROR_LAUNCH_FAILURE, "Launch failure"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_DEVICE_CONTEXT, "Invalid device context"),
    RT_ERROR_TEXT(OPTIX_ERROR_CUDA_NOT_INITIALIZED, "CUDA is not initialized"),
    RT_ERROR_TEXT(OPTIX_ERROR_VALIDATION_FAILURE, "Validation failure"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_INPUT, "Invalid input"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_LAUNCH_PARAMETER, "Invalid launch parameter"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_PAYLOAD_ACCESS, "Invalid payload access"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_ATTRIBUTE_ACCESS, "Invalid attribute access"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_FUNCTION_USE, "Invalid use of optix device function"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_FUNCTION_ARGUMENTS, "Invalid arguments to optix device function"),
    RT_ERROR_TEXT(OPTIX_ERROR_PIPELINE_OUT_OF_CONSTANT_MEMORY, "Pipeline is out of constant memory"),
    RT_ERROR_TEXT(OPTIX_ERROR_PIPELINE_LINK_ERROR, "Pipeline link error"),
    RT_ERROR_TEXT(OPTIX_ERROR_ILLEGAL_DURING_TASK_EXECUTE, "Illegal call during task execution"),
    RT_ERROR_TEXT(OPTIX_ERROR_INTERNAL_COMPILER_ERROR, "Internal compiler error"),
    RT_ERROR_TEXT(OPTIX_ERROR_DENOISER_MODEL_NOT_SET, "Denoiser model not set"),
    RT_ERROR_TEXT(OPTIX_ERROR_DENOISER_NOT_INITIALIZED, "Denoiser not initialized"),
    RT_ERROR_TEXT(OPTIX_ERROR_NOT_COMPATIBLE, "Not compatible"),
    RT_ERROR_TEXT(OPTIX_ERROR_PAYLOAD_TYPE_MISMATCH, "Payload type mismatch"),
    RT_ERROR_TEXT(OPTIX_ERROR_PAYLOAD_TYPE_RESOLUTION_FAILED, "Payload type resolution failed"),
    RT_ERROR_TEXT(OPTIX_ERROR_PAYLOAD_TYPE_ID_INVALID, "Payload type ID invalid"),
    RT_ERROR_TEXT(OPTIX_ERROR_NOT_SUPPORTED, "Feature not supported"),
    RT_ERROR_TEXT(OPTIX_ERROR_UNSUPPORTED_ABI_VERSION, "Unsupported ABI version"),
    RT_ERROR_TEXT(OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH, "Function table size mismatch"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS, "Invalid options to entry function"),
    RT_ERROR_TEXT(OPTIX_ERROR_LIBRARY_NOT_FOUND, "Library not found"),
    RT_ERROR_TEXT(OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND, "Entry symbol not found"),
    RT_ERROR_TEXT(OPTIX_ERROR_LIBRARY_UNLOAD_FAILURE, "Library could not be unloaded"),
    RT_ERROR_TEXT(OPTIX_ERROR_DEVICE_OUT_OF_MEMORY, "Device out of memory"),
    RT_ERROR_TEXT(OPTIX_ERROR_INVALID_POINTER, "Invalid pointer"),
    RT_ERROR_TEXT(OPTIX_ERROR_CUDA_ERROR, "CUDA error"),
    RT_ERROR_TEXT(OPTIX_ERROR_INTERNAL_ERROR, "Internal error"),
    RT_ERROR_TEXT(OPTIX_ERROR_UNKNOWN, "Unknown error"),
};
#undef RT_ERROR_TEXT

constexpr const char* c_sUnrecognized = "Unrecognized OptixResult code";

const ErrorText* FindErrorText(OptixResult result)
{
    for (const ErrorText& cText : c_aErrorTexts)
        if (cText.result == result)
            return &cText;
    return nullptr;
}
} // namespace

const char* GetErrorName(OptixResult result)
{
    const ErrorText* pText = FindErrorText(result);
    return pText ? pText->sName : c_sUnrecognized;
}

const char* GetErrorString(OptixResult result)
{
    const ErrorText* pText = FindErrorText(result);
    return pText ? pText->sDescription : c_sUnrecognized;
}
} // namespace OptixStandIn
