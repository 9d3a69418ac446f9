#include <stdexcept>
#include <vector>

#include "StandInStream.h"
#include "StandInTestSupport.h"

namespace
{
class StreamTest : public StandInTest, public ::testing::WithParamInterface<bool>
{
protected:
    void SetUp() override
    {
        Configure(GetParam());
        ASSERT_EQ(cudaStreamCreate(&m_stream), cudaSuccess);
    }
    void TearDown() override
    {
        if (m_stream)
            EXPECT_EQ(cudaStreamDestroy(m_stream), cudaSuccess);
        StandInTest::TearDown();
    }
    bool Deferred() const { return GetParam(); }

    cudaStream_t m_stream = nullptr;
};
} // namespace

TEST_P(StreamTest, WorkRunsInCallOrderAndDeferralWaitsForASynchronisation)
{
    std::vector<int> aOrder;
    m_stream->Enqueue([&] { aOrder.push_back(1); });
    int* d_value = nullptr;
    ASSERT_EQ(cudaMallocAsync(&d_value, sizeof(int), m_stream), cudaSuccess);
    int iIn = 7, iOut = 0;
    ASSERT_EQ(cudaMemcpyAsync(d_value, &iIn, sizeof(int), cudaMemcpyHostToDevice, m_stream), cudaSuccess);
    ASSERT_EQ(cudaMemcpyAsync(&iOut, d_value, sizeof(int), cudaMemcpyDeviceToHost, m_stream), cudaSuccess);
    m_stream->Enqueue([&] { aOrder.push_back(iOut); });
    ASSERT_EQ(cudaFreeAsync(d_value, m_stream), cudaSuccess);

    // A read before the synchronisation sees nothing yet when the stream defers its work.
    EXPECT_EQ(iOut, Deferred() ? 0 : 7);
    EXPECT_EQ(aOrder.size(), Deferred() ? 0u : 2u);
    EXPECT_EQ(cudaStreamSynchronize(m_stream), cudaSuccess);
    EXPECT_EQ(aOrder, (std::vector<int>{1, 7}));
}

TEST_P(StreamTest, SynchronousCallsAndTheNullStreamWaitForStreams)
{
    int* d_value = nullptr;
    ASSERT_EQ(cudaMalloc(&d_value, sizeof(int)), cudaSuccess);
    int iIn = 5, iOut = 0;
    ASSERT_EQ(cudaMemcpyAsync(d_value, &iIn, sizeof(int), cudaMemcpyHostToDevice, m_stream), cudaSuccess);
    EXPECT_EQ(cudaMemcpy(&iOut, d_value, sizeof(int), cudaMemcpyDeviceToHost), cudaSuccess);
    EXPECT_EQ(iOut, 5);

    iIn = 6;
    ASSERT_EQ(cudaMemcpyAsync(d_value, &iIn, sizeof(int), cudaMemcpyHostToDevice, m_stream), cudaSuccess);
    EXPECT_EQ(cudaMemcpyAsync(&iOut, d_value, sizeof(int), cudaMemcpyDeviceToHost, nullptr), cudaSuccess);
    EXPECT_EQ(iOut, 6) << "the legacy default stream runs after earlier work of blocking streams";

    bool bRan = false;
    m_stream->Enqueue([&] { bRan = true; });
    EXPECT_EQ(cudaFree(d_value), cudaSuccess);
    EXPECT_TRUE(bRan) << "cudaFree waits for the device";

    bRan = false;
    m_stream->Enqueue([&] { bRan = true; });
    EXPECT_EQ(cudaStreamDestroy(m_stream), cudaSuccess);
    m_stream = nullptr;
    EXPECT_TRUE(bRan) << "destroying a stream completes its work";
}

TEST_P(StreamTest, FailureIsStickyAndReachesSynchronisations)
{
    m_stream->Enqueue([&] { m_stream->Fail(cudaErrorAssert); });
    m_stream->Enqueue([] { throw std::runtime_error("second failure is not reported"); });
    EXPECT_EQ(cudaStreamSynchronize(m_stream), cudaErrorAssert);
    EXPECT_EQ(cudaStreamSynchronize(m_stream), cudaErrorAssert);
    EXPECT_EQ(cudaDeviceSynchronize(), cudaErrorAssert);
    EXPECT_EQ(cudaGetLastError(), cudaErrorAssert);

    cudaStream_t other = nullptr;
    ASSERT_EQ(cudaStreamCreate(&other), cudaSuccess);
    other->Enqueue([] { throw std::bad_alloc(); });
    EXPECT_EQ(cudaStreamSynchronize(other), cudaErrorMemoryAllocation);
    EXPECT_EQ(cudaStreamDestroy(other), cudaSuccess);
}

TEST_P(StreamTest, UnknownStreamHandlesAreRejected)
{
    cudaStream_t stream = m_stream;
    EXPECT_EQ(cudaStreamDestroy(m_stream), cudaSuccess);
    m_stream = nullptr;
    int iValue = 0;
    EXPECT_EQ(cudaStreamSynchronize(stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaStreamDestroy(stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaStreamDestroy(nullptr), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaMemcpyAsync(&iValue, &iValue, sizeof(int), cudaMemcpyHostToHost, stream),
              cudaErrorInvalidResourceHandle);
    void* p = nullptr;
    EXPECT_EQ(cudaMallocAsync(&p, 16, stream), cudaErrorInvalidResourceHandle);
    EXPECT_EQ(cudaStreamCreate(nullptr), cudaErrorInvalidValue);
}

INSTANTIATE_TEST_SUITE_P(Immediate, StreamTest, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Deferred, StreamTest, ::testing::Values(true));
