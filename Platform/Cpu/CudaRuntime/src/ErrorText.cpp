// The texts of the CUDA 13 runtime, so that messages read the same in both flavours.
#include "StandInHooks.h"

namespace
{
struct ErrorText
{
    cudaError_t nError;
    const char* sName;
    const char* sText;
};

constexpr ErrorText c_aErrorTexts[] = {
        {cudaSuccess, "cudaSuccess", "no error"},
        {cudaErrorInvalidValue, "cudaErrorInvalidValue", "invalid argument"},
        {cudaErrorMemoryAllocation, "cudaErrorMemoryAllocation", "out of memory"},
        {cudaErrorInitializationError, "cudaErrorInitializationError", "initialization error"},
        {cudaErrorCudartUnloading, "cudaErrorCudartUnloading", "driver shutting down"},
        {cudaErrorProfilerDisabled, "cudaErrorProfilerDisabled", "profiler disabled while using external profiling tool"},
        {cudaErrorProfilerNotInitialized, "cudaErrorProfilerNotInitialized", "profiler not initialized: call cudaProfilerInitialize()"},
        {cudaErrorProfilerAlreadyStarted, "cudaErrorProfilerAlreadyStarted", "profiler already started"},
        {cudaErrorProfilerAlreadyStopped, "cudaErrorProfilerAlreadyStopped", "profiler already stopped"},
        {cudaErrorInvalidConfiguration, "cudaErrorInvalidConfiguration", "invalid configuration argument"},
        {cudaErrorInvalidPitchValue, "cudaErrorInvalidPitchValue", "invalid pitch argument"},
        {cudaErrorInvalidSymbol, "cudaErrorInvalidSymbol", "invalid device symbol"},
        {cudaErrorInvalidHostPointer, "cudaErrorInvalidHostPointer", "invalid host pointer"},
        {cudaErrorInvalidDevicePointer, "cudaErrorInvalidDevicePointer", "invalid device pointer"},
        {cudaErrorInvalidTexture, "cudaErrorInvalidTexture", "invalid texture reference"},
        {cudaErrorInvalidTextureBinding, "cudaErrorInvalidTextureBinding", "texture is not bound to a pointer"},
        {cudaErrorInvalidChannelDescriptor, "cudaErrorInvalidChannelDescriptor", "invalid channel descriptor"},
        {cudaErrorInvalidMemcpyDirection, "cudaErrorInvalidMemcpyDirection", "invalid copy direction for memcpy"},
        {cudaErrorAddressOfConstant, "cudaErrorAddressOfConstant", "invalid address of constant"},
        {cudaErrorTextureFetchFailed, "cudaErrorTextureFetchFailed", "fetch from texture failed"},
        {cudaErrorTextureNotBound, "cudaErrorTextureNotBound", "cannot fetch from a texture that is not bound"},
        {cudaErrorSynchronizationError, "cudaErrorSynchronizationError", "incorrect use of __syncthreads()"},
        {cudaErrorInvalidFilterSetting, "cudaErrorInvalidFilterSetting", "linear filtering not supported for non-float type"},
        {cudaErrorInvalidNormSetting, "cudaErrorInvalidNormSetting", "read as normalized float not supported for data type"},
        {cudaErrorMixedDeviceExecution, "cudaErrorMixedDeviceExecution", "device emulation mode and device execution mode cannot be mixed"},
        {cudaErrorNotYetImplemented, "cudaErrorNotYetImplemented", "feature not yet implemented"},
        {cudaErrorMemoryValueTooLarge, "cudaErrorMemoryValueTooLarge", "memory size or pointer value too large to fit in 32 bit"},
        {cudaErrorStubLibrary, "cudaErrorStubLibrary", "CUDA driver is a stub library"},
        {cudaErrorInsufficientDriver, "cudaErrorInsufficientDriver", "CUDA driver version is insufficient for CUDA runtime version"},
        {cudaErrorCallRequiresNewerDriver, "cudaErrorCallRequiresNewerDriver", "API call is not supported in the installed CUDA driver"},
        {cudaErrorInvalidSurface, "cudaErrorInvalidSurface", "invalid surface reference"},
        {cudaErrorDuplicateVariableName, "cudaErrorDuplicateVariableName", "duplicate global variable looked up by string name"},
        {cudaErrorDuplicateTextureName, "cudaErrorDuplicateTextureName", "duplicate texture looked up by string name"},
        {cudaErrorDuplicateSurfaceName, "cudaErrorDuplicateSurfaceName", "duplicate surface looked up by string name"},
        {cudaErrorDevicesUnavailable, "cudaErrorDevicesUnavailable", "CUDA-capable device(s) is/are busy or unavailable"},
        {cudaErrorIncompatibleDriverContext, "cudaErrorIncompatibleDriverContext", "incompatible driver context"},
        {cudaErrorMissingConfiguration, "cudaErrorMissingConfiguration", "__global__ function call is not configured"},
        {cudaErrorPriorLaunchFailure, "cudaErrorPriorLaunchFailure", "unspecified launch failure in prior launch"},
        {cudaErrorLaunchMaxDepthExceeded, "cudaErrorLaunchMaxDepthExceeded", "launch would exceed maximum depth of nested launches"},
        {cudaErrorLaunchFileScopedTex, "cudaErrorLaunchFileScopedTex", "launch failed because kernel uses unsupported, file-scoped textures (texture objects are supported)"},
        {cudaErrorLaunchFileScopedSurf, "cudaErrorLaunchFileScopedSurf", "launch failed because kernel uses unsupported, file-scoped surfaces (surface objects are supported)"},
        {cudaErrorSyncDepthExceeded, "cudaErrorSyncDepthExceeded", "cudaDeviceSynchronize failed because caller's grid depth exceeds cudaLimitDevRuntimeSyncDepth"},
        {cudaErrorLaunchPendingCountExceeded, "cudaErrorLaunchPendingCountExceeded", "launch failed because launch would exceed cudaLimitDevRuntimePendingLaunchCount"},
        {cudaErrorInvalidDeviceFunction, "cudaErrorInvalidDeviceFunction", "invalid device function"},
        {cudaErrorNoDevice, "cudaErrorNoDevice", "no CUDA-capable device is detected"},
        {cudaErrorInvalidDevice, "cudaErrorInvalidDevice", "invalid device ordinal"},
        {cudaErrorDeviceNotLicensed, "cudaErrorDeviceNotLicensed", "device doesn't have valid Grid license"},
        {cudaErrorSoftwareValidityNotEstablished, "cudaErrorSoftwareValidityNotEstablished", "integrity checks failed"},
        {cudaErrorStartupFailure, "cudaErrorStartupFailure", "startup failure in cuda runtime"},
        {cudaErrorInvalidKernelImage, "cudaErrorInvalidKernelImage", "device kernel image is invalid"},
        {cudaErrorDeviceUninitialized, "cudaErrorDeviceUninitialized", "invalid device context"},
        {cudaErrorMapBufferObjectFailed, "cudaErrorMapBufferObjectFailed", "mapping of buffer object failed"},
        {cudaErrorUnmapBufferObjectFailed, "cudaErrorUnmapBufferObjectFailed", "unmapping of buffer object failed"},
        {cudaErrorArrayIsMapped, "cudaErrorArrayIsMapped", "array is mapped"},
        {cudaErrorAlreadyMapped, "cudaErrorAlreadyMapped", "resource already mapped"},
        {cudaErrorNoKernelImageForDevice, "cudaErrorNoKernelImageForDevice", "no kernel image is available for execution on the device"},
        {cudaErrorAlreadyAcquired, "cudaErrorAlreadyAcquired", "resource already acquired"},
        {cudaErrorNotMapped, "cudaErrorNotMapped", "resource not mapped"},
        {cudaErrorNotMappedAsArray, "cudaErrorNotMappedAsArray", "resource not mapped as array"},
        {cudaErrorNotMappedAsPointer, "cudaErrorNotMappedAsPointer", "resource not mapped as pointer"},
        {cudaErrorECCUncorrectable, "cudaErrorECCUncorrectable", "uncorrectable ECC error encountered"},
        {cudaErrorUnsupportedLimit, "cudaErrorUnsupportedLimit", "limit is not supported on this architecture"},
        {cudaErrorDeviceAlreadyInUse, "cudaErrorDeviceAlreadyInUse", "exclusive-thread device already in use by a different thread"},
        {cudaErrorPeerAccessUnsupported, "cudaErrorPeerAccessUnsupported", "peer access is not supported between these two devices"},
        {cudaErrorInvalidPtx, "cudaErrorInvalidPtx", "a PTX JIT compilation failed"},
        {cudaErrorInvalidGraphicsContext, "cudaErrorInvalidGraphicsContext", "invalid OpenGL or DirectX context"},
        {cudaErrorNvlinkUncorrectable, "cudaErrorNvlinkUncorrectable", "uncorrectable NVLink error detected during the execution"},
        {cudaErrorJitCompilerNotFound, "cudaErrorJitCompilerNotFound", "PTX JIT compiler library not found"},
        {cudaErrorUnsupportedPtxVersion, "cudaErrorUnsupportedPtxVersion", "the provided PTX was compiled with an unsupported toolchain."},
        {cudaErrorJitCompilationDisabled, "cudaErrorJitCompilationDisabled", "PTX JIT compilation was disabled"},
        {cudaErrorUnsupportedExecAffinity, "cudaErrorUnsupportedExecAffinity", "the provided execution affinity is not supported"},
        {cudaErrorUnsupportedDevSideSync, "cudaErrorUnsupportedDevSideSync", "the provided PTX contains unsupported call to cudaDeviceSynchronize"},
        {cudaErrorContained, "cudaErrorContained", "Invalid access of peer GPU memory over nvlink or a hardware error"},
        {cudaErrorInvalidSource, "cudaErrorInvalidSource", "device kernel image is invalid"},
        {cudaErrorFileNotFound, "cudaErrorFileNotFound", "file not found"},
        {cudaErrorSharedObjectSymbolNotFound, "cudaErrorSharedObjectSymbolNotFound", "shared object symbol not found"},
        {cudaErrorSharedObjectInitFailed, "cudaErrorSharedObjectInitFailed", "shared object initialization failed"},
        {cudaErrorOperatingSystem, "cudaErrorOperatingSystem", "OS call failed or operation not supported on this OS"},
        {cudaErrorInvalidResourceHandle, "cudaErrorInvalidResourceHandle", "invalid resource handle"},
        {cudaErrorIllegalState, "cudaErrorIllegalState", "the operation cannot be performed in the present state"},
        {cudaErrorLossyQuery, "cudaErrorLossyQuery", "attempted introspection would be semantically lossy"},
        {cudaErrorSymbolNotFound, "cudaErrorSymbolNotFound", "named symbol not found"},
        {cudaErrorNotReady, "cudaErrorNotReady", "device not ready"},
        {cudaErrorIllegalAddress, "cudaErrorIllegalAddress", "an illegal memory access was encountered"},
        {cudaErrorLaunchOutOfResources, "cudaErrorLaunchOutOfResources", "too many resources requested for launch"},
        {cudaErrorLaunchTimeout, "cudaErrorLaunchTimeout", "the launch timed out and was terminated"},
        {cudaErrorLaunchIncompatibleTexturing, "cudaErrorLaunchIncompatibleTexturing", "launch uses incompatible texturing mode"},
        {cudaErrorPeerAccessAlreadyEnabled, "cudaErrorPeerAccessAlreadyEnabled", "peer access is already enabled"},
        {cudaErrorPeerAccessNotEnabled, "cudaErrorPeerAccessNotEnabled", "peer access has not been enabled"},
        {cudaErrorSetOnActiveProcess, "cudaErrorSetOnActiveProcess", "cannot set while device is active in this process"},
        {cudaErrorContextIsDestroyed, "cudaErrorContextIsDestroyed", "context is destroyed"},
        {cudaErrorAssert, "cudaErrorAssert", "device-side assert triggered"},
        {cudaErrorTooManyPeers, "cudaErrorTooManyPeers", "peer mapping resources exhausted"},
        {cudaErrorHostMemoryAlreadyRegistered, "cudaErrorHostMemoryAlreadyRegistered", "part or all of the requested memory range is already mapped"},
        {cudaErrorHostMemoryNotRegistered, "cudaErrorHostMemoryNotRegistered", "pointer does not correspond to a registered memory region"},
        {cudaErrorHardwareStackError, "cudaErrorHardwareStackError", "hardware stack error"},
        {cudaErrorIllegalInstruction, "cudaErrorIllegalInstruction", "an illegal instruction was encountered"},
        {cudaErrorMisalignedAddress, "cudaErrorMisalignedAddress", "misaligned address"},
        {cudaErrorInvalidAddressSpace, "cudaErrorInvalidAddressSpace", "operation not supported on global/shared address space"},
        {cudaErrorInvalidPc, "cudaErrorInvalidPc", "invalid program counter"},
        {cudaErrorLaunchFailure, "cudaErrorLaunchFailure", "unspecified launch failure"},
        {cudaErrorCooperativeLaunchTooLarge, "cudaErrorCooperativeLaunchTooLarge", "too many blocks in cooperative launch"},
        {cudaErrorTensorMemoryLeak, "cudaErrorTensorMemoryLeak", "tensor memory not completely freed"},
        {cudaErrorNotPermitted, "cudaErrorNotPermitted", "operation not permitted"},
        {cudaErrorNotSupported, "cudaErrorNotSupported", "operation not supported"},
        {cudaErrorSystemNotReady, "cudaErrorSystemNotReady", "system not yet initialized"},
        {cudaErrorSystemDriverMismatch, "cudaErrorSystemDriverMismatch", "system has unsupported display driver / cuda driver combination"},
        {cudaErrorCompatNotSupportedOnDevice, "cudaErrorCompatNotSupportedOnDevice", "forward compatibility was attempted on non supported HW"},
        {cudaErrorMpsConnectionFailed, "cudaErrorMpsConnectionFailed", "MPS client failed to connect to the MPS control daemon or the MPS server"},
        {cudaErrorMpsRpcFailure, "cudaErrorMpsRpcFailure", "the remote procedural call between the MPS server and the MPS client failed"},
        {cudaErrorMpsServerNotReady, "cudaErrorMpsServerNotReady", "MPS server is not ready to accept new MPS client requests"},
        {cudaErrorMpsMaxClientsReached, "cudaErrorMpsMaxClientsReached", "the hardware resources required to create MPS client have been exhausted"},
        {cudaErrorMpsMaxConnectionsReached, "cudaErrorMpsMaxConnectionsReached", "the hardware resources required to support device connections have been exhausted"},
        {cudaErrorMpsClientTerminated, "cudaErrorMpsClientTerminated", "the MPS client has been terminated by the server"},
        {cudaErrorCdpNotSupported, "cudaErrorCdpNotSupported", "is using CUDA Dynamic Parallelism, but the current configuration, like MPS, does not support it"},
        {cudaErrorCdpVersionMismatch, "cudaErrorCdpVersionMismatch", "unsupported interaction between different versions of CUDA Dynamic Parallelism"},
        {cudaErrorStreamCaptureUnsupported, "cudaErrorStreamCaptureUnsupported", "operation not permitted when stream is capturing"},
        {cudaErrorStreamCaptureInvalidated, "cudaErrorStreamCaptureInvalidated", "operation failed due to a previous error during capture"},
        {cudaErrorStreamCaptureMerge, "cudaErrorStreamCaptureMerge", "operation would result in a merge of separate capture sequences"},
        {cudaErrorStreamCaptureUnmatched, "cudaErrorStreamCaptureUnmatched", "capture was not ended in the same stream as it began"},
        {cudaErrorStreamCaptureUnjoined, "cudaErrorStreamCaptureUnjoined", "capturing stream has unjoined work"},
        {cudaErrorStreamCaptureIsolation, "cudaErrorStreamCaptureIsolation", "dependency created on uncaptured work in another stream"},
        {cudaErrorStreamCaptureImplicit, "cudaErrorStreamCaptureImplicit", "operation would make the legacy stream depend on a capturing blocking stream"},
        {cudaErrorCapturedEvent, "cudaErrorCapturedEvent", "operation not permitted on an event last recorded in a capturing stream"},
        {cudaErrorStreamCaptureWrongThread, "cudaErrorStreamCaptureWrongThread", "attempt to terminate a thread-local capture sequence from another thread"},
        {cudaErrorTimeout, "cudaErrorTimeout", "wait operation timed out"},
        {cudaErrorGraphExecUpdateFailure, "cudaErrorGraphExecUpdateFailure", "the graph update was not performed because it included changes which violated constraints specific to instantiated graph update"},
        {cudaErrorExternalDevice, "cudaErrorExternalDevice", "an async error has occured in external entity outside of CUDA"},
        {cudaErrorInvalidClusterSize, "cudaErrorInvalidClusterSize", "a kernel launch error has occurred due to cluster misconfiguration"},
        {cudaErrorFunctionNotLoaded, "cudaErrorFunctionNotLoaded", "the function handle is not loaded when calling an API that requires a loaded function"},
        {cudaErrorInvalidResourceType, "cudaErrorInvalidResourceType", "one or more resources passed in are not valid resource types for the operation"},
        {cudaErrorInvalidResourceConfiguration, "cudaErrorInvalidResourceConfiguration", "one or more resources are insufficient or non-applicable for the operation"},
        {cudaErrorUnknown, "cudaErrorUnknown", "unknown error"},
};

constexpr const char* c_sUnrecognized = "unrecognized error code";

const ErrorText* FindErrorText(cudaError_t nError)
{
    for (const ErrorText& cText : c_aErrorTexts)
        if (cText.nError == nError)
            return &cText;
    return nullptr;
}
} // namespace

extern "C" const char* cudaGetErrorString(cudaError_t error)
{
    RayTracingCpu::StandIn::EnterCall("cudaGetErrorString");
    const ErrorText* pText = FindErrorText(error);
    return pText ? pText->sText : c_sUnrecognized;
}

extern "C" const char* cudaGetErrorName(cudaError_t error)
{
    RayTracingCpu::StandIn::EnterCall("cudaGetErrorName");
    const ErrorText* pText = FindErrorText(error);
    return pText ? pText->sName : c_sUnrecognized;
}
