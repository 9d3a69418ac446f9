#include <cstdint>
#include <vector>

#include "StandInTestSupport.h"

using MemoryTest = StandInTest;

TEST_F(MemoryTest, AllocationsAreAccountedAgainstFreeMemory)
{
    size_t nFree = 0, nTotal = 0;
    ASSERT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    EXPECT_EQ(nFree, c_nTestFreeMemory);
    EXPECT_EQ(nTotal, c_nTestTotalMemory);

    void* pFirst = nullptr;
    ASSERT_EQ(cudaMalloc(&pFirst, 1000), cudaSuccess);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pFirst) % 256, 0u);
    EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 1000u);
    ASSERT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    EXPECT_EQ(nFree, c_nTestFreeMemory - 1000);
    EXPECT_EQ(nTotal, c_nTestTotalMemory);

    // Exactly what is left still fits; one byte more does not, and leaves the pointer null.
    void* pRest = nullptr;
    void* pTooMuch = reinterpret_cast<void*>(1);
    EXPECT_EQ(cudaMalloc(&pTooMuch, c_nTestFreeMemory - 1000 + 1), cudaErrorMemoryAllocation);
    EXPECT_EQ(pTooMuch, nullptr);
    EXPECT_EQ(cudaGetLastError(), cudaErrorMemoryAllocation);
    ASSERT_EQ(cudaMalloc(&pRest, c_nTestFreeMemory - 1000), cudaSuccess);
    ASSERT_EQ(cudaMemGetInfo(&nFree, &nTotal), cudaSuccess);
    EXPECT_EQ(nFree, 0u);

    EXPECT_EQ(cudaFree(pRest), cudaSuccess);
    EXPECT_EQ(cudaFree(pFirst), cudaSuccess);
    EXPECT_EQ(RayTracingCpu::LiveDeviceBytes(), 0u);
}

TEST_F(MemoryTest, FreeingNullSucceedsAndUnknownPointersAreRejected)
{
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    EXPECT_EQ(cudaFree(nullptr), cudaSuccess);
    EXPECT_EQ(cudaFreeAsync(nullptr, stream), cudaSuccess);

    int iHost = 0;
    EXPECT_EQ(cudaFree(&iHost), cudaErrorInvalidValue);
    void* p = nullptr;
    ASSERT_EQ(cudaMalloc(&p, 64), cudaSuccess);
    EXPECT_EQ(cudaFree(static_cast<char*>(p) + 1), cudaErrorInvalidValue);
    EXPECT_EQ(cudaFree(p), cudaSuccess);
    EXPECT_EQ(cudaFree(p), cudaErrorInvalidValue) << "double free";
    EXPECT_EQ(cudaMalloc(nullptr, 64), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMalloc(&p, 0), cudaSuccess);
    EXPECT_EQ(p, nullptr);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

TEST_F(MemoryTest, StreamOrderedAllocationNeedsPoolsAndReturnsBytesAtOnce)
{
    cudaStream_t stream = nullptr;
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    // A growth releases before it allocates; with pools both fit even when each alone takes most memory.
    void* pOld = nullptr;
    void* pNew = nullptr;
    ASSERT_EQ(cudaMallocAsync(&pOld, c_nTestFreeMemory - 100, stream), cudaSuccess);
    ASSERT_EQ(cudaFreeAsync(pOld, stream), cudaSuccess);
    ASSERT_EQ(cudaMallocAsync(&pNew, c_nTestFreeMemory, stream), cudaSuccess);
    EXPECT_EQ(cudaFreeAsync(pNew, stream), cudaSuccess);
    EXPECT_EQ(cudaFreeAsync(pNew, stream), cudaErrorInvalidValue);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);

    Configure(false, false);
    ASSERT_EQ(cudaStreamCreate(&stream), cudaSuccess);
    void* p = nullptr;
    EXPECT_EQ(cudaMallocAsync(&p, 16, stream), cudaErrorNotSupported);
    EXPECT_EQ(cudaFreeAsync(nullptr, stream), cudaErrorNotSupported);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaSuccess);
}

TEST_F(MemoryTest, CopiesStayInsideDeviceAllocations)
{
    float* d_p = nullptr;
    ASSERT_EQ(cudaMalloc(&d_p, 4 * sizeof(float)), cudaSuccess);
    std::vector<float> aIn = {1, 2, 3, 4}, aOut(4, 0.0f);
    EXPECT_EQ(cudaMemcpy(d_p, aIn.data(), 16, cudaMemcpyHostToDevice), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(aOut.data(), d_p, 16, cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(aOut, aIn);
    EXPECT_EQ(cudaMemcpy(d_p, d_p + 2, 8, cudaMemcpyDeviceToDevice), cudaSuccess);
    EXPECT_EQ(cudaMemset(d_p + 3, 0, 4), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(aOut.data(), d_p, 16, cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(aOut, (std::vector<float>{3, 4, 3, 0}));

    EXPECT_EQ(cudaMemcpy(d_p + 1, aIn.data(), 16, cudaMemcpyHostToDevice), cudaErrorInvalidValue)
        << "overrun";
    EXPECT_EQ(cudaMemcpy(aIn.data(), aOut.data(), 16, cudaMemcpyHostToDevice), cudaErrorInvalidValue)
        << "host pointer as device destination";
    EXPECT_EQ(cudaMemcpy(aOut.data(), nullptr, 16, cudaMemcpyDeviceToHost), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemcpy(d_p, aIn.data(), 16, static_cast<cudaMemcpyKind>(7)),
              cudaErrorInvalidMemcpyDirection);
    EXPECT_EQ(cudaMemset(aOut.data(), 0, 4), cudaErrorInvalidValue);
    EXPECT_EQ(cudaMemcpy(nullptr, nullptr, 0, cudaMemcpyHostToDevice), cudaSuccess);
    EXPECT_EQ(cudaFree(d_p), cudaSuccess);
}
