// Record headers and launches: a launch decodes its SBT records when it runs on the stream, then runs the
// ray-generation program over the launch indices on the worker threads.
#include "Api.h"
#include "ApiSupport.h"
#include "LaunchContext.h"

#include <cstdio>
#include <cstring>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "StandInStream.h"

namespace OptixStandIn
{
namespace
{
// What optixSbtRecordPackHeader writes: enough to find the group in the launching pipeline.
struct RecordHeader
{
    std::uint64_t nMagic;
    std::uint64_t nSerial;
    std::uint32_t eKind;
    std::uint32_t uCheck;
    std::uint64_t nReserved;
};
static_assert(sizeof(RecordHeader) == OPTIX_SBT_RECORD_HEADER_SIZE, "a record header is 32 bytes");
constexpr std::uint64_t c_nHeaderMagic = 0x5244485842535452ull; // "RTSBXHDR"

std::uint32_t HeaderCheck(std::uint64_t nSerial, std::uint32_t eKind)
{
    return static_cast<std::uint32_t>(nSerial * 0x9E3779B97F4A7C15ull >> 32) ^ eKind;
}

// Everything a launch needs, copied when it is enqueued.
struct LaunchSetup
{
    OptixShaderBindingTable cSbt;
    std::vector<std::pair<std::uint64_t, ProgramSet>> aGroups;
    unsigned int nMaxTraceDepth;
    unsigned int nPayloadValues;
    unsigned int nWidth, nHeight, nDepth;
    std::shared_ptr<SceneStore> pScenes;
    std::shared_ptr<tbb::task_arena> pWorkers;
};

// The pipeline's program set that the header at pRecord names, if it is of the wanted kind.
const ProgramSet* DecodeRecord(const LaunchSetup& cSetup, CUdeviceptr pRecord, OptixProgramGroupKind eKind)
{
    RecordHeader cHeader;
    std::memcpy(&cHeader, reinterpret_cast<const void*>(pRecord), sizeof(cHeader));
    if (cHeader.nMagic != c_nHeaderMagic || cHeader.eKind != static_cast<std::uint32_t>(eKind) ||
        cHeader.uCheck != HeaderCheck(cHeader.nSerial, cHeader.eKind))
        return nullptr;
    for (const auto& [nSerial, cPrograms] : cSetup.aGroups)
        if (nSerial == cHeader.nSerial && cPrograms.eKind == eKind)
            return &cPrograms;
    return nullptr;
}

// Runs the launch now; returns the CUDA error it ended with (cudaSuccess when every program finished).
cudaError_t RunLaunch(const LaunchSetup& cSetup)
{
    static std::atomic<std::uint64_t> s_nLaunchSerial{0};
    OptixHost::LaunchContext cLaunch;
    cLaunch.nSerial = ++s_nLaunchSerial;
    cLaunch.nMaxTraceDepth = cSetup.nMaxTraceDepth;
    cLaunch.nPayloadValues = cSetup.nPayloadValues;
    cLaunch.pScenes = cSetup.pScenes;

    const OptixShaderBindingTable& cSbt = cSetup.cSbt;
    const ProgramSet* pRaygen = DecodeRecord(cSetup, cSbt.raygenRecord, OPTIX_PROGRAM_GROUP_KIND_RAYGEN);
    if (!pRaygen)
    {
        std::fprintf(stderr,
                     "optixLaunch: the ray-generation record's header names no ray-generation group of "
                     "the pipeline\n");
        return cudaErrorLaunchFailure;
    }
    const CUdeviceptr pRaygenData = cSbt.raygenRecord + OPTIX_SBT_RECORD_HEADER_SIZE;
    cLaunch.aMisses.resize(cSbt.missRecordCount);
    for (unsigned int i = 0; i < cSbt.missRecordCount; ++i)
    {
        const CUdeviceptr pRecord =
            cSbt.missRecordBase + static_cast<CUdeviceptr>(i) * cSbt.missRecordStrideInBytes;
        if (const ProgramSet* pPrograms = DecodeRecord(cSetup, pRecord, OPTIX_PROGRAM_GROUP_KIND_MISS))
            cLaunch.aMisses[i] = MissEntry{true, pPrograms->fnMiss, pRecord + OPTIX_SBT_RECORD_HEADER_SIZE};
    }
    cLaunch.aHitGroups.resize(cSbt.hitgroupRecordCount);
    for (unsigned int i = 0; i < cSbt.hitgroupRecordCount; ++i)
    {
        const CUdeviceptr pRecord =
            cSbt.hitgroupRecordBase + static_cast<CUdeviceptr>(i) * cSbt.hitgroupRecordStrideInBytes;
        if (const ProgramSet* pPrograms = DecodeRecord(cSetup, pRecord, OPTIX_PROGRAM_GROUP_KIND_HITGROUP))
            cLaunch.aHitGroups[i] = HitGroupEntry{true, pPrograms->fnClosestHit, pPrograms->fnAnyHit,
                                                  pRecord + OPTIX_SBT_RECORD_HEADER_SIZE};
    }

    const std::uint64_t nWidth = cSetup.nWidth;
    const std::uint64_t nPlane = nWidth * cSetup.nHeight;
    const std::uint64_t nLaunchSize = nPlane * cSetup.nDepth;
    const OptixHost::ProgramFunction fnRaygen = pRaygen->fnRaygen;
    auto runRange = [&](const tbb::blocked_range<std::uint64_t>& cRange)
    {
        OptixHost::ProgramState cState{};
        cState.pSbtData = pRaygenData;
        cState.pLaunch = &cLaunch;
        OptixHost::ProgramState* pPrevious = OptixHost::t_pProgramState;
        OptixHost::t_pProgramState = &cState;
        for (std::uint64_t i = cRange.begin(); i != cRange.end(); ++i)
        {
            if (cLaunch.bFailed.load(std::memory_order_relaxed))
                break;
            cState.launchIndex =
                uint3{static_cast<unsigned int>(i % nWidth), static_cast<unsigned int>(i % nPlane / nWidth),
                      static_cast<unsigned int>(i / nPlane)};
            fnRaygen();
        }
        OptixHost::t_pProgramState = pPrevious;
    };
    cSetup.pWorkers->execute(
        [&]() { tbb::parallel_for(tbb::blocked_range<std::uint64_t>(0, nLaunchSize, 64), runRange); });

    if (!cLaunch.bFailed.load())
        return cudaSuccess;
    std::lock_guard<std::mutex> lock(cLaunch.mutex);
    std::fprintf(stderr, "%s\n", cLaunch.sFailure.c_str());
    return cLaunch.eError;
}

bool IsAligned(CUdeviceptr p)
{
    return p % OPTIX_SBT_RECORD_ALIGNMENT == 0;
}
} // namespace

OptixResult SbtRecordPackHeader(OptixProgramGroup group, void* pHeader)
{
    return GuardedCall("optixSbtRecordPackHeader",
                       [&]()
                       {
                           if (!IsLive(group) || !pHeader)
                               return OPTIX_ERROR_INVALID_VALUE;
                           RecordHeader cHeader{};
                           cHeader.nMagic = c_nHeaderMagic;
                           cHeader.nSerial = group->nSerial;
                           cHeader.eKind = static_cast<std::uint32_t>(group->cPrograms.eKind);
                           cHeader.uCheck = HeaderCheck(cHeader.nSerial, cHeader.eKind);
                           std::memcpy(pHeader, &cHeader, sizeof(cHeader));
                           return OPTIX_SUCCESS;
                       });
}

OptixResult Launch(OptixPipeline pipeline, CUstream stream, CUdeviceptr pParams, size_t nParamsSize,
                   const OptixShaderBindingTable* pSbt, unsigned int nWidth, unsigned int nHeight,
                   unsigned int nDepth)
{
    return GuardedCall(
        "optixLaunch",
        [&]()
        {
            if (!IsLive(pipeline))
                return OPTIX_ERROR_INVALID_VALUE;
            auto fail = [&](OptixResult result, const std::string& sError)
            { return Fail(pipeline->pContext, nullptr, result, "optixLaunch: " + sError); };
            if (!pSbt)
                return fail(OPTIX_ERROR_INVALID_VALUE, "the shader binding table is null");
            if (nParamsSize > 0)
                return fail(OPTIX_ERROR_INVALID_VALUE,
                            "pipelineParamsSize " + std::to_string(nParamsSize) +
                                " exceeds the launch parameters of the modules (none)");
            (void)pParams;
            if (pSbt->raygenRecord == 0 || !IsAligned(pSbt->raygenRecord))
                return fail(OPTIX_ERROR_INVALID_VALUE, "raygenRecord is null or not 16-byte aligned");
            if (!IsAligned(pSbt->exceptionRecord) || !IsAligned(pSbt->missRecordBase) ||
                !IsAligned(pSbt->missRecordStrideInBytes) || !IsAligned(pSbt->hitgroupRecordBase) ||
                !IsAligned(pSbt->hitgroupRecordStrideInBytes) || !IsAligned(pSbt->callablesRecordBase) ||
                !IsAligned(pSbt->callablesRecordStrideInBytes))
                return fail(OPTIX_ERROR_INVALID_VALUE, "SBT addresses and strides must be multiples of 16");
            if ((pSbt->missRecordCount > 0 && pSbt->missRecordBase == 0) ||
                (pSbt->hitgroupRecordCount > 0 && pSbt->hitgroupRecordBase == 0) ||
                (pSbt->callablesRecordBase == 0 && pSbt->callablesRecordCount != 0))
                return fail(OPTIX_ERROR_INVALID_VALUE, "an SBT record count is set without its base address");
            const std::uint64_t nLaunchSize = static_cast<std::uint64_t>(nWidth) * nHeight * nDepth;
            if (nLaunchSize > (1ull << 30))
                return fail(OPTIX_ERROR_INVALID_VALUE, "the launch size exceeds 2^30");
            if (nLaunchSize == 0)
                return OPTIX_SUCCESS;

            auto pSetup = std::make_shared<LaunchSetup>();
            pSetup->cSbt = *pSbt;
            pSetup->aGroups = pipeline->aGroups;
            pSetup->nMaxTraceDepth = pipeline->nMaxTraceDepth;
            pSetup->nPayloadValues = static_cast<unsigned int>(pipeline->cOptions.nPayloadValues);
            pSetup->nWidth = nWidth;
            pSetup->nHeight = nHeight;
            pSetup->nDepth = nDepth;
            pSetup->pScenes = pipeline->pContext->pScenes;
            pSetup->pWorkers = Driver::Get().Workers();
            if (!stream)
            {
                // The null stream runs the launch now, so its failure can be the call's result.
                return RunLaunch(*pSetup) == cudaSuccess ? OPTIX_SUCCESS : OPTIX_ERROR_LAUNCH_FAILURE;
            }
            stream->Enqueue(
                [pSetup, stream]()
                {
                    cudaError_t eError = cudaErrorLaunchFailure;
                    try
                    {
                        eError = RunLaunch(*pSetup);
                    }
                    catch (...)
                    {
                        std::fprintf(stderr, "optixLaunch: the launch failed on the host\n");
                    }
                    if (eError != cudaSuccess)
                        stream->Fail(eError);
                });
            return OPTIX_SUCCESS;
        });
}
} // namespace OptixStandIn
