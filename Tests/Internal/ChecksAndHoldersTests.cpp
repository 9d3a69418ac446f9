#include <deque>
#include <string>

#include <gtest/gtest.h>

#include "OptixHolders.h"
#include "RayTracingChecks.h"

namespace
{
std::string Thrown(void (*fnCall)())
{
    try
    {
        fnCall();
    }
    catch (const std::string& sMessage)
    {
        return sMessage;
    }
    return "(nothing thrown)";
}

TEST(CallChecks, CudaFailureIsOneLineQuotingTheCall)
{
    EXPECT_NO_THROW(CheckCudaCall(cudaSuccess, "cudaFree(0)", "f.cpp", 1));
    EXPECT_EQ(
        Thrown([] { CheckCudaCall(cudaErrorInvalidDevice, "cudaSetDevice(iGpuId)", "a/b.cpp", 42); }),
        "CUDA call (cudaSetDevice(iGpuId) ) failed with error: 'invalid device ordinal' (a/b.cpp:42)\n");
}

TEST(CallChecks, OptixFailuresNameTheCallTheErrorAndItsDescription)
{
    EXPECT_EQ(Thrown([] { CheckOptixCall(OPTIX_ERROR_LIBRARY_NOT_FOUND, "optixFoo(x)", "c.cpp", 7); }),
              "Optix call 'optixFoo(x)' failed: c.cpp:7\nError Name: OPTIX_ERROR_LIBRARY_NOT_FOUND\n"
              "Description: Library not found\n");
    EXPECT_EQ(MakeOptixError(OPTIX_SUCCESS, "optixLaunch2"), ErrorResult(Success, ""));
    EXPECT_EQ(MakeOptixError(static_cast<OptixResult>(1234), "optixPipelineDestroy(pipeline)"),
              ErrorResult(Failure,
                          "Optix call \"optixPipelineDestroy(pipeline)\" failed.\n"
                          "Error Name: Unknown OptixResult code\nDescription: Unknown OptixResult code\n"));
}

TEST(CallChecks, LogMessageCarriesTheLogAndMarksTruncation)
{
    const char aLog[] = "line one\nline two";
    EXPECT_EQ(MakeOptixLogMessage("optixModuleCreate( x )", "d.cpp", 9, aLog, 65536, 65536),
              "Optix call 'optixModuleCreate( x )' failed: d.cpp:9\nLog:\nline one\nline two\n");
    EXPECT_EQ(MakeOptixLogMessage("c", "d.cpp", 9, aLog, 65536, 65537),
              "Optix call 'c' failed: d.cpp:9\nLog:\nline one\nline two<TRUNCATED>\n");
    // A full buffer without a terminator is cut at its capacity.
    const char aFull[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(MakeOptixLogMessage("c", "f", 1, aFull, 4, 100),
              "Optix call 'c' failed: f:1\nLog:\nabcd<TRUNCATED>\n");
}

TEST(ContextLog, LinesAreLevelAndTagInFixedFields)
{
    std::deque<std::string> aLog;
    ContextLogCallback(1, "TAG5", "msg", &aLog);
    ContextLogCallback(12, "AVERYLONGTAGNAME", "second", &aLog);
    ContextLogCallback(1, "TAG", "dropped", nullptr);
    ASSERT_EQ(aLog.size(), 2u);
    EXPECT_EQ(aLog[0], "[ 1][        TAG5]: msg\n");
    EXPECT_EQ(aLog[1], "[12][AVERYLONGTAGNAME]: second\n");
}

OptixResult FailingDestroy(OptixModule_t*)
{
    return OPTIX_ERROR_INVALID_VALUE;
}
OptixResult SucceedingDestroy(OptixModule_t*)
{
    return OPTIX_SUCCESS;
}

TEST(Holders, OnlyTheFirstFailureIsRecorded)
{
    ErrorResult cResult = SuccessResult();
    auto* pHandle = reinterpret_cast<OptixModule_t*>(0x10);
    {
        auto cFirst = MakeOptixHolder<OptixModule_t>(cResult, FailingDestroy, "optixModuleDestroy(module)");
        auto cSecond =
            MakeOptixHolder<OptixModule_t>(cResult, FailingDestroy, "optixPipelineDestroy(pipeline)");
        auto cFine = MakeOptixHolder<OptixModule_t>(cResult, SucceedingDestroy, "ok");
        auto cEmpty = MakeOptixHolder<OptixModule_t>(cResult, FailingDestroy, "never called");
        cFirst.reset(pHandle);
        cSecond.reset(pHandle);
        cFine.reset(pHandle);
    } // released in reverse: the fine one, then "pipeline", then "module"
    EXPECT_EQ(cResult.first, Failure);
    EXPECT_EQ(cResult.second.rfind("Optix call \"optixPipelineDestroy(pipeline)\" failed.\n", 0), 0u);
}

TEST(Holders, AnEarlierFailureIsNeverOverwritten)
{
    ErrorResult cResult{Failure, "launch failed"};
    {
        auto cHolder = MakeOptixHolder<OptixModule_t>(cResult, FailingDestroy, "optixModuleDestroy(module)");
        cHolder.reset(reinterpret_cast<OptixModule_t*>(0x10));
    }
    EXPECT_EQ(cResult, ErrorResult(Failure, "launch failed"));
}
} // namespace
