#include <vector>

#include <gtest/gtest.h>

#include "RayTracingHelper.h"
#include "StandInTest.h"
#include "ThrustExtra.h"

namespace
{
class BufferTest : public StandInTest, public ::testing::WithParamInterface<bool>
{
protected:
    std::uint64_t Calls(const char* sPlain, const char* sPool) const
    {
        return RayTracingCpu::CallCount(GetParam() ? sPool : sPlain);
    }
};

TEST_P(BufferTest, GrowsOnlyAndReleasesInItsMode)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.bMemoryPools = GetParam(); });
    CudaStream cStream;
    {
        DeviceBuffer<float> cBuffer(cStream.GetStream(), GetParam());
        EXPECT_EQ(cBuffer.data(), nullptr);
        cBuffer.resize(0);
        EXPECT_EQ(Calls("cudaMalloc", "cudaMallocAsync"), 0u);

        cBuffer.resize(100); // releases the null pointer, then allocates
        EXPECT_EQ(Calls("cudaFree", "cudaFreeAsync"), 1u);
        EXPECT_EQ(Calls("cudaMalloc", "cudaMallocAsync"), 1u);
        float* pFirst = cBuffer.data();
        cBuffer.resize(100);
        cBuffer.resize(10);
        EXPECT_EQ(cBuffer.data(), pFirst);
        EXPECT_EQ(cBuffer.size(), 100u);
        EXPECT_EQ(Calls("cudaMalloc", "cudaMallocAsync"), 1u);

        cBuffer.resize(1000);
        EXPECT_EQ(cBuffer.size(), 1000u);
        EXPECT_EQ(Calls("cudaMalloc", "cudaMallocAsync"), 2u);
        EXPECT_EQ(RayTracingCpu::CallCount(GetParam() ? "cudaMalloc" : "cudaMallocAsync"), 0u);
    }
    cudaStreamSynchronize(cStream.GetStream());
    ExpectNothingLeaked();
}

TEST_P(BufferTest, FailedAllocationLeavesTheBufferEmptyAndThrowsTheCheck)
{
    Configure([](RayTracingCpu::DeviceConfig& c) { c.bMemoryPools = GetParam(); });
    CudaStream cStream;
    DeviceBuffer<char> cBuffer(cStream.GetStream(), GetParam());
    cBuffer.resize(16);
    RayTracingCpu::InjectFault(GetParam() ? "cudaMallocAsync" : "cudaMalloc", 1, cudaErrorMemoryAllocation);
    try
    {
        cBuffer.resize(32);
        FAIL() << "no exception";
    }
    catch (const std::string& sMessage)
    {
        const std::string sCall =
            GetParam() ? "cudaMallocAsync(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T), m_stream)"
                       : "cudaMalloc(reinterpret_cast<void**>(&m_pDevicePtr), n * sizeof(T))";
        EXPECT_EQ(sMessage.rfind("CUDA call (" + sCall + " ) failed with error: 'out of memory' (", 0), 0u)
            << sMessage;
        EXPECT_NE(sMessage.find("ThrustExtra.h:"), std::string::npos);
    }
    EXPECT_EQ(cBuffer.data(), nullptr);
    EXPECT_EQ(cBuffer.size(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Library, BufferTest, ::testing::Values(false, true),
                         [](const auto& cInfo) { return cInfo.param ? "Pools" : "Plain"; });

class HelperTest : public StandInTest
{
protected:
    template <typename T> T* Upload(const std::vector<T>& aValues)
    {
        void* p = nullptr;
        EXPECT_EQ(cudaMalloc(&p, aValues.size() * sizeof(T)), cudaSuccess);
        cudaMemcpy(p, aValues.data(), aValues.size() * sizeof(T), cudaMemcpyHostToDevice);
        m_aAllocations.push_back(p);
        return static_cast<T*>(p);
    }
    template <typename T> std::vector<T> Download(const T* p, std::size_t n)
    {
        std::vector<T> aValues(n);
        cudaMemcpy(aValues.data(), p, n * sizeof(T), cudaMemcpyDeviceToHost);
        return aValues;
    }
    void TearDown() override
    {
        for (void* p : m_aAllocations)
            cudaFree(p);
        StandInTest::TearDown();
    }
    CudaStream m_cStream;
    std::vector<void*> m_aAllocations;
};

TEST_F(HelperTest, SortKeepsCountsAndSortsWithinSegmentsFromAnyFirstOffset)
{
    for (unsigned long long nFirst : {0ull, 1000ull})
    {
        // Segments of 3, 0, 1 and 4 keys.
        const std::vector<unsigned long long> aCounts{nFirst, nFirst + 3, nFirst + 3, nFirst + 4, nFirst + 8};
        unsigned long long* pCounts = Upload(aCounts);
        float* pKeys = Upload(std::vector<float>{3, 1, 2, 7, 9, 8, 6, 5});
        SegmentedSortInPlace(4ull, pCounts, pKeys, m_cStream.GetStream(), true, SIZE_MAX);
        EXPECT_EQ(Download(pKeys, 8), (std::vector<float>{1, 2, 3, 7, 5, 6, 8, 9}));
        EXPECT_EQ(Download(pCounts, 5), aCounts);
    }
}

TEST_F(HelperTest, SortOfNothingOrOneKeyTouchesNothing)
{
    unsigned long long* pCounts = Upload(std::vector<unsigned long long>{5, 5, 6});
    float* pKeys = Upload(std::vector<float>{42});
    RayTracingCpu::ResetCallCounts();
    SegmentedSortInPlace(0ull, pCounts, pKeys, m_cStream.GetStream(), true, SIZE_MAX);
    EXPECT_EQ(RayTracingCpu::CallCount("cudaMemcpyAsync"), 0u);
    SegmentedSortInPlace(2ull, pCounts, pKeys, m_cStream.GetStream(), true, SIZE_MAX);
    EXPECT_EQ(RayTracingCpu::CallCount("cudaMallocAsync"), 0u);
    EXPECT_EQ(RayTracingCpu::CallCount("cub::DeviceSegmentedSort::SortKeys"), 0u);
    EXPECT_EQ(Download(pCounts, 3), (std::vector<unsigned long long>{5, 5, 6}));
}

TEST_F(HelperTest, AccumulatedCountsContinueFromTheBase)
{
    unsigned long long* p = Upload(std::vector<unsigned long long>{1, 0, 2, 5});
    AccumulateCountsInPlace(m_cStream.GetStream(), p, 4, 10);
    EXPECT_EQ(Download(p, 4), (std::vector<unsigned long long>{11, 11, 13, 18}));
}
} // namespace
