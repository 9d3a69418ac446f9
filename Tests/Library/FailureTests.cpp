// Failing platform calls: the code and message each one produces, and that nothing leaks on any path.
#include "StandInTest.h"
#include "TraceCall.h"

#include <functional>
#include <new>
#include <regex>
#include <set>
#include <string>

namespace
{
constexpr int c_iCudaInvalidValue = 1;       // "invalid argument"
constexpr int c_iCudaOutOfMemory = 2;        // "out of memory"
constexpr int c_iCudaInvalidDevice = 101;    // "invalid device ordinal"
constexpr int c_iOptixInvalidValue = 7001;   // OPTIX_ERROR_INVALID_VALUE
constexpr int c_iOptixLaunchFailure = 7050;  // OPTIX_ERROR_LAUNCH_FAILURE
constexpr int c_iOptixInvalidInput = 7200;   // OPTIX_ERROR_INVALID_INPUT
constexpr int c_iOptixUnsupportedAbi = 7801; // OPTIX_ERROR_UNSUPPORTED_ABI_VERSION

std::string Escaped(const std::string& s)
{
    static const std::regex c_cSpecial(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(s, c_cSpecial, R"(\$&)");
}

// "CUDA call (<call> ) failed with error: '<text>' (<file>:<line>)\n"
std::regex CudaMessage(const std::string& sCall, const std::string& sErrorText)
{
    return std::regex("CUDA call \\(" + Escaped(sCall) + " \\) failed with error: '" + Escaped(sErrorText) +
                      "' \\([^\n]+:[0-9]+\\)\n");
}

// The message of an OptiX step that returns its failure.
std::regex OptixMessage(const std::string& sCall, const std::string& sName)
{
    return std::regex("Optix call \"" + Escaped(sCall) + "\" failed\\.\nError Name: " + Escaped(sName) +
                      "\nDescription: [^\n]+\n");
}

// The message of an OptiX compile or link step that failed without writing a log: it quotes the empty log
// instead of the error's name.
std::regex EmptyLogMessage(const std::string& sCall)
{
    return std::regex("Optix call '" + Escaped(sCall) + "' failed: [^\n]+:[0-9]+\nLog:\n\n");
}

// The call a failure message quotes, whatever its form; empty when it quotes none.
std::string QuotedCall(const std::string& sMessage)
{
    static const std::regex c_cQuoted(
        "^(?:CUDA call \\(([^\n]*) \\) failed with error: |Optix call \"([^\n]*)\" "
        "failed\\.\n|Optix call '([^\n]*)' failed: )");
    std::smatch cMatch;
    if (!std::regex_search(sMessage, cMatch, c_cQuoted))
        return {};
    return cMatch[1].matched ? cMatch[1] : cMatch[2].matched ? cMatch[2] : cMatch[3];
}

// clang-format off
const std::string c_sMissGroupCreateCall = "optixProgramGroupCreate( context.get(), &miss_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &miss_prog_group_raw )";
const std::string c_sModuleCreateCall = "optixModuleCreate( context.get(), &module_compile_options, &pipeline_compile_options, bAllHits ? iRun == (uint8_t)0 ? c_sOptixTriangleCountHits2 : c_sOptixTriangleAllHits2 : bIndices ? bFirstHitOnly ? c_sOptixTriangleOneHit2 : c_sOptixTriangleTwoHits4 : bFirstHitOnly ? c_sOptixTriangleOneHitDistance1 : c_sOptixTriangleTwoHitsDistance2, inputSize, LOG, &LOG_SIZE, &module_raw)";
// clang-format on

class FailureTest : public StandInTest
{
protected:
    // A small scene that takes one chunk and one batch, with origins and per-ray distances so that every
    // upload runs.
    TraceRequest Request() const
    {
        TraceRequest c(m_cSoup, m_cRays);
        c.bDistances = true;
        return c;
    }
    static void Fault(const char* sFunction, std::uint64_t nCall, int iCode)
    {
        RayTracingCpu::InjectFault(sFunction, nCall, iCode);
    }

private:
    TestReference::TriangleSoup m_cSoup = TestReference::MakeRandomSoup(24, 21);
    TestReference::RaySet m_cRays = []
    {
        TestReference::RaySet c = TestReference::MakeRaysInside(48, 22, 1.0f);
        TestReference::SetRandomDistances(c, 23, 3.0f);
        return c;
    }();
};
} // namespace

TEST_F(FailureTest, DeviceSetUpFailuresLeaveAsTheThrownMessageAndStreamCreationAsBadAlloc)
{
    struct Case
    {
        const char* sFunction; // fault injected on its first call; null: ask for GPU 3 instead
        int iCode;
        std::string sCall, sErrorText;
    };
    const Case aCases[] = {
        {nullptr, 0, "cudaSetDevice(iGpuId)", "invalid device ordinal"},
        {"cudaSetDevice", c_iCudaInvalidDevice, "cudaSetDevice(iGpuId)", "invalid device ordinal"},
        {"cudaFree", c_iCudaOutOfMemory, "cudaFree(0)", "out of memory"},
        {"cudaMemGetInfo", c_iCudaOutOfMemory,
         "cudaMemGetInfo(nFreeGPUMemory == 0 ? &nFreeGPUMemory : &nTemp, &nTotalGPUMemory)", "out of memory"},
        {"cudaGetDeviceProperties", c_iCudaInvalidValue, "cudaGetDeviceProperties(&prop, iGpuId)",
         "invalid argument"},
        {"cudaDeviceGetAttribute", c_iCudaInvalidValue,
         "cudaDeviceGetAttribute(&iCudaDevAttrMemoryPoolsSupported, cudaDevAttrMemoryPoolsSupported, iGpuId)",
         "invalid argument"},
    };
    for (const Case& cCase : aCases)
    {
        SCOPED_TRACE(cCase.sCall);
        RayTracingCpu::ClearFaults();
        RayTracingCpu::ResetCallCounts();
        TraceRequest cRequest = Request();
        if (cCase.sFunction)
            Fault(cCase.sFunction, 1, cCase.iCode);
        else
            cRequest.iGpuId = 3;
        try
        {
            RunTrace(TraceMode::NearestIndex, cRequest);
            ADD_FAILURE() << "device set-up failure did not leave RayTracing";
        }
        catch (const std::string& sMessage)
        {
            EXPECT_TRUE(std::regex_match(sMessage, CudaMessage(cCase.sCall, cCase.sErrorText))) << sMessage;
        }
        EXPECT_EQ(RayTracingCpu::CallCount("cudaStreamCreate"), 0u);
        ExpectNothingLeaked();
    }
    Fault("cudaStreamCreate", 1, c_iCudaOutOfMemory);
    EXPECT_THROW(RunTrace(TraceMode::BothIndices, Request()), std::bad_alloc);
    ExpectNothingLeaked();
}

TEST_F(FailureTest, OptixThatCannotBeLoadedIsReportedByTheLoadersOwnNames)
{
    struct Case
    {
        std::function<void()> fnBreak;
        std::string sName, sDescription;
    };
    const Case aCases[] = {
        {[] { RayTracingCpu::SetOptixLibrary("libdoesnotexist.so"); }, "OPTIX_ERROR_LIBRARY_NOT_FOUND",
         "Library not found"},
        {[] { RayTracingCpu::SetOptixLibrary("libc.so.6"); }, "OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND",
         "Entry symbol not found"},
        {[] { Fault("optixQueryFunctionTable", 1, c_iOptixUnsupportedAbi); },
         "OPTIX_ERROR_UNSUPPORTED_ABI_VERSION", "Unsupported ABI version"},
    };
    for (const Case& cCase : aCases)
    {
        cCase.fnBreak();
        const TraceOutcome c = RunTrace(TraceMode::NearestIndex, Request());
        EXPECT_EQ(c.eResult, Failure);
        EXPECT_EQ(c.sError, "Optix call \"optixInit\" failed.\nError Name: " + cCase.sName +
                                "\nDescription: " + cCase.sDescription + "\n");
        ExpectNothingLeaked();
        // The next call loads OptiX afresh.
        RayTracingCpu::SetOptixLibrary("");
        RayTracingCpu::ClearFaults();
        EXPECT_EQ(RunTrace(TraceMode::NearestIndex, Request()).eResult, Success) << cCase.sName;
    }
}

// Forms of message the sweep below does not pin down: each mode's launch name, the diagnostics context, logs
// that stay empty, and which of several failures is reported.
TEST_F(FailureTest, FailuresAlongTheCallGiveTheirCodeAndMessage)
{
    struct Case
    {
        const char* sWhat;
        TraceMode eMode;
        std::function<void(TraceRequest&)> fnBreak;
        std::regex cMessage;
    };
    auto Faults = [](std::vector<std::tuple<const char*, std::uint64_t, int>> aFaults)
    {
        return [=](TraceRequest&)
        {
            for (const auto& [sFunction, nCall, iCode] : aFaults)
                Fault(sFunction, nCall, iCode);
        };
    };
    auto Launch = Faults({{"optixLaunch", 1, c_iOptixLaunchFailure}});
    const std::string sLaunchFailure = "OPTIX_ERROR_LAUNCH_FAILURE";
    const Case aCases[] = {
        {"launch", TraceMode::NearestIndex, Launch, OptixMessage("optixLaunch2", sLaunchFailure)},
        {"launch", TraceMode::BothIndices, Launch, OptixMessage("optixLaunch4", sLaunchFailure)},
        {"launch", TraceMode::NearestDistance, Launch, OptixMessage("optixLaunchDistance1", sLaunchFailure)},
        {"launch", TraceMode::BothDistances, Launch, OptixMessage("optixLaunchDistance2", sLaunchFailure)},
        {"launch", TraceMode::HitCount, Launch, OptixMessage("optixLaunchCountHits2", sLaunchFailure)},
        {"collecting launch", TraceMode::AllHits, Faults({{"optixLaunch", 2, c_iOptixLaunchFailure}}),
         OptixMessage("optixLaunchAllHits2", sLaunchFailure)},
        {"context with diagnostics", TraceMode::NearestIndex,
         [](TraceRequest& r)
         {
             r.bDiagnostics = true;
             Fault("optixDeviceContextCreate", 1, c_iOptixInvalidValue);
         },
         OptixMessage("optixDeviceContextCreateWithDiagnostics", "OPTIX_ERROR_INVALID_VALUE")},
        {"module compile", TraceMode::AllHits, Faults({{"optixModuleCreate", 1, c_iOptixInvalidInput}}),
         EmptyLogMessage(c_sModuleCreateCall)},
        {"program group after a module compile that wrote a log", TraceMode::NearestIndex,
         Faults({{"optixProgramGroupCreate", 2, c_iOptixInvalidValue}}),
         EmptyLogMessage(c_sMissGroupCreateCall)},
        {"two releases fail: the first released is reported", TraceMode::NearestIndex,
         Faults({{"optixModuleDestroy", 1, c_iOptixInvalidValue},
                 {"optixPipelineDestroy", 1, c_iOptixInvalidValue}}),
         OptixMessage("optixPipelineDestroy(pipeline)", "OPTIX_ERROR_INVALID_VALUE")},
        {"a release failing after a launch failure keeps the launch failure", TraceMode::BothIndices,
         Faults(
             {{"optixLaunch", 1, c_iOptixLaunchFailure}, {"optixPipelineDestroy", 1, c_iOptixInvalidValue}}),
         OptixMessage("optixLaunch4", sLaunchFailure)},
    };
    for (const Case& cCase : aCases)
    {
        SCOPED_TRACE(std::string(cCase.sWhat) + ", " + TraceModeName(cCase.eMode));
        RayTracingCpu::ClearFaults();
        TraceRequest cRequest = Request();
        cCase.fnBreak(cRequest);
        const TraceOutcome c = RunTrace(cCase.eMode, cRequest);
        EXPECT_EQ(c.eResult, Failure);
        EXPECT_TRUE(std::regex_match(c.sError, cCase.cMessage)) << c.sError;
        EXPECT_TRUE(cRequest.bDiagnostics || c.sLog.empty()) << c.sLog;
        ExpectNothingLeaked();
    }
}

TEST_F(FailureTest, ReleaseFailureAfterTheCountingRunStopsBeforeCollecting)
{
    Fault("optixPipelineDestroy", 1, c_iOptixInvalidValue);
    const TraceOutcome c = RunTrace(TraceMode::AllHits, Request());
    EXPECT_EQ(c.eResult, Failure);
    EXPECT_TRUE(std::regex_match(c.sError,
                                 OptixMessage("optixPipelineDestroy(pipeline)", "OPTIX_ERROR_INVALID_VALUE")))
        << c.sError;
    EXPECT_EQ(RayTracingCpu::CallCount("optixModuleCreate"), 1u) << "the collecting run must not start";
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 1u);
    ExpectNothingLeaked();
}

// Every call of every platform function that can fail during a trace is made to fail in turn. Each failure
// must end the call with a code and a message (or OutOfMemory without one for an allocation), never leave
// RayTracing as an exception, and never leak. The messages must quote the call sites as written.
class FaultSweepTest : public FailureTest, public ::testing::WithParamInterface<std::tuple<TraceMode, bool>>
{
};

TEST_P(FaultSweepTest, EveryFailingCallEndsCleanly)
{
    const auto [eMode, bPools] = GetParam();
    Configure([&](RayTracingCpu::DeviceConfig& c) { c.bMemoryPools = bPools; });
    const TraceRequest cRequest = Request();
    // clang-format off
    const std::string aFunctions[] = {
        "cudaMallocAsync", "cudaMalloc", "cudaFreeAsync", "cudaFree", "cudaMemcpyAsync", "cudaMemcpy",
        "cudaStreamSynchronize", "cudaGetDeviceProperties", "cudaDeviceGetAttribute", "optixDeviceContextCreate",
        "optixDeviceContextGetProperty", "optixModuleCreate", "optixProgramGroupCreate",
        "optixProgramGroupGetStackSize", "optixPipelineCreate", "optixPipelineSetStackSize",
        "optixAccelComputeMemoryUsage", "optixAccelBuild", "optixSbtRecordPackHeader", "optixLaunch",
        "optixPipelineDestroy", "optixProgramGroupDestroy", "optixModuleDestroy", "optixDeviceContextDestroy"};
    // clang-format on
    auto Code = [](const std::string& s)
    {
        return s.rfind("cudaMalloc", 0) == 0 ? c_iCudaOutOfMemory
               : s.rfind("cuda", 0) == 0     ? c_iCudaInvalidValue
               : s == "optixLaunch"          ? c_iOptixLaunchFailure
                                             : c_iOptixInvalidValue;
    };
    RayTracingCpu::ResetCallCounts();
    ASSERT_EQ(RunTrace(eMode, cRequest).eResult, Success);
    std::vector<std::uint64_t> aCleanCounts;
    for (const std::string& sFunction : aFunctions)
        aCleanCounts.push_back(RayTracingCpu::CallCount(sFunction));

    std::set<std::string> aQuotedCalls;
    for (std::size_t iFunction = 0; iFunction < std::size(aFunctions); ++iFunction)
    {
        const std::string& sFunction = aFunctions[iFunction];
        // Their first calls belong to device set-up, tested on their own; a failed release of memory may go
        // unnoticed.
        const bool bSetUp = sFunction == "cudaFree" || sFunction == "cudaGetDeviceProperties" ||
                            sFunction == "cudaDeviceGetAttribute";
        const bool bReleaseMayBeIgnored = sFunction == "cudaFree" || sFunction == "cudaFreeAsync";
        for (std::uint64_t nCall = bSetUp ? 2 : 1; nCall <= aCleanCounts[iFunction]; ++nCall)
        {
            SCOPED_TRACE(sFunction + " call " + std::to_string(nCall));
            RayTracingCpu::ClearFaults();
            RayTracingCpu::InjectFault(sFunction, nCall, Code(sFunction));
            const std::uint64_t nBytesBefore = RayTracingCpu::LiveDeviceBytes();
            const std::uint64_t nObjectsBefore = RayTracingCpu::LiveOptixObjects();
            TraceOutcome c;
            try
            {
                c = RunTrace(eMode, cRequest);
            }
            catch (...)
            {
                ADD_FAILURE() << "an exception left RayTracing";
                continue;
            }
            EXPECT_TRUE(c.eResult != Success || bReleaseMayBeIgnored) << "the failure went unnoticed";
            if (c.eResult == Failure)
            {
                EXPECT_NE(c.sError, "");
                aQuotedCalls.insert(QuotedCall(c.sError));
            }
            else // only a failed allocation may give OutOfMemory, without a message
                EXPECT_TRUE((c.eResult == Success || c.eResult == OutOfMemory) && c.sError.empty())
                    << c.sError;
            EXPECT_EQ(c.sLog, "");
            EXPECT_EQ(RayTracingCpu::LiveOptixObjects(), nObjectsBefore) << "OptiX objects leaked";
            if (!bReleaseMayBeIgnored)
                EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), nBytesBefore) << "device memory leaked";
        }
    }

    // clang-format off
    std::vector<std::string> aExpectedCalls = {
        bPools ? "cudaMallocAsync(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T), m_stream)" : "cudaMalloc(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T))",
        bPools ? "cudaFreeAsync(m_pDevicePtr, m_stream)" : "cudaFree(m_pDevicePtr)",
        "cudaGetDeviceProperties(&prop, iGpuId)",
        "cudaDeviceGetAttribute(&nMaxThreadsPerMultiProcessor, cudaDevAttrMaxThreadsPerMultiProcessor, iGpuId)",
        "cudaMemcpyAsync(d_vertices.data(), reinterpret_cast<const float3*>(pTriangles) + (size_t)3 * iStart, (size_t)3 * (iEnd - iStart) * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream())",
        "cudaMemcpyAsync(d_ray_directions.data(), reinterpret_cast<const float3*>(pDirection) + iBatchStart, (size_t)nProcessRays * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream())",
        "cudaMemcpyAsync(d_ray_origins.data(), reinterpret_cast<const float3*>(pOrigin) + iBatchStart, (size_t)nProcessRays * sizeof(float3), cudaMemcpyHostToDevice, cStream.GetStream())",
        "cudaMemcpyAsync(d_ray_distances.data(), pDistance + iBatchStart, (size_t)nProcessRays * sizeof(*pDistance), cudaMemcpyHostToDevice, cStream.GetStream())",
        "cudaStreamSynchronize(cStream.GetStream())",
        "optixDeviceContextCreate",
        "optixDeviceContextGetProperty(ctx, OPTIX_DEVICE_PROPERTY_LIMIT_MAX_PRIMITIVES_PER_GAS, &nMaxPrimitivesPerGas, sizeof(nMaxPrimitivesPerGas))",
        "optixAccelComputeMemoryUsage(ctx, &opts, &in, 1, &sizes)",
        "optixAccelComputeMemoryUsage",
        "optixAccelBuild",
        c_sModuleCreateCall,
        "optixProgramGroupCreate( context.get(), &raygen_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &raygen_prog_group_raw )",
        c_sMissGroupCreateCall,
        "optixProgramGroupCreate( context.get(), &hitgroup_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &hitgroup_prog_group_raw )",
        "optixPipelineCreate( context.get(), &pipeline_compile_options, &pipeline_link_options, program_groups, _countof(program_groups), LOG, &LOG_SIZE, &pipeline_raw )",
        "optixUtilAccumulateStackSizes",
        "optixPipelineSetStackSize",
        "optixSbtRecordPackHeader",
        "optixPipelineDestroy(pipeline)",
        "optixProgramGroupDestroy(hitgroup_prog_group)",
        "optixProgramGroupDestroy(miss_prog_group)",
        "optixProgramGroupDestroy(raygen_prog_group)",
        "optixModuleDestroy(module)",
        "optixDeviceContextDestroy(context)",
    };
    if (eMode == TraceMode::AllHits)
        aExpectedCalls.insert(aExpectedCalls.end(), {
            "optixLaunchCountHits2",
            "optixLaunchAllHits2",
            "cudaMemcpyAsync(d_ray_count_hits.data(), cRayTracingResults.pCountHits + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyHostToDevice, cStream.GetStream())",
            "cudaMemcpyAsync(d_ray_count_hits.data() + nProcessRays, cRayTracingResults.pCountHits + (iBatchEnd - (size_t)1), sizeof(*cRayTracingResults.pCountHits), cudaMemcpyHostToDevice, cStream.GetStream())",
            "cudaMemcpyAsync(d_ray_all_hits.data(), cRayTracingResults.cAllHits.data() + aStarts[iBatch - (size_t)1], n * sizeof(decltype(cRayTracingResults.cAllHits)::value_type), cudaMemcpyHostToDevice, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pCountHits + iBatchStart, d_ray_count_hits.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.cAllHits.data() + aStarts[iBatch - (size_t)1], d_ray_all_hits.data(), n * sizeof(decltype(cRayTracingResults.cAllHits)::value_type), cudaMemcpyDeviceToHost, cStream.GetStream())",
        });
    else
        aExpectedCalls.insert(aExpectedCalls.end(), {
            "optixLaunch4",
            "cudaMemcpyAsync(cRayTracingResults.pFirstIndex + iBatchStart, d_ray_first_index.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstIndex), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pFirstHit + iBatchStart, d_ray_first_hit.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstHit), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pLastIndex + iBatchStart, d_ray_last_index.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastIndex), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pLastHit + iBatchStart, d_ray_last_hit.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastHit), cudaMemcpyDeviceToHost, cStream.GetStream())",
        });
    // clang-format on
    for (const std::string& sCall : aExpectedCalls)
        EXPECT_EQ(aQuotedCalls.count(sCall), 1u) << "no failure quoted the call\n  " << sCall;
}

INSTANTIATE_TEST_SUITE_P(Library, FaultSweepTest,
                         ::testing::Combine(::testing::Values(TraceMode::BothIndices, TraceMode::AllHits),
                                            ::testing::Bool()),
                         [](const auto& cInfo)
                         {
                             return std::string(TraceModeName(std::get<0>(cInfo.param))) +
                                    (std::get<1>(cInfo.param) ? "_Pools" : "_NoPools");
                         });
