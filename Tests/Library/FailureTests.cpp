// Failing platform calls: the code and message each one produces, and that nothing leaks on any path.
#include "StandInTest.h"
#include "TraceCall.h"

#include <functional>
#include <new>
#include <regex>
#include <set>
#include <string>

using TestReference::RaySet;
using TestReference::TriangleSoup;

namespace
{
constexpr int c_iCudaInvalidValue = 1;       // "invalid argument"
constexpr int c_iCudaOutOfMemory = 2;        // "out of memory"
constexpr int c_iCudaInvalidDevice = 101;    // "invalid device ordinal"
constexpr int c_iOptixInvalidValue = 7001;   // OPTIX_ERROR_INVALID_VALUE
constexpr int c_iOptixLaunchFailure = 7050;  // OPTIX_ERROR_LAUNCH_FAILURE
constexpr int c_iOptixInvalidInput = 7200;   // OPTIX_ERROR_INVALID_INPUT
constexpr int c_iOptixUnsupportedAbi = 7801; // OPTIX_ERROR_UNSUPPORTED_ABI_VERSION

std::string RegexEscape(const std::string& s)
{
    static const std::regex c_cSpecial(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(s, c_cSpecial, R"(\$&)");
}

// "CUDA call (<call> ) failed with error: '<text>' (<file>:<line>)\n"
std::regex CudaMessage(const std::string& sCall, const std::string& sErrorText)
{
    return std::regex("CUDA call \\(" + RegexEscape(sCall) + " \\) failed with error: '" +
                      RegexEscape(sErrorText) + "' \\([^\n]+:[0-9]+\\)\n");
}

// The message of an OptiX step that returns its failure.
std::regex ReturnedOptixMessage(const std::string& sCall, const std::string& sName)
{
    return std::regex("Optix call \"" + RegexEscape(sCall) +
                      "\" failed\\.\nError Name: " + RegexEscape(sName) + "\nDescription: [^\n]+\n");
}

// The message of an OptiX compile or link step that failed without writing a log: it quotes the log instead
// of the error's name, and the log is empty.
std::regex EmptyLogOptixMessage(const std::string& sCall)
{
    return std::regex("Optix call '" + RegexEscape(sCall) + "' failed: [^\n]+:[0-9]+\nLog:\n\n");
}

// clang-format off
const std::string c_sMissGroupCreateCall = "optixProgramGroupCreate( context.get(), &miss_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &miss_prog_group_raw )";
const std::string c_sModuleCreateCall = "optixModuleCreate( context.get(), &module_compile_options, &pipeline_compile_options, bAllHits ? iRun == (uint8_t)0 ? c_sOptixTriangleCountHits2 : c_sOptixTriangleAllHits2 : bIndices ? bFirstHitOnly ? c_sOptixTriangleOneHit2 : c_sOptixTriangleTwoHits4 : bFirstHitOnly ? c_sOptixTriangleOneHitDistance1 : c_sOptixTriangleTwoHitsDistance2, inputSize, LOG, &LOG_SIZE, &module_raw)";
const std::string c_sMallocAsyncCall = "cudaMallocAsync(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T), m_stream)";
const std::string c_sMallocCall = "cudaMalloc(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T))";
// clang-format on

// A small scene that takes one chunk and one batch, with origins and per-ray distances so that every upload
// runs.
struct SmallScene
{
    TriangleSoup cSoup = TestReference::MakeRandomSoup(24, 21);
    RaySet cRays = []
    {
        RaySet c = TestReference::MakeRaysInside(48, 22, 1.0f);
        TestReference::SetRandomDistances(c, 23, 3.0f);
        return c;
    }();

    TraceRequest Request() const
    {
        TraceRequest c(cSoup, cRays);
        c.bDistances = true;
        return c;
    }
};

class FailureTest : public StandInTest
{
protected:
    SmallScene m_cScene;
};

// Call quoted by a failure message, whatever its shape; empty when the message quotes none.
std::string QuotedCall(const std::string& sMessage)
{
    static const std::regex c_cCuda("^CUDA call \\(([^\n]*) \\) failed with error: ");
    static const std::regex c_cReturned("^Optix call \"([^\n]*)\" failed\\.\n");
    static const std::regex c_cThrown("^Optix call '([^\n]*)' failed: ");
    std::smatch cMatch;
    if (std::regex_search(sMessage, cMatch, c_cCuda) || std::regex_search(sMessage, cMatch, c_cReturned) ||
        std::regex_search(sMessage, cMatch, c_cThrown))
    {
        return cMatch[1];
    }
    return {};
}
} // namespace

TEST_F(FailureTest, DeviceSetUpFailuresLeaveAsTheThrownMessage)
{
    struct Case
    {
        const char* sFunction; // fault injected on its first call; null: ask for GPU 3 instead
        int iCode;
        std::string sCall;
        std::string sErrorText;
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
        TraceRequest cRequest = m_cScene.Request();
        if (cCase.sFunction)
        {
            RayTracingCpu::InjectFault(cCase.sFunction, 1, cCase.iCode);
        }
        else
        {
            cRequest.iGpuId = 3;
        }
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
}

TEST_F(FailureTest, StreamCreationFailureLeavesAsBadAlloc)
{
    RayTracingCpu::InjectFault("cudaStreamCreate", 1, c_iCudaOutOfMemory);
    EXPECT_THROW(RunTrace(TraceMode::BothIndices, m_cScene.Request()), std::bad_alloc);
    ExpectNothingLeaked();
}

TEST_F(FailureTest, OptixThatCannotBeLoadedIsReportedByTheLoadersOwnNames)
{
    struct Case
    {
        std::function<void()> fnBreak;
        const char* sName;
        const char* sDescription;
    };
    const Case aCases[] = {
        {[] { RayTracingCpu::SetOptixLibrary("libdoesnotexist.so"); }, "OPTIX_ERROR_LIBRARY_NOT_FOUND",
         "Library not found"},
        {[] { RayTracingCpu::SetOptixLibrary("libc.so.6"); }, "OPTIX_ERROR_ENTRY_SYMBOL_NOT_FOUND",
         "Entry symbol not found"},
        {[] { RayTracingCpu::InjectFault("optixQueryFunctionTable", 1, c_iOptixUnsupportedAbi); },
         "OPTIX_ERROR_UNSUPPORTED_ABI_VERSION", "Unsupported ABI version"},
    };
    for (const Case& cCase : aCases)
    {
        SCOPED_TRACE(cCase.sName);
        cCase.fnBreak();
        const TraceOutcome c = RunTrace(TraceMode::NearestIndex, m_cScene.Request());
        EXPECT_EQ(c.eResult, Failure);
        EXPECT_EQ(c.sError, std::string("Optix call \"optixInit\" failed.\nError Name: ") + cCase.sName +
                                "\nDescription: " + cCase.sDescription + "\n");
        ExpectNothingLeaked();

        // The next call loads OptiX afresh.
        RayTracingCpu::SetOptixLibrary("");
        RayTracingCpu::ClearFaults();
        EXPECT_EQ(RunTrace(TraceMode::NearestIndex, m_cScene.Request()).eResult, Success);
    }
}

TEST_F(FailureTest, FailuresAlongTheCallGiveTheirCodeAndMessage)
{
    struct Case
    {
        const char* sWhat;
        TraceMode eMode;
        std::function<void(TraceRequest&)> fnBreak;
        RayTracingErrorType eResult;
        std::regex cMessage;
    };
    auto Fault = [](const char* sFunction, std::uint64_t nCall, int iCode)
    { return [=](TraceRequest&) { RayTracingCpu::InjectFault(sFunction, nCall, iCode); }; };
    const std::string sLaunchFailure = "OPTIX_ERROR_LAUNCH_FAILURE";
    std::vector<Case> aCases = {
        {"launch, nearest index", TraceMode::NearestIndex, Fault("optixLaunch", 1, c_iOptixLaunchFailure),
         Failure, ReturnedOptixMessage("optixLaunch2", sLaunchFailure)},
        {"launch, both indices", TraceMode::BothIndices, Fault("optixLaunch", 1, c_iOptixLaunchFailure),
         Failure, ReturnedOptixMessage("optixLaunch4", sLaunchFailure)},
        {"launch, nearest distance", TraceMode::NearestDistance,
         Fault("optixLaunch", 1, c_iOptixLaunchFailure), Failure,
         ReturnedOptixMessage("optixLaunchDistance1", sLaunchFailure)},
        {"launch, both distances", TraceMode::BothDistances, Fault("optixLaunch", 1, c_iOptixLaunchFailure),
         Failure, ReturnedOptixMessage("optixLaunchDistance2", sLaunchFailure)},
        {"launch, counting", TraceMode::HitCount, Fault("optixLaunch", 1, c_iOptixLaunchFailure), Failure,
         ReturnedOptixMessage("optixLaunchCountHits2", sLaunchFailure)},
        {"launch, collecting run", TraceMode::AllHits, Fault("optixLaunch", 2, c_iOptixLaunchFailure),
         Failure, ReturnedOptixMessage("optixLaunchAllHits2", sLaunchFailure)},
        {"record header", TraceMode::BothIndices, Fault("optixSbtRecordPackHeader", 1, c_iOptixInvalidValue),
         Failure, ReturnedOptixMessage("optixSbtRecordPackHeader", "OPTIX_ERROR_INVALID_VALUE")},
        {"acceleration structure build", TraceMode::HitCount,
         Fault("optixAccelBuild", 1, c_iOptixInvalidValue), Failure,
         ReturnedOptixMessage("optixAccelBuild", "OPTIX_ERROR_INVALID_VALUE")},
        {"context", TraceMode::NearestIndex, Fault("optixDeviceContextCreate", 1, c_iOptixInvalidValue),
         Failure, ReturnedOptixMessage("optixDeviceContextCreate", "OPTIX_ERROR_INVALID_VALUE")},
        {"context with diagnostics", TraceMode::NearestIndex,
         [](TraceRequest& r)
         {
             r.bDiagnostics = true;
             RayTracingCpu::InjectFault("optixDeviceContextCreate", 1, c_iOptixInvalidValue);
         },
         Failure,
         ReturnedOptixMessage("optixDeviceContextCreateWithDiagnostics", "OPTIX_ERROR_INVALID_VALUE")},
        {"module compile", TraceMode::AllHits, Fault("optixModuleCreate", 1, c_iOptixInvalidInput), Failure,
         EmptyLogOptixMessage(c_sModuleCreateCall)},
        {"program group after a module compile that wrote a log", TraceMode::NearestIndex,
         Fault("optixProgramGroupCreate", 2, c_iOptixInvalidValue), Failure,
         EmptyLogOptixMessage(c_sMissGroupCreateCall)},
        {"pipeline release after a successful run", TraceMode::BothDistances,
         Fault("optixPipelineDestroy", 1, c_iOptixInvalidValue), Failure,
         ReturnedOptixMessage("optixPipelineDestroy(pipeline)", "OPTIX_ERROR_INVALID_VALUE")},
        {"context release after a successful run", TraceMode::NearestDistance,
         Fault("optixDeviceContextDestroy", 1, c_iOptixInvalidValue), Failure,
         ReturnedOptixMessage("optixDeviceContextDestroy(context)", "OPTIX_ERROR_INVALID_VALUE")},
        {"two releases fail: the first released is reported", TraceMode::NearestIndex,
         [](TraceRequest&)
         {
             RayTracingCpu::InjectFault("optixModuleDestroy", 1, c_iOptixInvalidValue);
             RayTracingCpu::InjectFault("optixPipelineDestroy", 1, c_iOptixInvalidValue);
         },
         Failure, ReturnedOptixMessage("optixPipelineDestroy(pipeline)", "OPTIX_ERROR_INVALID_VALUE")},
        {"a release failing after a launch failure keeps the launch failure", TraceMode::BothIndices,
         [](TraceRequest&)
         {
             RayTracingCpu::InjectFault("optixLaunch", 1, c_iOptixLaunchFailure);
             RayTracingCpu::InjectFault("optixPipelineDestroy", 1, c_iOptixInvalidValue);
         },
         Failure, ReturnedOptixMessage("optixLaunch4", sLaunchFailure)},
        {"stream-ordered allocation", TraceMode::NearestIndex,
         Fault("cudaMallocAsync", 1, c_iCudaOutOfMemory), Failure,
         CudaMessage(c_sMallocAsyncCall, "out of memory")},
    };
    for (const Case& cCase : aCases)
    {
        SCOPED_TRACE(cCase.sWhat);
        RayTracingCpu::ClearFaults();
        RayTracingCpu::ResetCallCounts();
        TraceRequest cRequest = m_cScene.Request();
        cCase.fnBreak(cRequest);
        const TraceOutcome c = RunTrace(cCase.eMode, cRequest);
        EXPECT_EQ(c.eResult, cCase.eResult);
        EXPECT_TRUE(std::regex_match(c.sError, cCase.cMessage)) << c.sError;
        if (!cRequest.bDiagnostics)
        {
            EXPECT_EQ(c.sLog, "");
        }
        ExpectNothingLeaked();
    }
}

TEST_F(FailureTest, ReleaseFailureAfterTheCountingRunStopsBeforeCollecting)
{
    RayTracingCpu::InjectFault("optixPipelineDestroy", 1, c_iOptixInvalidValue);
    const TraceOutcome c = RunTrace(TraceMode::AllHits, m_cScene.Request());
    EXPECT_EQ(c.eResult, Failure);
    EXPECT_TRUE(std::regex_match(
        c.sError, ReturnedOptixMessage("optixPipelineDestroy(pipeline)", "OPTIX_ERROR_INVALID_VALUE")))
        << c.sError;
    EXPECT_EQ(RayTracingCpu::CallCount("optixModuleCreate"), 1u) << "the collecting run must not start";
    EXPECT_EQ(RayTracingCpu::CallCount("optixLaunch"), 1u);
    ExpectNothingLeaked();
}

// Every call of every platform function that can fail during a trace is made to fail in turn. Each failure
// must end the call with a code and a message (or OutOfMemory without one for an allocation), never leave
// RayTracing as an exception, and never leak. The messages must quote the call sites as written.
class FaultSweepTest : public StandInTest, public ::testing::WithParamInterface<std::tuple<TraceMode, bool>>
{
};

TEST_P(FaultSweepTest, EveryFailingCallEndsCleanly)
{
    const auto [eMode, bPools] = GetParam();
    Configure([&](RayTracingCpu::DeviceConfig& c) { c.bMemoryPools = bPools; });
    const SmallScene cScene;
    const TraceRequest cRequest = cScene.Request();

    struct Function
    {
        const char* sName;
        int iCode;
        std::uint64_t nFirstCall; // earlier calls belong to device set-up, tested on their own
        bool bReleaseMayBeIgnored;
    };
    const Function aFunctions[] = {
        {"cudaMallocAsync", c_iCudaOutOfMemory, 1, false},
        {"cudaMalloc", c_iCudaOutOfMemory, 1, false},
        {"cudaFreeAsync", c_iCudaInvalidValue, 1, true},
        {"cudaFree", c_iCudaInvalidValue, 2, true},
        {"cudaMemcpyAsync", c_iCudaInvalidValue, 1, false},
        {"cudaMemcpy", c_iCudaInvalidValue, 1, false},
        {"cudaStreamSynchronize", c_iCudaInvalidValue, 1, false},
        {"cudaGetDeviceProperties", c_iCudaInvalidValue, 2, false},
        {"cudaDeviceGetAttribute", c_iCudaInvalidValue, 2, false},
        {"optixDeviceContextCreate", c_iOptixInvalidValue, 1, false},
        {"optixDeviceContextGetProperty", c_iOptixInvalidValue, 1, false},
        {"optixModuleCreate", c_iOptixInvalidInput, 1, false},
        {"optixProgramGroupCreate", c_iOptixInvalidInput, 1, false},
        {"optixProgramGroupGetStackSize", c_iOptixInvalidValue, 1, false},
        {"optixPipelineCreate", c_iOptixInvalidInput, 1, false},
        {"optixPipelineSetStackSize", c_iOptixInvalidValue, 1, false},
        {"optixAccelComputeMemoryUsage", c_iOptixInvalidValue, 1, false},
        {"optixAccelBuild", c_iOptixInvalidValue, 1, false},
        {"optixSbtRecordPackHeader", c_iOptixInvalidValue, 1, false},
        {"optixLaunch", c_iOptixLaunchFailure, 1, false},
        {"optixPipelineDestroy", c_iOptixInvalidValue, 1, false},
        {"optixProgramGroupDestroy", c_iOptixInvalidValue, 1, false},
        {"optixModuleDestroy", c_iOptixInvalidValue, 1, false},
        {"optixDeviceContextDestroy", c_iOptixInvalidValue, 1, false},
    };

    RayTracingCpu::ResetCallCounts();
    ASSERT_EQ(RunTrace(eMode, cRequest).eResult, Success);
    std::vector<std::uint64_t> aCleanCounts;
    for (const Function& f : aFunctions)
    {
        aCleanCounts.push_back(RayTracingCpu::CallCount(f.sName));
    }

    std::set<std::string> aQuotedCalls;
    std::uint64_t nInjected = 0;
    for (std::size_t iFunction = 0; iFunction < std::size(aFunctions); ++iFunction)
    {
        const Function& f = aFunctions[iFunction];
        for (std::uint64_t nCall = f.nFirstCall; nCall <= aCleanCounts[iFunction]; ++nCall)
        {
            SCOPED_TRACE(std::string(f.sName) + " call " + std::to_string(nCall));
            RayTracingCpu::ClearFaults();
            RayTracingCpu::InjectFault(f.sName, nCall, f.iCode);
            ++nInjected;
            const std::uint64_t nBytesBefore = RayTracingCpu::LiveDeviceBytes();
            const std::uint64_t nObjectsBefore = RayTracingCpu::LiveOptixObjects();
            TraceOutcome c;
            try
            {
                c = RunTrace(eMode, cRequest);
            }
            catch (const std::string& s)
            {
                ADD_FAILURE() << "threw the message " << s;
                continue;
            }
            catch (const std::exception& e)
            {
                ADD_FAILURE() << "threw " << e.what();
                continue;
            }
            if (c.eResult == Success)
            {
                EXPECT_TRUE(f.bReleaseMayBeIgnored) << "the failure went unnoticed";
                EXPECT_EQ(c.sError, "");
            }
            else if (c.eResult == OutOfMemory)
            {
                EXPECT_EQ(c.sError, "") << "only a failed allocation may give OutOfMemory here";
            }
            else
            {
                EXPECT_EQ(c.eResult, Failure);
                EXPECT_NE(c.sError, "");
                aQuotedCalls.insert(QuotedCall(c.sError));
            }
            EXPECT_EQ(c.sLog, "");
            EXPECT_EQ(RayTracingCpu::LiveOptixObjects(), nObjectsBefore) << "OptiX objects leaked";
            if (!f.bReleaseMayBeIgnored)
            {
                EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), nBytesBefore) << "device memory leaked";
            }
        }
    }

    RecordProperty("injected failures", std::to_string(nInjected));

    // clang-format off
    std::vector<std::string> aExpectedCalls = {
        bPools ? c_sMallocAsyncCall : c_sMallocCall,
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
        "optixProgramGroupCreate( context.get(), &miss_prog_group_desc, 1, &program_group_options, LOG, &LOG_SIZE, &miss_prog_group_raw )",
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
    {
        aExpectedCalls.insert(aExpectedCalls.end(), {
            "optixLaunchCountHits2",
            "optixLaunchAllHits2",
            "cudaMemcpyAsync(d_ray_count_hits.data(), cRayTracingResults.pCountHits + iBatchStart, (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyHostToDevice, cStream.GetStream())",
            "cudaMemcpyAsync(d_ray_count_hits.data() + nProcessRays, cRayTracingResults.pCountHits + (iBatchEnd - (size_t)1), sizeof(*cRayTracingResults.pCountHits), cudaMemcpyHostToDevice, cStream.GetStream())",
            "cudaMemcpyAsync(d_ray_all_hits.data(), cRayTracingResults.cAllHits.data() + aStarts[iBatch - (size_t)1], n * sizeof(decltype(cRayTracingResults.cAllHits)::value_type), cudaMemcpyHostToDevice, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pCountHits + iBatchStart, d_ray_count_hits.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pCountHits), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.cAllHits.data() + aStarts[iBatch - (size_t)1], d_ray_all_hits.data(), n * sizeof(decltype(cRayTracingResults.cAllHits)::value_type), cudaMemcpyDeviceToHost, cStream.GetStream())",
        });
    }
    else
    {
        aExpectedCalls.insert(aExpectedCalls.end(), {
            "optixLaunch4",
            "cudaMemcpyAsync(cRayTracingResults.pFirstIndex + iBatchStart, d_ray_first_index.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstIndex), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pFirstHit + iBatchStart, d_ray_first_hit.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pFirstHit), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pLastIndex + iBatchStart, d_ray_last_index.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastIndex), cudaMemcpyDeviceToHost, cStream.GetStream())",
            "cudaMemcpyAsync(cRayTracingResults.pLastHit + iBatchStart, d_ray_last_hit.data(), (size_t)nProcessRays * sizeof(*cRayTracingResults.pLastHit), cudaMemcpyDeviceToHost, cStream.GetStream())",
        });
    }
    // clang-format on
    for (const std::string& sCall : aExpectedCalls)
    {
        EXPECT_EQ(aQuotedCalls.count(sCall), 1u) << "no failure quoted the call\n  " << sCall;
    }
}

INSTANTIATE_TEST_SUITE_P(Library, FaultSweepTest,
                         ::testing::Combine(::testing::Values(TraceMode::BothIndices, TraceMode::AllHits),
                                            ::testing::Bool()),
                         [](const auto& cInfo)
                         {
                             return std::string(TraceModeName(std::get<0>(cInfo.param))) +
                                    (std::get<1>(cInfo.param) ? "_Pools" : "_NoPools");
                         });
