#include <cstring>

#include "StandInTestSupport.h"

TEST(ErrorTextTest, TextsAndNamesAreThoseOfTheCudaRuntime)
{
    struct Expected
    {
        cudaError_t nError;
        int nValue;
        const char* sName;
        const char* sText;
    };
    const Expected aExpected[] = {
        {cudaSuccess, 0, "cudaSuccess", "no error"},
        {cudaErrorInvalidValue, 1, "cudaErrorInvalidValue", "invalid argument"},
        {cudaErrorMemoryAllocation, 2, "cudaErrorMemoryAllocation", "out of memory"},
        {cudaErrorInitializationError, 3, "cudaErrorInitializationError", "initialization error"},
        {cudaErrorNoDevice, 100, "cudaErrorNoDevice", "no CUDA-capable device is detected"},
        {cudaErrorInvalidDevice, 101, "cudaErrorInvalidDevice", "invalid device ordinal"},
        {cudaErrorInvalidResourceHandle, 400, "cudaErrorInvalidResourceHandle", "invalid resource handle"},
        {cudaErrorIllegalAddress, 700, "cudaErrorIllegalAddress", "an illegal memory access was encountered"},
        {cudaErrorAssert, 710, "cudaErrorAssert", "device-side assert triggered"},
        {cudaErrorLaunchFailure, 719, "cudaErrorLaunchFailure", "unspecified launch failure"},
        {cudaErrorNotSupported, 801, "cudaErrorNotSupported", "operation not supported"},
        {cudaErrorUnknown, 999, "cudaErrorUnknown", "unknown error"},
    };
    for (const Expected& cExpected : aExpected)
    {
        EXPECT_EQ(static_cast<int>(cExpected.nError), cExpected.nValue);
        EXPECT_STREQ(cudaGetErrorName(cExpected.nError), cExpected.sName);
        EXPECT_STREQ(cudaGetErrorString(cExpected.nError), cExpected.sText);
    }
    EXPECT_STREQ(cudaGetErrorString(static_cast<cudaError_t>(12345)), "unrecognized error code");
    EXPECT_STREQ(cudaGetErrorName(static_cast<cudaError_t>(-1)), "unrecognized error code");
}

TEST(ErrorTextTest, LastErrorIsKeptUntilRead)
{
    cudaGetLastError();
    EXPECT_EQ(cudaSetDevice(1), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaSetDevice(0), cudaSuccess) << "a later success does not clear the last error";
    EXPECT_EQ(cudaPeekAtLastError(), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidDevice);
    EXPECT_EQ(cudaGetLastError(), cudaSuccess);
}
