// The stand-in's implementations of the function-table entries, under their own names so that they never
// meet the call wrappers of OptixApi.h.
#pragma once

#include "OptixApi.h"

namespace OptixStandIn
{
const char* GetErrorName(OptixResult result);
const char* GetErrorString(OptixResult result);

OptixResult DeviceContextCreate(CUcontext fromContext, const OptixDeviceContextOptions* pOptions,
                                OptixDeviceContext* pContext);
OptixResult DeviceContextDestroy(OptixDeviceContext context);
OptixResult DeviceContextGetProperty(OptixDeviceContext context, OptixDeviceProperty eProperty, void* pValue,
                                     size_t nSizeInBytes);

OptixResult ModuleCreate(OptixDeviceContext context, const OptixModuleCompileOptions* pModuleOptions,
                         const OptixPipelineCompileOptions* pPipelineOptions, const char* sInput,
                         size_t nInputSize, char* sLog, size_t* pLogSize, OptixModule* pModule);
OptixResult ModuleDestroy(OptixModule module);
OptixResult ProgramGroupCreate(OptixDeviceContext context, const OptixProgramGroupDesc* aDescs,
                               unsigned int nGroups, const OptixProgramGroupOptions* pOptions, char* sLog,
                               size_t* pLogSize, OptixProgramGroup* aGroups);
OptixResult ProgramGroupDestroy(OptixProgramGroup group);
OptixResult ProgramGroupGetStackSize(OptixProgramGroup group, OptixStackSizes* pSizes,
                                     OptixPipeline pipeline);
OptixResult PipelineCreate(OptixDeviceContext context, const OptixPipelineCompileOptions* pPipelineOptions,
                           const OptixPipelineLinkOptions* pLinkOptions, const OptixProgramGroup* aGroups,
                           unsigned int nGroups, char* sLog, size_t* pLogSize, OptixPipeline* pPipeline);
OptixResult PipelineDestroy(OptixPipeline pipeline);
OptixResult PipelineSetStackSize(OptixPipeline pipeline, unsigned int nDcFromTraversal,
                                 unsigned int nDcFromState, unsigned int nContinuation,
                                 unsigned int nMaxTraversableGraphDepth);

OptixResult AccelComputeMemoryUsage(OptixDeviceContext context, const OptixAccelBuildOptions* pOptions,
                                    const OptixBuildInput* aInputs, unsigned int nInputs,
                                    OptixAccelBufferSizes* pSizes);
OptixResult AccelBuild(OptixDeviceContext context, CUstream stream, const OptixAccelBuildOptions* pOptions,
                       const OptixBuildInput* aInputs, unsigned int nInputs, CUdeviceptr pTemp,
                       size_t nTempSize, CUdeviceptr pOutput, size_t nOutputSize,
                       OptixTraversableHandle* pHandle, const OptixAccelEmitDesc* aEmitted,
                       unsigned int nEmitted);

OptixResult SbtRecordPackHeader(OptixProgramGroup group, void* pHeader);
OptixResult Launch(OptixPipeline pipeline, CUstream stream, CUdeviceptr pParams, size_t nParamsSize,
                   const OptixShaderBindingTable* pSbt, unsigned int nWidth, unsigned int nHeight,
                   unsigned int nDepth);
} // namespace OptixStandIn
