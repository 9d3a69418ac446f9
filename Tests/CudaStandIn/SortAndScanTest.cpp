#include <cmath>
#include <limits>
#include <vector>

#include <cub/device/device_segmented_sort.cuh>
#include <thrust/functional.h>
#include <thrust/scan.h>
#include <thrust/transform.h>

#include "PlatformThrust.h"
#include "StandInStream.h"
#include "StandInTestSupport.h"

namespace
{
// Device copies of host arrays, released when the test ends.
template <typename T> class DeviceArray
{
public:
    explicit DeviceArray(const std::vector<T>& aValues) : m_nSize(aValues.size())
    {
        EXPECT_EQ(cudaMalloc(&m_p, sizeof(T) * (m_nSize ? m_nSize : 1)), cudaSuccess);
        if (m_nSize)
            EXPECT_EQ(cudaMemcpy(m_p, aValues.data(), sizeof(T) * m_nSize, cudaMemcpyHostToDevice),
                      cudaSuccess);
    }
    ~DeviceArray() { cudaFree(m_p); }
    DeviceArray(const DeviceArray&) = delete;
    DeviceArray& operator=(const DeviceArray&) = delete;

    T* data() const { return m_p; }
    std::vector<T> Read() const
    {
        std::vector<T> aValues(m_nSize);
        if (m_nSize)
            EXPECT_EQ(cudaMemcpy(aValues.data(), m_p, sizeof(T) * m_nSize, cudaMemcpyDeviceToHost),
                      cudaSuccess);
        return aValues;
    }

private:
    T* m_p = nullptr;
    size_t m_nSize;
};

class SortAndScanTest : public StandInTest, public ::testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        Configure(GetParam());
        ASSERT_EQ(cudaStreamCreate(&m_stream), cudaSuccess);
    }
    void TearDown() override
    {
        EXPECT_EQ(cudaStreamDestroy(m_stream), cudaSuccess);
        StandInTest::TearDown();
    }

    // Sorts keys between the given offsets as the library does: size query, then the sort on the stream.
    cudaError_t Sort(const DeviceArray<float>& cKeys, DeviceArray<float>& cOut, long long m, long long n,
                     unsigned long long* pOffsets)
    {
        size_t nBuffer = 0;
        cudaError_t nError = cub::DeviceSegmentedSort::SortKeys(
            nullptr, nBuffer, cKeys.data(), cOut.data(), m, n, pOffsets, pOffsets + (size_t)1, m_stream);
        if (nError != cudaSuccess)
            return nError;
        EXPECT_GT(nBuffer, 0u);
        DeviceArray<char> cBuffer{std::vector<char>(nBuffer)};
        nError = cub::DeviceSegmentedSort::SortKeys(cBuffer.data(), nBuffer, cKeys.data(), cOut.data(), m, n,
                                                    pOffsets, pOffsets + (size_t)1, m_stream);
        if (nError != cudaSuccess)
            return nError;
        return cudaStreamSynchronize(m_stream);
    }

    cudaStream_t m_stream = nullptr;
};
} // namespace

TEST_P(SortAndScanTest, SegmentsSortAscendingAndKeysStayInTheirSegment)
{
    const float fNaN = std::numeric_limits<float>::quiet_NaN();
    // Segments: [3 1 2], [], [5], [fNaN -0 inf 0 -1], [9 8]
    DeviceArray<float> cKeys({3, 1, 2, 5, fNaN, -0.0f, INFINITY, 0.0f, -1, 9, 8});
    DeviceArray<float> cOut(std::vector<float>(11, -7.0f));
    DeviceArray<unsigned long long> cOffsets({0, 3, 3, 4, 9, 11});
    ASSERT_EQ(Sort(cKeys, cOut, 11, 5, cOffsets.data()), cudaSuccess);
    std::vector<float> aOut = cOut.Read();
    std::vector<float> aHead(aOut.begin(), aOut.begin() + 8);
    EXPECT_EQ(aHead, (std::vector<float>{1, 2, 3, 5, -1, -0.0f, 0.0f, INFINITY}));
    EXPECT_TRUE(std::signbit(aOut[5])) << "-0 sorts before +0, as in a radix sort";
    EXPECT_TRUE(std::isnan(aOut[8])) << "NaN sorts last";
    EXPECT_EQ(aOut[9], 8.0f);
    EXPECT_EQ(aOut[10], 9.0f);
    EXPECT_EQ(cKeys.Read()[0], 3.0f) << "the input is left as it was";
}

TEST_P(SortAndScanTest, OffsetsNotStartingAtZeroLeaveOtherKeysAlone)
{
    // Keys outside every segment are neither read nor written.
    DeviceArray<float> cKeys({4, 3, 2, 1, 0});
    DeviceArray<float> cOut(std::vector<float>(5, -7.0f));
    DeviceArray<unsigned long long> cOffsets({2, 2, 4});
    ASSERT_EQ(Sort(cKeys, cOut, 5, 2, cOffsets.data()), cudaSuccess);
    EXPECT_EQ(cOut.Read(), (std::vector<float>{-7, -7, 1, 2, -7}));

    // One key, and only empty segments.
    DeviceArray<unsigned long long> cOne({0, 1});
    ASSERT_EQ(Sort(cKeys, cOut, 1, 1, cOne.data()), cudaSuccess);
    EXPECT_EQ(cOut.Read()[0], 4.0f);
    DeviceArray<unsigned long long> cEmpty({3, 3, 3});
    ASSERT_EQ(Sort(cKeys, cOut, 5, 2, cEmpty.data()), cudaSuccess);
    EXPECT_EQ(Sort(cKeys, cOut, 0, 0, cEmpty.data()), cudaSuccess);
}

TEST_P(SortAndScanTest, BadArgumentsAndInjectedFaultsAreReported)
{
    DeviceArray<float> cKeys({2, 1});
    DeviceArray<float> cOut(std::vector<float>(2));
    DeviceArray<unsigned long long> cBeyond({0, 3});
    EXPECT_EQ(Sort(cKeys, cOut, 2, 1, cBeyond.data()), cudaErrorIllegalAddress);
    cudaStream_t failed = m_stream;
    ASSERT_EQ(cudaStreamDestroy(failed), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&m_stream), cudaSuccess);

    DeviceArray<unsigned long long> cOffsets({0, 2});
    EXPECT_EQ(Sort(cKeys, cOut, -1, 1, cOffsets.data()), cudaErrorInvalidValue);
    size_t nTooSmall = 1;
    char aBuffer[1];
    EXPECT_EQ(cub::DeviceSegmentedSort::SortKeys(aBuffer, nTooSmall, cKeys.data(), cOut.data(), 2, 1,
                                                 cOffsets.data(), cOffsets.data() + 1, m_stream),
              cudaErrorInvalidValue);

    RayTracingCpu::ResetCallCounts();
    RayTracingCpu::InjectFault("cub::DeviceSegmentedSort::SortKeys", 2, cudaErrorLaunchFailure);
    EXPECT_EQ(Sort(cKeys, cOut, 2, 1, cOffsets.data()), cudaErrorLaunchFailure);
    EXPECT_EQ(RayTracingCpu::CallCount("cub::DeviceSegmentedSort::SortKeys"), 2u);
    EXPECT_EQ(cOut.Read(), (std::vector<float>{0, 0})) << "the failed sort did no work";
}

TEST_P(SortAndScanTest, ThrustScanAndTransformFollowTheStream)
{
    DeviceArray<unsigned long long> cCounts({0, 0, 0, 0});
    std::vector<unsigned long long> aCounts = {3, 0, 2, 5};
    // The upload is still queued (when deferred) as the scan starts: the policy must wait for it.
    ASSERT_EQ(cudaMemcpyAsync(cCounts.data(), aCounts.data(), 4 * sizeof(unsigned long long),
                              cudaMemcpyHostToDevice, m_stream),
              cudaSuccess);
    unsigned long long* p = cCounts.data();
    thrust::inclusive_scan(StreamPolicy(m_stream), p, p + 4, p, 100ull, thrust::plus<unsigned long long>());
    EXPECT_EQ(cCounts.Read(), (std::vector<unsigned long long>{103, 103, 105, 110}));
    thrust::inclusive_scan(StreamPolicy(m_stream), p, p + 4, p, 0ull, thrust::plus<unsigned long long>());
    EXPECT_EQ(cCounts.Read(), (std::vector<unsigned long long>{103, 206, 311, 421}));
    thrust::transform(StreamPolicy(m_stream), p, p + 4, p, [](unsigned long long n) { return n - 3; });
    EXPECT_EQ(cCounts.Read(), (std::vector<unsigned long long>{100, 203, 308, 418}));

    m_stream->Fail(cudaErrorAssert);
    try
    {
        thrust::transform(StreamPolicy(m_stream), p, p + 4, p, [](unsigned long long n) { return n; });
        ADD_FAILURE() << "a failed stream must throw";
    }
    catch (const thrust::system_error& cError)
    {
        EXPECT_STREQ(cError.what(),
                     "failed to synchronize stream: cudaErrorAssert: device-side assert triggered");
    }
    ASSERT_EQ(cudaStreamDestroy(m_stream), cudaSuccess);
    ASSERT_EQ(cudaStreamCreate(&m_stream), cudaSuccess);
}

INSTANTIATE_TEST_SUITE_P(Immediate, SortAndScanTest, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Deferred, SortAndScanTest, ::testing::Values(true));
