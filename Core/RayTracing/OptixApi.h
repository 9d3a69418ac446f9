// Host side of our OptiX 9.0 declaration: the ABI 105 function table the driver hands out, the entry
// point that fills it, call wrappers with OptiX's names and the stack-size helpers.
#pragma once

#include "OptixTypes.h"

extern "C"
{

    // Slots this library never calls keep their place in the table but no signature.
    typedef void (*OptixUnusedEntry)();

    // 52 slots in the order of ABI 105. Slots 38-39 and 42-43 are new in 9.0: a table laid out for 8.x
    // would call the wrong functions.
    struct OptixFunctionTable
    {
        const char* (*optixGetErrorName)(OptixResult result);
        const char* (*optixGetErrorString)(OptixResult result);
        OptixResult (*optixDeviceContextCreate)(CUcontext fromContext,
                                                const OptixDeviceContextOptions* options,
                                                OptixDeviceContext* context);
        OptixResult (*optixDeviceContextDestroy)(OptixDeviceContext context);
        OptixResult (*optixDeviceContextGetProperty)(OptixDeviceContext context, OptixDeviceProperty property,
                                                     void* value, size_t sizeInBytes);
        OptixUnusedEntry optixDeviceContextSetLogCallback;
        OptixUnusedEntry optixDeviceContextSetCacheEnabled;
        OptixUnusedEntry optixDeviceContextSetCacheLocation;
        OptixUnusedEntry optixDeviceContextSetCacheDatabaseSizes;
        OptixUnusedEntry optixDeviceContextGetCacheEnabled;
        OptixUnusedEntry optixDeviceContextGetCacheLocation;
        OptixUnusedEntry optixDeviceContextGetCacheDatabaseSizes;
        OptixResult (*optixModuleCreate)(OptixDeviceContext context,
                                         const OptixModuleCompileOptions* moduleCompileOptions,
                                         const OptixPipelineCompileOptions* pipelineCompileOptions,
                                         const char* input, size_t inputSize, char* logString,
                                         size_t* logStringSize, OptixModule* module);
        OptixUnusedEntry optixModuleCreateWithTasks;
        OptixUnusedEntry optixModuleGetCompilationState;
        OptixResult (*optixModuleDestroy)(OptixModule module);
        OptixUnusedEntry optixBuiltinISModuleGet;
        OptixUnusedEntry optixTaskExecute;
        OptixResult (*optixProgramGroupCreate)(OptixDeviceContext context,
                                               const OptixProgramGroupDesc* programDescriptions,
                                               unsigned int numProgramGroups,
                                               const OptixProgramGroupOptions* options, char* logString,
                                               size_t* logStringSize, OptixProgramGroup* programGroups);
        OptixResult (*optixProgramGroupDestroy)(OptixProgramGroup programGroup);
        OptixResult (*optixProgramGroupGetStackSize)(OptixProgramGroup programGroup,
                                                     OptixStackSizes* stackSizes, OptixPipeline pipeline);
        OptixResult (*optixPipelineCreate)(OptixDeviceContext context,
                                           const OptixPipelineCompileOptions* pipelineCompileOptions,
                                           const OptixPipelineLinkOptions* pipelineLinkOptions,
                                           const OptixProgramGroup* programGroups,
                                           unsigned int numProgramGroups, char* logString,
                                           size_t* logStringSize, OptixPipeline* pipeline);
        OptixResult (*optixPipelineDestroy)(OptixPipeline pipeline);
        OptixResult (*optixPipelineSetStackSize)(OptixPipeline pipeline,
                                                 unsigned int directCallableStackSizeFromTraversal,
                                                 unsigned int directCallableStackSizeFromState,
                                                 unsigned int continuationStackSize,
                                                 unsigned int maxTraversableGraphDepth);
        OptixResult (*optixAccelComputeMemoryUsage)(OptixDeviceContext context,
                                                    const OptixAccelBuildOptions* accelOptions,
                                                    const OptixBuildInput* buildInputs,
                                                    unsigned int numBuildInputs,
                                                    OptixAccelBufferSizes* bufferSizes);
        OptixResult (*optixAccelBuild)(OptixDeviceContext context, CUstream stream,
                                       const OptixAccelBuildOptions* accelOptions,
                                       const OptixBuildInput* buildInputs, unsigned int numBuildInputs,
                                       CUdeviceptr tempBuffer, size_t tempBufferSizeInBytes,
                                       CUdeviceptr outputBuffer, size_t outputBufferSizeInBytes,
                                       OptixTraversableHandle* outputHandle,
                                       const OptixAccelEmitDesc* emittedProperties,
                                       unsigned int numEmittedProperties);
        OptixUnusedEntry optixAccelGetRelocationInfo;
        OptixUnusedEntry optixCheckRelocationCompatibility;
        OptixUnusedEntry optixAccelRelocate;
        OptixUnusedEntry optixAccelCompact;
        OptixUnusedEntry optixAccelEmitProperty;
        OptixUnusedEntry optixConvertPointerToTraversableHandle;
        OptixUnusedEntry optixOpacityMicromapArrayComputeMemoryUsage;
        OptixUnusedEntry optixOpacityMicromapArrayBuild;
        OptixUnusedEntry optixOpacityMicromapArrayGetRelocationInfo;
        OptixUnusedEntry optixOpacityMicromapArrayRelocate;
        OptixUnusedEntry optixDisplacementMicromapArrayComputeMemoryUsage;
        OptixUnusedEntry optixDisplacementMicromapArrayBuild;
        OptixUnusedEntry optixClusterAccelComputeMemoryUsage;
        OptixUnusedEntry optixClusterAccelBuild;
        OptixResult (*optixSbtRecordPackHeader)(OptixProgramGroup programGroup,
                                                void* sbtRecordHeaderHostPointer);
        OptixResult (*optixLaunch)(OptixPipeline pipeline, CUstream stream, CUdeviceptr pipelineParams,
                                   size_t pipelineParamsSize, const OptixShaderBindingTable* sbt,
                                   unsigned int width, unsigned int height, unsigned int depth);
        OptixUnusedEntry optixCoopVecMatrixConvert;
        OptixUnusedEntry optixCoopVecMatrixComputeSize;
        OptixUnusedEntry optixDenoiserCreate;
        OptixUnusedEntry optixDenoiserDestroy;
        OptixUnusedEntry optixDenoiserComputeMemoryResources;
        OptixUnusedEntry optixDenoiserSetup;
        OptixUnusedEntry optixDenoiserInvoke;
        OptixUnusedEntry optixDenoiserComputeIntensity;
        OptixUnusedEntry optixDenoiserComputeAverageColor;
        OptixUnusedEntry optixDenoiserCreateWithUserModel;
    };

    // The driver library's one exported symbol, "optixQueryFunctionTable".
    typedef OptixResult(OptixQueryFunctionTable_t)(int abiId, unsigned int numOptions,
                                                   OptixQueryFunctionTableOptions* optionKeys,
                                                   const void** optionValues, void* functionTable,
                                                   size_t sizeOfTable);

} // extern "C"

#define RT_OPTIX_SLOT(name, index)                                                                           \
    static_assert(offsetof(OptixFunctionTable, name) == 8 * (index), #name " must be slot " #index)
static_assert(sizeof(OptixFunctionTable) == 416 && alignof(OptixFunctionTable) == 8, "ABI 105 has 52 slots");
RT_OPTIX_SLOT(optixGetErrorName, 0);
RT_OPTIX_SLOT(optixGetErrorString, 1);
RT_OPTIX_SLOT(optixDeviceContextCreate, 2);
RT_OPTIX_SLOT(optixDeviceContextDestroy, 3);
RT_OPTIX_SLOT(optixDeviceContextGetProperty, 4);
RT_OPTIX_SLOT(optixModuleCreate, 12);
RT_OPTIX_SLOT(optixModuleDestroy, 15);
RT_OPTIX_SLOT(optixProgramGroupCreate, 18);
RT_OPTIX_SLOT(optixProgramGroupDestroy, 19);
RT_OPTIX_SLOT(optixProgramGroupGetStackSize, 20);
RT_OPTIX_SLOT(optixPipelineCreate, 21);
RT_OPTIX_SLOT(optixPipelineDestroy, 22);
RT_OPTIX_SLOT(optixPipelineSetStackSize, 23);
RT_OPTIX_SLOT(optixAccelComputeMemoryUsage, 24);
RT_OPTIX_SLOT(optixAccelBuild, 25);
RT_OPTIX_SLOT(optixClusterAccelComputeMemoryUsage, 38);
RT_OPTIX_SLOT(optixClusterAccelBuild, 39);
RT_OPTIX_SLOT(optixSbtRecordPackHeader, 40);
RT_OPTIX_SLOT(optixLaunch, 41);
RT_OPTIX_SLOT(optixCoopVecMatrixConvert, 42);
RT_OPTIX_SLOT(optixDenoiserCreate, 44);
RT_OPTIX_SLOT(optixDenoiserCreateWithUserModel, 51);

// Filled by the library's loader.
extern OptixFunctionTable g_optixFunctionTable;

// Defined by the library's loader: load the driver library and fill g_optixFunctionTable.
OptixResult optixInit();
// Forward to the driver's table, or answer from the loader's fallback texts while it is not filled.
const char* optixGetErrorName(OptixResult result);
const char* optixGetErrorString(OptixResult result);

inline OptixResult optixDeviceContextCreate(CUcontext fromContext, const OptixDeviceContextOptions* options,
                                            OptixDeviceContext* context)
{
    return g_optixFunctionTable.optixDeviceContextCreate(fromContext, options, context);
}

inline OptixResult optixDeviceContextDestroy(OptixDeviceContext context)
{
    return g_optixFunctionTable.optixDeviceContextDestroy(context);
}

inline OptixResult optixDeviceContextGetProperty(OptixDeviceContext context, OptixDeviceProperty property,
                                                 void* value, size_t sizeInBytes)
{
    return g_optixFunctionTable.optixDeviceContextGetProperty(context, property, value, sizeInBytes);
}

inline OptixResult optixModuleCreate(OptixDeviceContext context,
                                     const OptixModuleCompileOptions* moduleCompileOptions,
                                     const OptixPipelineCompileOptions* pipelineCompileOptions,
                                     const char* input, size_t inputSize, char* logString,
                                     size_t* logStringSize, OptixModule* module)
{
    return g_optixFunctionTable.optixModuleCreate(context, moduleCompileOptions, pipelineCompileOptions,
                                                  input, inputSize, logString, logStringSize, module);
}

inline OptixResult optixModuleDestroy(OptixModule module)
{
    return g_optixFunctionTable.optixModuleDestroy(module);
}

inline OptixResult optixProgramGroupCreate(OptixDeviceContext context,
                                           const OptixProgramGroupDesc* programDescriptions,
                                           unsigned int numProgramGroups,
                                           const OptixProgramGroupOptions* options, char* logString,
                                           size_t* logStringSize, OptixProgramGroup* programGroups)
{
    return g_optixFunctionTable.optixProgramGroupCreate(context, programDescriptions, numProgramGroups,
                                                        options, logString, logStringSize, programGroups);
}

inline OptixResult optixProgramGroupGetStackSize(OptixProgramGroup programGroup, OptixStackSizes* stackSizes,
                                                 OptixPipeline pipeline)
{
    return g_optixFunctionTable.optixProgramGroupGetStackSize(programGroup, stackSizes, pipeline);
}

inline OptixResult optixProgramGroupDestroy(OptixProgramGroup programGroup)
{
    return g_optixFunctionTable.optixProgramGroupDestroy(programGroup);
}

inline OptixResult optixPipelineCreate(OptixDeviceContext context,
                                       const OptixPipelineCompileOptions* pipelineCompileOptions,
                                       const OptixPipelineLinkOptions* pipelineLinkOptions,
                                       const OptixProgramGroup* programGroups, unsigned int numProgramGroups,
                                       char* logString, size_t* logStringSize, OptixPipeline* pipeline)
{
    return g_optixFunctionTable.optixPipelineCreate(context, pipelineCompileOptions, pipelineLinkOptions,
                                                    programGroups, numProgramGroups, logString, logStringSize,
                                                    pipeline);
}

inline OptixResult optixPipelineSetStackSize(OptixPipeline pipeline,
                                             unsigned int directCallableStackSizeFromTraversal,
                                             unsigned int directCallableStackSizeFromState,
                                             unsigned int continuationStackSize,
                                             unsigned int maxTraversableGraphDepth)
{
    return g_optixFunctionTable.optixPipelineSetStackSize(pipeline, directCallableStackSizeFromTraversal,
                                                          directCallableStackSizeFromState,
                                                          continuationStackSize, maxTraversableGraphDepth);
}

inline OptixResult optixPipelineDestroy(OptixPipeline pipeline)
{
    return g_optixFunctionTable.optixPipelineDestroy(pipeline);
}

inline OptixResult optixAccelComputeMemoryUsage(OptixDeviceContext context,
                                                const OptixAccelBuildOptions* accelOptions,
                                                const OptixBuildInput* buildInputs,
                                                unsigned int numBuildInputs,
                                                OptixAccelBufferSizes* bufferSizes)
{
    return g_optixFunctionTable.optixAccelComputeMemoryUsage(context, accelOptions, buildInputs,
                                                             numBuildInputs, bufferSizes);
}

inline OptixResult
optixAccelBuild(OptixDeviceContext context, CUstream stream, const OptixAccelBuildOptions* accelOptions,
                const OptixBuildInput* buildInputs, unsigned int numBuildInputs, CUdeviceptr tempBuffer,
                size_t tempBufferSizeInBytes, CUdeviceptr outputBuffer, size_t outputBufferSizeInBytes,
                OptixTraversableHandle* outputHandle, const OptixAccelEmitDesc* emittedProperties,
                unsigned int numEmittedProperties)
{
    return g_optixFunctionTable.optixAccelBuild(
        context, stream, accelOptions, buildInputs, numBuildInputs, tempBuffer, tempBufferSizeInBytes,
        outputBuffer, outputBufferSizeInBytes, outputHandle, emittedProperties, numEmittedProperties);
}

inline OptixResult optixSbtRecordPackHeader(OptixProgramGroup programGroup, void* sbtRecordHeaderHostPointer)
{
    return g_optixFunctionTable.optixSbtRecordPackHeader(programGroup, sbtRecordHeaderHostPointer);
}

inline OptixResult optixLaunch(OptixPipeline pipeline, CUstream stream, CUdeviceptr pipelineParams,
                               size_t pipelineParamsSize, const OptixShaderBindingTable* sbt,
                               unsigned int width, unsigned int height, unsigned int depth)
{
    return g_optixFunctionTable.optixLaunch(pipeline, stream, pipelineParams, pipelineParamsSize, sbt, width,
                                            height, depth);
}

// Field-wise maximum of the group's stack sizes into *stackSizes (zeroed by the caller before the first
// group).
inline OptixResult optixUtilAccumulateStackSizes(OptixProgramGroup programGroup, OptixStackSizes* stackSizes,
                                                 OptixPipeline pipeline)
{
    if (!stackSizes)
        return OPTIX_ERROR_INVALID_VALUE;
    OptixStackSizes local{};
    const OptixResult result = optixProgramGroupGetStackSize(programGroup, &local, pipeline);
    if (result != OPTIX_SUCCESS)
        return result;
    auto accumulate = [](unsigned int& nInto, unsigned int nFrom) { nInto = nInto > nFrom ? nInto : nFrom; };
    accumulate(stackSizes->cssRG, local.cssRG);
    accumulate(stackSizes->cssMS, local.cssMS);
    accumulate(stackSizes->cssCH, local.cssCH);
    accumulate(stackSizes->cssAH, local.cssAH);
    accumulate(stackSizes->cssIS, local.cssIS);
    accumulate(stackSizes->cssCC, local.cssCC);
    accumulate(stackSizes->dssDC, local.dssDC);
    return OPTIX_SUCCESS;
}

// Stack sizes of a pipeline from its accumulated group sizes and call depths (32-bit unsigned arithmetic).
inline OptixResult optixUtilComputeStackSizes(const OptixStackSizes* stackSizes, unsigned int maxTraceDepth,
                                              unsigned int maxCCDepth, unsigned int maxDCDepth,
                                              unsigned int* directCallableStackSizeFromTraversal,
                                              unsigned int* directCallableStackSizeFromState,
                                              unsigned int* continuationStackSize)
{
    if (!stackSizes)
        return OPTIX_ERROR_INVALID_VALUE;
    auto maximum = [](unsigned int a, unsigned int b) { return a > b ? a : b; };
    auto minimum = [](unsigned int a, unsigned int b) { return a < b ? a : b; };
    const unsigned int cssCCTree = maxCCDepth * stackSizes->cssCC;
    const unsigned int cssCHOrMSPlusCCTree = maximum(stackSizes->cssCH, stackSizes->cssMS) + cssCCTree;
    if (directCallableStackSizeFromTraversal)
        *directCallableStackSizeFromTraversal = maxDCDepth * stackSizes->dssDC;
    if (directCallableStackSizeFromState)
        *directCallableStackSizeFromState = maxDCDepth * stackSizes->dssDC;
    if (continuationStackSize)
        *continuationStackSize =
            stackSizes->cssRG + cssCCTree + (maximum(maxTraceDepth, 1u) - 1u) * cssCHOrMSPlusCCTree +
            minimum(maxTraceDepth, 1u) * maximum(cssCHOrMSPlusCCTree, stackSizes->cssIS + stackSizes->cssAH);
    return OPTIX_SUCCESS;
}
