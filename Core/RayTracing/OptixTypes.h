// Our declaration of the OptiX 9.0 interface (ABI 105): the types, enums, constants and structures this
// library uses, with OptiX's public names. Usable from host code and from nvcc device code.
// Every size and offset below is pinned by a static_assert, so a layout slip fails the build, not a launch.
#pragma once

#include <stddef.h>

#define OPTIX_VERSION 90000
#define OPTIX_ABI_VERSION 105

// CUDA's own handle types: the same tags as cuda.h's (and the CPU stand-in's), so cudaStream_t converts.
typedef unsigned long long CUdeviceptr;
typedef struct CUctx_st* CUcontext;
typedef struct CUstream_st* CUstream;

typedef struct OptixDeviceContext_t* OptixDeviceContext;
typedef struct OptixModule_t* OptixModule;
typedef struct OptixProgramGroup_t* OptixProgramGroup;
typedef struct OptixPipeline_t* OptixPipeline;
typedef unsigned long long OptixTraversableHandle;
typedef unsigned int OptixVisibilityMask;

typedef void (*OptixLogCallback)(unsigned int level, const char* tag, const char* message, void* cbdata);

// Enums carry a fixed underlying type, as their 4-byte ABI does: any value a caller passes is a valid value
// to check, not undefined behaviour.
enum OptixResult : int
{
    OPTIX_SUCCESS = 0,
    OPTIX_ERROR_INVALID_VALUE = 7001,
    OPTIX_ERROR_HOST_OUT_OF_MEMORY = 7002,
    OPTIX_ERROR_INVALID_OPERATION = 7003,
    OPTIX_ERROR_FILE_IO_ERROR = 7004,
    OPTIX_ERROR_INVALID_FILE_FORMAT = 7005,
    OPTIX_ERROR_DISK_CACHE_INVALID_PATH = 7010,
    OPTIX_ERROR_DISK_CACHE_PERMISSION_ERROR = 7011,
    OPTIX_ERROR_DISK_CACHE_DATABASE_ERROR = 7012,
    OPTIX_ERROR_DISK_CACHE_INVALID_DATA = 7013,
    OPTIX_ERROR_LAUNCH_FAILURE = 7050,
    OPTIX_ERROR_INVALID_DEVICE_CONTEXT = 7051,
    OPTIX_ERROR_CUDA_NOT_INITIALIZED = 7052,
    OPTIX_ERROR_VALIDATION_FAILURE = 7053,
    OPTIX_ERROR_INVALID_INPUT = 7200,
    OPTIX_ERROR_INVALID_LAUNCH_PARAMETER = 7201,
    OPTIX_ERROR_INVALID_PAYLOAD_ACCESS = 7202,
    OPTIX_ERROR_INVALID_ATTRIBUTE_ACCESS = 7203,
    OPTIX_ERROR_INVALID_FUNCTION_USE = 7204,
    OPTIX_ERROR_INVALID_FUNCTION_ARGUMENTS = 7205,
    OPTIX_ERROR_PIPELINE_OUT_OF_CONSTANT_MEMORY = 7250,
    OPTIX_ERROR_PIPELINE_LINK_ERROR = 7251,
    OPTIX_ERROR_ILLEGAL_DURING_TASK_EXECUTE = 7270,
    OPTIX_ERROR_INTERNAL_COMPILER_ERROR = 7299,
    OPTIX_ERROR_DENOISER_MODEL_NOT_SET = 7300,
    OPTIX_ERROR_DENOISER_NOT_INITIALIZED = 7301,
    OPTIX_ERROR_NOT_COMPATIBLE = 7400,
    OPTIX_ERROR_PAYLOAD_TYPE_MISMATCH = 7500,
    OPTIX_ERROR_PAYLOAD_TYPE_RESOLUTION_FAILED = 7501,
    OPTIX_ERROR_PAYLOAD_TYPE_ID_INVALID = 7502,
    OPTIX_ERROR_NOT_SUPPORTED = 7800,
    OPTIX_ERROR_UNSUPPORTED_ABI_VERSION = 7801,
    OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH = 7802,
    OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS = 7803,
    OPTIX_ERROR_LIBRARY_NOT_FOUND = 7804,
    OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND = 7805,
    OPTIX_ERROR_LIBRARY_UNLOAD_FAILURE = 7806,
    OPTIX_ERROR_DEVICE_OUT_OF_MEMORY = 7807,
    OPTIX_ERROR_INVALID_POINTER = 7808,
    OPTIX_ERROR_CUDA_ERROR = 7900,
    OPTIX_ERROR_INTERNAL_ERROR = 7990,
    OPTIX_ERROR_UNKNOWN = 7999
};

enum OptixDeviceProperty : int
{
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_TRACE_DEPTH = 0x2001,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_TRAVERSABLE_GRAPH_DEPTH = 0x2002,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS = 0x2003,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_INSTANCES_PER_IAS = 0x2004,
    OPTIX_DEVICE_PROPERTY_RTCORE_VERSION = 0x2005,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_INSTANCE_ID = 0x2006,
    OPTIX_DEVICE_PROPERTY_LIMIT_NUM_BITS_INSTANCE_VISIBILITY_MASK = 0x2007,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_SBT_RECORDS_PER_GAS = 0x2008,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_SBT_OFFSET = 0x2009,
    OPTIX_DEVICE_PROPERTY_SHADER_EXECUTION_REORDERING = 0x200A,
    OPTIX_DEVICE_PROPERTY_COOP_VEC = 0x200B,
    OPTIX_DEVICE_PROPERTY_CLUSTER_ACCEL = 0x2020,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_CLUSTER_VERTICES = 0x2021,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_CLUSTER_TRIANGLES = 0x2022,
    OPTIX_DEVICE_PROPERTY_LIMIT_MAX_STRUCTURED_GRID_RESOLUTION = 0x2023
};

// Holds 0xFFFFFFFF, hence unsigned.
enum OptixDeviceContextValidationMode : unsigned int
{
    OPTIX_DEVICE_CONTEXT_VALIDATION_MODE_OFF = 0,
    OPTIX_DEVICE_CONTEXT_VALIDATION_MODE_ALL = 0xFFFFFFFFu
};

enum OptixCompileOptimizationLevel : int
{
    OPTIX_COMPILE_OPTIMIZATION_DEFAULT = 0,
    OPTIX_COMPILE_OPTIMIZATION_LEVEL_0 = 0x2340,
    OPTIX_COMPILE_OPTIMIZATION_LEVEL_1 = 0x2341,
    OPTIX_COMPILE_OPTIMIZATION_LEVEL_2 = 0x2342,
    OPTIX_COMPILE_OPTIMIZATION_LEVEL_3 = 0x2343
};

enum OptixCompileDebugLevel : int
{
    OPTIX_COMPILE_DEBUG_LEVEL_DEFAULT = 0,
    OPTIX_COMPILE_DEBUG_LEVEL_NONE = 0x2350,
    OPTIX_COMPILE_DEBUG_LEVEL_MINIMAL = 0x2351,
    OPTIX_COMPILE_DEBUG_LEVEL_FULL = 0x2352,
    OPTIX_COMPILE_DEBUG_LEVEL_MODERATE = 0x2353
};

enum OptixTraversableGraphFlags : int
{
    OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_ANY = 0,
    OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_GAS = 1,
    OPTIX_TRAVERSABLE_GRAPH_FLAG_ALLOW_SINGLE_LEVEL_INSTANCING = 2
};

enum OptixExceptionFlags : int
{
    OPTIX_EXCEPTION_FLAG_NONE = 0,
    OPTIX_EXCEPTION_FLAG_STACK_OVERFLOW = 1,
    OPTIX_EXCEPTION_FLAG_TRACE_DEPTH = 2,
    OPTIX_EXCEPTION_FLAG_USER = 4
};

enum OptixPrimitiveTypeFlags : unsigned int
{
    OPTIX_PRIMITIVE_TYPE_FLAGS_CUSTOM = 0x1,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_QUADRATIC_BSPLINE = 0x2,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_CUBIC_BSPLINE = 0x4,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_LINEAR = 0x8,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_CATMULLROM = 0x10,
    OPTIX_PRIMITIVE_TYPE_FLAGS_FLAT_QUADRATIC_BSPLINE = 0x20,
    OPTIX_PRIMITIVE_TYPE_FLAGS_SPHERE = 0x40,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_CUBIC_BEZIER = 0x80,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_QUADRATIC_BSPLINE_ROCAPS = 0x100,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_CUBIC_BSPLINE_ROCAPS = 0x200,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_CATMULLROM_ROCAPS = 0x400,
    OPTIX_PRIMITIVE_TYPE_FLAGS_ROUND_CUBIC_BEZIER_ROCAPS = 0x800,
    OPTIX_PRIMITIVE_TYPE_FLAGS_DISPLACED_MICROMESH_TRIANGLE = 0x40000000,
    OPTIX_PRIMITIVE_TYPE_FLAGS_TRIANGLE = 0x80000000u
};

enum OptixProgramGroupKind : int
{
    OPTIX_PROGRAM_GROUP_KIND_RAYGEN = 0x2421,
    OPTIX_PROGRAM_GROUP_KIND_MISS = 0x2422,
    OPTIX_PROGRAM_GROUP_KIND_EXCEPTION = 0x2423,
    OPTIX_PROGRAM_GROUP_KIND_HITGROUP = 0x2424,
    OPTIX_PROGRAM_GROUP_KIND_CALLABLES = 0x2425
};

enum OptixProgramGroupFlags : int
{
    OPTIX_PROGRAM_GROUP_FLAGS_NONE = 0
};

enum OptixBuildFlags : int
{
    OPTIX_BUILD_FLAG_NONE = 0,
    OPTIX_BUILD_FLAG_ALLOW_UPDATE = 0x1,
    OPTIX_BUILD_FLAG_ALLOW_COMPACTION = 0x2,
    OPTIX_BUILD_FLAG_PREFER_FAST_TRACE = 0x4,
    OPTIX_BUILD_FLAG_PREFER_FAST_BUILD = 0x8,
    OPTIX_BUILD_FLAG_ALLOW_RANDOM_VERTEX_ACCESS = 0x10,
    OPTIX_BUILD_FLAG_ALLOW_RANDOM_INSTANCE_ACCESS = 0x20,
    OPTIX_BUILD_FLAG_ALLOW_OPACITY_MICROMAP_UPDATE = 0x40,
    OPTIX_BUILD_FLAG_ALLOW_DISABLE_OPACITY_MICROMAPS = 0x80
};

enum OptixBuildOperation : int
{
    OPTIX_BUILD_OPERATION_BUILD = 0x2161,
    OPTIX_BUILD_OPERATION_UPDATE = 0x2162
};

enum OptixMotionFlags : int
{
    OPTIX_MOTION_FLAG_NONE = 0,
    OPTIX_MOTION_FLAG_START_VANISH = 1,
    OPTIX_MOTION_FLAG_END_VANISH = 2
};

enum OptixBuildInputType : int
{
    OPTIX_BUILD_INPUT_TYPE_TRIANGLES = 0x2141,
    OPTIX_BUILD_INPUT_TYPE_CUSTOM_PRIMITIVES = 0x2142,
    OPTIX_BUILD_INPUT_TYPE_INSTANCES = 0x2143,
    OPTIX_BUILD_INPUT_TYPE_INSTANCE_POINTERS = 0x2144,
    OPTIX_BUILD_INPUT_TYPE_CURVES = 0x2145,
    OPTIX_BUILD_INPUT_TYPE_SPHERES = 0x2146
};

enum OptixVertexFormat : int
{
    OPTIX_VERTEX_FORMAT_NONE = 0,
    OPTIX_VERTEX_FORMAT_FLOAT3 = 0x2121,
    OPTIX_VERTEX_FORMAT_FLOAT2 = 0x2122,
    OPTIX_VERTEX_FORMAT_HALF3 = 0x2123,
    OPTIX_VERTEX_FORMAT_HALF2 = 0x2124,
    OPTIX_VERTEX_FORMAT_SNORM16_3 = 0x2125,
    OPTIX_VERTEX_FORMAT_SNORM16_2 = 0x2126
};

enum OptixIndicesFormat : int
{
    OPTIX_INDICES_FORMAT_NONE = 0,
    OPTIX_INDICES_FORMAT_UNSIGNED_BYTE3 = 0x2101,
    OPTIX_INDICES_FORMAT_UNSIGNED_SHORT3 = 0x2102,
    OPTIX_INDICES_FORMAT_UNSIGNED_INT3 = 0x2103
};

enum OptixTransformFormat : int
{
    OPTIX_TRANSFORM_FORMAT_NONE = 0,
    OPTIX_TRANSFORM_FORMAT_MATRIX_FLOAT12 = 0x21E1
};

enum OptixGeometryFlags : int
{
    OPTIX_GEOMETRY_FLAG_NONE = 0,
    OPTIX_GEOMETRY_FLAG_DISABLE_ANYHIT = 1,
    OPTIX_GEOMETRY_FLAG_REQUIRE_SINGLE_ANYHIT_CALL = 2,
    OPTIX_GEOMETRY_FLAG_DISABLE_TRIANGLE_FACE_CULLING = 4
};

enum OptixAccelPropertyType : int
{
    OPTIX_PROPERTY_TYPE_COMPACTED_SIZE = 0x2181,
    OPTIX_PROPERTY_TYPE_AABBS = 0x2182
};

enum OptixRayFlags : int
{
    OPTIX_RAY_FLAG_NONE = 0,
    OPTIX_RAY_FLAG_DISABLE_ANYHIT = 0x1,
    OPTIX_RAY_FLAG_ENFORCE_ANYHIT = 0x2,
    OPTIX_RAY_FLAG_TERMINATE_ON_FIRST_HIT = 0x4,
    OPTIX_RAY_FLAG_DISABLE_CLOSESTHIT = 0x8,
    OPTIX_RAY_FLAG_CULL_BACK_FACING_TRIANGLES = 0x10,
    OPTIX_RAY_FLAG_CULL_FRONT_FACING_TRIANGLES = 0x20,
    OPTIX_RAY_FLAG_CULL_DISABLED_ANYHIT = 0x40,
    OPTIX_RAY_FLAG_CULL_ENFORCED_ANYHIT = 0x80,
    OPTIX_RAY_FLAG_FORCE_OPACITY_MICROMAP_2_STATE = 0x400
};

enum OptixPayloadTypeID : int
{
    OPTIX_PAYLOAD_TYPE_DEFAULT = 0,
    OPTIX_PAYLOAD_TYPE_ID_0 = 1 << 0,
    OPTIX_PAYLOAD_TYPE_ID_1 = 1 << 1,
    OPTIX_PAYLOAD_TYPE_ID_2 = 1 << 2,
    OPTIX_PAYLOAD_TYPE_ID_3 = 1 << 3,
    OPTIX_PAYLOAD_TYPE_ID_4 = 1 << 4,
    OPTIX_PAYLOAD_TYPE_ID_5 = 1 << 5,
    OPTIX_PAYLOAD_TYPE_ID_6 = 1 << 6,
    OPTIX_PAYLOAD_TYPE_ID_7 = 1 << 7
};

enum OptixQueryFunctionTableOptions : int
{
    OPTIX_QUERY_FUNCTION_TABLE_OPTION_DUMMY = 0
};

#define OPTIX_SBT_RECORD_HEADER_SIZE ((size_t)32)
#define OPTIX_SBT_RECORD_ALIGNMENT 16ull
#define OPTIX_ACCEL_BUFFER_BYTE_ALIGNMENT 128ull
#define OPTIX_GEOMETRY_TRANSFORM_BYTE_ALIGNMENT 16ull
#define OPTIX_COMPILE_DEFAULT_MAX_REGISTER_COUNT 0
#define OPTIX_COMPILE_DEFAULT_MAX_PAYLOAD_TYPE_COUNT 8
#define OPTIX_COMPILE_DEFAULT_MAX_PAYLOAD_VALUE_COUNT 32

struct OptixDeviceContextOptions
{
    OptixLogCallback logCallbackFunction;
    void* logCallbackData;
    int logCallbackLevel;
    OptixDeviceContextValidationMode validationMode;
};

struct OptixModuleCompileBoundValueEntry
{
    size_t pipelineParamOffsetInBytes;
    size_t sizeInBytes;
    const void* boundValuePtr;
    const char* annotation;
};

struct OptixPayloadType
{
    unsigned int numPayloadValues;
    const unsigned int* payloadSemantics;
};

struct OptixModuleCompileOptions
{
    int maxRegisterCount;
    OptixCompileOptimizationLevel optLevel;
    OptixCompileDebugLevel debugLevel;
    const OptixModuleCompileBoundValueEntry* boundValues;
    unsigned int numBoundValues;
    unsigned int numPayloadTypes;
    const OptixPayloadType* payloadTypes;
};

struct OptixPipelineCompileOptions
{
    int usesMotionBlur;
    unsigned int traversableGraphFlags;
    int numPayloadValues;
    int numAttributeValues;
    unsigned int exceptionFlags;
    const char* pipelineLaunchParamsVariableName;
    unsigned int usesPrimitiveTypeFlags;
    int allowOpacityMicromaps;
    int allowClusteredGeometry;
};

struct OptixProgramGroupOptions
{
    const OptixPayloadType* payloadType;
};

struct OptixProgramGroupSingleModule
{
    OptixModule module;
    const char* entryFunctionName;
};

struct OptixProgramGroupHitgroup
{
    OptixModule moduleCH;
    const char* entryFunctionNameCH;
    OptixModule moduleAH;
    const char* entryFunctionNameAH;
    OptixModule moduleIS;
    const char* entryFunctionNameIS;
};

struct OptixProgramGroupCallables
{
    OptixModule moduleDC;
    const char* entryFunctionNameDC;
    OptixModule moduleCC;
    const char* entryFunctionNameCC;
};

struct OptixProgramGroupDesc
{
    OptixProgramGroupKind kind;
    unsigned int flags;
    union
    {
        OptixProgramGroupSingleModule raygen;
        OptixProgramGroupSingleModule miss;
        OptixProgramGroupSingleModule exception;
        OptixProgramGroupCallables callables;
        OptixProgramGroupHitgroup hitgroup;
    };
};

struct OptixPipelineLinkOptions
{
    unsigned int maxTraceDepth;
};

struct OptixStackSizes
{
    unsigned int cssRG;
    unsigned int cssMS;
    unsigned int cssCH;
    unsigned int cssAH;
    unsigned int cssIS;
    unsigned int cssCC;
    unsigned int dssDC;
};

struct OptixMotionOptions
{
    unsigned short numKeys;
    unsigned short flags;
    float timeBegin;
    float timeEnd;
};

struct OptixAccelBuildOptions
{
    unsigned int buildFlags;
    OptixBuildOperation operation;
    OptixMotionOptions motionOptions;
};

// Micromaps are never used here: their sub-records are kept as zeroed blobs of the right size.
struct alignas(8) OptixBuildInputOpacityMicromap
{
    unsigned char aUnused[48];
};

struct alignas(8) OptixBuildInputDisplacementMicromap
{
    unsigned char aUnused[96];
};

struct OptixBuildInputTriangleArray
{
    const CUdeviceptr* vertexBuffers;
    unsigned int numVertices;
    OptixVertexFormat vertexFormat;
    unsigned int vertexStrideInBytes;
    CUdeviceptr indexBuffer;
    unsigned int numIndexTriplets;
    OptixIndicesFormat indexFormat;
    unsigned int indexStrideInBytes;
    CUdeviceptr preTransform;
    const unsigned int* flags;
    unsigned int numSbtRecords;
    CUdeviceptr sbtIndexOffsetBuffer;
    unsigned int sbtIndexOffsetSizeInBytes;
    unsigned int sbtIndexOffsetStrideInBytes;
    unsigned int primitiveIndexOffset;
    OptixTransformFormat transformFormat;
    OptixBuildInputOpacityMicromap opacityMicromap;
    OptixBuildInputDisplacementMicromap displacementMicromap;
};

struct OptixBuildInput
{
    OptixBuildInputType type;
    union
    {
        OptixBuildInputTriangleArray triangleArray;
        char pad[1024];
    };
};

struct OptixAccelBufferSizes
{
    size_t outputSizeInBytes;
    size_t tempSizeInBytes;
    size_t tempUpdateSizeInBytes;
};

struct OptixAccelEmitDesc
{
    CUdeviceptr result;
    OptixAccelPropertyType type;
};

struct OptixShaderBindingTable
{
    CUdeviceptr raygenRecord;
    CUdeviceptr exceptionRecord;
    CUdeviceptr missRecordBase;
    unsigned int missRecordStrideInBytes;
    unsigned int missRecordCount;
    CUdeviceptr hitgroupRecordBase;
    unsigned int hitgroupRecordStrideInBytes;
    unsigned int hitgroupRecordCount;
    CUdeviceptr callablesRecordBase;
    unsigned int callablesRecordStrideInBytes;
    unsigned int callablesRecordCount;
};

// The layout of ABI 105, as measured on x86-64 Linux.
#define RT_OPTIX_LAYOUT(type, field, offset)                                                                 \
    static_assert(offsetof(type, field) == (offset), #type "::" #field " must sit at byte " #offset)
#define RT_OPTIX_SIZE(type, size, align)                                                                     \
    static_assert(sizeof(type) == (size) && alignof(type) == (align), #type " must be " #size " bytes")

static_assert(sizeof(CUdeviceptr) == 8 && sizeof(OptixTraversableHandle) == 8, "64-bit handles");
static_assert(sizeof(OptixResult) == 4 && sizeof(OptixDeviceProperty) == 4 && sizeof(OptixGeometryFlags) == 4,
              "enums are 4-byte integers");
static_assert(sizeof(OptixDeviceContextValidationMode) == 4 && sizeof(OptixPrimitiveTypeFlags) == 4,
              "enums are 4-byte integers");
RT_OPTIX_SIZE(OptixDeviceContextOptions, 24, 8);
RT_OPTIX_LAYOUT(OptixDeviceContextOptions, logCallbackData, 8);
RT_OPTIX_LAYOUT(OptixDeviceContextOptions, logCallbackLevel, 16);
RT_OPTIX_LAYOUT(OptixDeviceContextOptions, validationMode, 20);
RT_OPTIX_SIZE(OptixModuleCompileBoundValueEntry, 32, 8);
RT_OPTIX_SIZE(OptixPayloadType, 16, 8);
RT_OPTIX_LAYOUT(OptixPayloadType, payloadSemantics, 8);
RT_OPTIX_SIZE(OptixModuleCompileOptions, 40, 8);
RT_OPTIX_LAYOUT(OptixModuleCompileOptions, optLevel, 4);
RT_OPTIX_LAYOUT(OptixModuleCompileOptions, debugLevel, 8);
RT_OPTIX_LAYOUT(OptixModuleCompileOptions, boundValues, 16);
RT_OPTIX_LAYOUT(OptixModuleCompileOptions, numBoundValues, 24);
RT_OPTIX_LAYOUT(OptixModuleCompileOptions, numPayloadTypes, 28);
RT_OPTIX_LAYOUT(OptixModuleCompileOptions, payloadTypes, 32);
RT_OPTIX_SIZE(OptixPipelineCompileOptions, 48, 8);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, traversableGraphFlags, 4);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, numPayloadValues, 8);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, numAttributeValues, 12);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, exceptionFlags, 16);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, pipelineLaunchParamsVariableName, 24);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, usesPrimitiveTypeFlags, 32);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, allowOpacityMicromaps, 36);
RT_OPTIX_LAYOUT(OptixPipelineCompileOptions, allowClusteredGeometry, 40);
RT_OPTIX_SIZE(OptixProgramGroupOptions, 8, 8);
RT_OPTIX_SIZE(OptixProgramGroupSingleModule, 16, 8);
RT_OPTIX_SIZE(OptixProgramGroupHitgroup, 48, 8);
RT_OPTIX_LAYOUT(OptixProgramGroupHitgroup, moduleAH, 16);
RT_OPTIX_LAYOUT(OptixProgramGroupHitgroup, entryFunctionNameIS, 40);
RT_OPTIX_SIZE(OptixProgramGroupCallables, 32, 8);
RT_OPTIX_SIZE(OptixProgramGroupDesc, 56, 8);
RT_OPTIX_LAYOUT(OptixProgramGroupDesc, flags, 4);
RT_OPTIX_LAYOUT(OptixProgramGroupDesc, raygen, 8);
RT_OPTIX_LAYOUT(OptixProgramGroupDesc, miss, 8);
RT_OPTIX_LAYOUT(OptixProgramGroupDesc, hitgroup, 8);
RT_OPTIX_SIZE(OptixPipelineLinkOptions, 4, 4);
RT_OPTIX_SIZE(OptixStackSizes, 28, 4);
RT_OPTIX_LAYOUT(OptixStackSizes, cssAH, 12);
RT_OPTIX_LAYOUT(OptixStackSizes, dssDC, 24);
RT_OPTIX_SIZE(OptixMotionOptions, 12, 4);
RT_OPTIX_SIZE(OptixAccelBuildOptions, 20, 4);
RT_OPTIX_LAYOUT(OptixAccelBuildOptions, operation, 4);
RT_OPTIX_LAYOUT(OptixAccelBuildOptions, motionOptions, 8);
RT_OPTIX_SIZE(OptixBuildInputTriangleArray, 240, 8);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, numVertices, 8);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, vertexFormat, 12);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, vertexStrideInBytes, 16);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, indexBuffer, 24);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, numIndexTriplets, 32);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, indexFormat, 36);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, indexStrideInBytes, 40);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, preTransform, 48);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, flags, 56);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, numSbtRecords, 64);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, sbtIndexOffsetBuffer, 72);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, sbtIndexOffsetSizeInBytes, 80);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, sbtIndexOffsetStrideInBytes, 84);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, primitiveIndexOffset, 88);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, transformFormat, 92);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, opacityMicromap, 96);
RT_OPTIX_LAYOUT(OptixBuildInputTriangleArray, displacementMicromap, 144);
RT_OPTIX_SIZE(OptixBuildInput, 1032, 8);
RT_OPTIX_LAYOUT(OptixBuildInput, triangleArray, 8);
RT_OPTIX_SIZE(OptixAccelBufferSizes, 24, 8);
RT_OPTIX_LAYOUT(OptixAccelBufferSizes, tempSizeInBytes, 8);
RT_OPTIX_LAYOUT(OptixAccelBufferSizes, tempUpdateSizeInBytes, 16);
RT_OPTIX_SIZE(OptixAccelEmitDesc, 16, 8);
RT_OPTIX_LAYOUT(OptixAccelEmitDesc, type, 8);
RT_OPTIX_SIZE(OptixShaderBindingTable, 64, 8);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, exceptionRecord, 8);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, missRecordBase, 16);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, missRecordStrideInBytes, 24);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, missRecordCount, 28);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, hitgroupRecordBase, 32);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, hitgroupRecordStrideInBytes, 40);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, hitgroupRecordCount, 44);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, callablesRecordBase, 48);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, callablesRecordStrideInBytes, 56);
RT_OPTIX_LAYOUT(OptixShaderBindingTable, callablesRecordCount, 60);
