// The budget figures behind batches and chunks, and the helpers whose faults the library's answers would
// hide: a smaller batch or chunk than the budget allows still answers right, only slower.
#include <deque>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "BatchPlanning.h"
#include "OptixApi.h"
#include "OptixHolders.h"
#include "RayTracingChecks.h"
#include "StandInTest.h"
#include "TriangleChunks.h"

namespace
{
TEST(BatchPlanning, RaysPerBatchSpreadEvenlyInStepsOf256UpTo2To30)
{
    // 300,000,000 bytes hold 18,750,000 rays of 16 bytes: two batches of 15,000,000 rounded up to 256.
    EXPECT_EQ(ComputeRaysPerBatch(30000000, 300000000, 16), 15000064u);
    EXPECT_EQ(ComputeRaysPerBatch(1000, 300000000, 16), 1024u);
    EXPECT_EQ(ComputeRaysPerBatch(5000000000ull, 1ull << 40, 4), 1073741824u);
}

// A collecting batch is cut where its rays and hits no longer fit, cumulatively from ray 0: a ray costs its
// bytes plus 4 per hit sorted on the host, or 12 per hit and 8 rays' worth once per batch sorted on the
// device.
TEST(BatchPlanning, CollectingBatchesAreCutWhereRaysAndHitsNoLongerFit)
{
    struct Case
    {
        std::vector<std::uint64_t> aCounts;
        bool bSortOnDevice;
        std::uint64_t nBytesPerRay, nBudget;
        std::vector<std::uint64_t> aBounds;
    };
    const Case aCases[] = {
        {{1, 1, 1, 1, 1, 1}, false, 10, 40, {0, 2, 4, 6}}, // two rays take 28 bytes, three 42
        {{1, 1, 1, 1, 1, 1}, false, 10, 1000, {0, 6}},
        {{2, 2, 2}, true, 10, 114, {0, 1, 3}}, // 10 + 24 + 80 for one ray; the 80 are not paid again
        {{2, 2, 2}, true, 10, 148, {0, 2, 3}},
        {{1, 100, 1}, false, 10, 300, {}}, // ray 1 alone needs 410 bytes
        {{1, 100, 1}, false, 10, 420, {0, 1, 2, 3}},
        {{2000000000ull, 2000000000ull, 10}, true, 8, 1ull << 62, {0, 1, 3}}, // at most 2^31 - 1 hits
    };
    for (const Case& c : aCases)
    {
        std::vector<std::uint64_t> aSums(c.aCounts.size());
        std::partial_sum(c.aCounts.begin(), c.aCounts.end(), aSums.begin());
        EXPECT_EQ(ComputeBatchBounds(aSums.data(), aSums.size(), c.bSortOnDevice, c.nBytesPerRay, c.nBudget),
                  c.aBounds)
            << "budget " << c.nBudget;
    }
}

TEST(BatchPlanning, HostSortSortsEveryRaysStretchAcrossManyTasks)
{
    // Ray i holds 2 + i % 3 hits in descending order, with values that would interleave if stretches mixed;
    // every ray, the last of each block of rays included, has something to sort.
    constexpr std::uint64_t nRays = 10001;
    std::vector<std::uint64_t> aOffsets{0};
    RayTracingResults cResults;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        for (std::uint64_t k = 2 + i % 3; k > 0; --k)
            cResults.cAllHits.push_back(static_cast<float>(k));
        aOffsets.push_back(cResults.cAllHits.size());
    }
    cResults.pCountHits = aOffsets.data();
    SortHitsOnHost(nRays, cResults);
    for (std::uint64_t i = 0; i < nRays; ++i)
        for (std::uint64_t j = aOffsets[i]; j < aOffsets[i + 1]; ++j)
            ASSERT_EQ(cResults.cAllHits[j], static_cast<float>(j - aOffsets[i] + 1)) << "ray " << i;
}

// The stand-in driver's size model: 256 + 64 n output and 256 + 32 n scratch bytes, each rounded up to 128,
// plus 36 n bytes of vertices.
std::size_t ModelBytes(std::size_t n)
{
    const auto RoundUp = [](std::size_t nBytes) { return (nBytes + 127) / 128 * 128; };
    return n == 0 ? 0 : RoundUp(256 + 64 * n) + RoundUp(256 + 32 * n) + 36 * n;
}

class ChunkSizeTest : public StandInTest
{
protected:
    void SetUp() override
    {
        StandInTest::SetUp();
        ASSERT_EQ(optixInit(), OPTIX_SUCCESS);
        ASSERT_EQ(optixDeviceContextCreate(0, nullptr, &m_hContext), OPTIX_SUCCESS);
    }
    void TearDown() override
    {
        optixDeviceContextDestroy(m_hContext);
        StandInTest::TearDown();
    }
    std::pair<std::size_t, std::size_t> Find(std::size_t nTriangles, std::size_t nBudget)
    {
        RayTracingCpu::ResetCallCounts();
        OptixAccelBuildOptions cOptions{};
        cOptions.operation = OPTIX_BUILD_OPERATION_BUILD;
        return FindTriangleChunkSize(m_hContext, nTriangles, nBudget, OPTIX_GEOMETRY_FLAG_NONE, cOptions);
    }
    OptixDeviceContext m_hContext = nullptr;
};

TEST_F(ChunkSizeTest, LargestChunkThatFitsInFewQueries)
{
    EXPECT_EQ(Find(1000, c_nChunkBudgetFloor), std::make_pair(std::size_t(0), std::size_t(0)));
    EXPECT_EQ(RayTracingCpu::CallCount("optixAccelComputeMemoryUsage"), 0u);
    EXPECT_EQ(Find(1000, c_nChunkBudgetFloor + ModelBytes(1000)),
              std::make_pair(std::size_t(1000), ModelBytes(1000)));
    EXPECT_EQ(RayTracingCpu::CallCount("optixAccelComputeMemoryUsage"), 1u);
    for (const std::size_t nInner : {std::size_t(1000000), std::size_t(12345678), std::size_t(500)})
    {
        const auto [nChunk, nBytes] = Find(100000000, c_nChunkBudgetFloor + nInner);
        EXPECT_LE(ModelBytes(nChunk), nInner);
        EXPECT_GT(ModelBytes(nChunk + 1), nInner) << "not the largest";
        EXPECT_EQ(nBytes, ModelBytes(nChunk));
        // The first candidate is inner / 64 triangles: about 2 log2 of it queries at most.
        EXPECT_LE(RayTracingCpu::CallCount("optixAccelComputeMemoryUsage"), 2 * 25u);
    }
    Configure([](RayTracingCpu::DeviceConfig& c) { c.nMaxPrimitivesPerGas = 777; });
    EXPECT_EQ(Find(1000000, std::size_t(4) << 30).first, 777u);
}

// Message forms no library call can reach: a log longer than its buffer, and the context's log lines.
TEST(Messages, TruncatedLogsAreMarkedAndContextLinesHaveFixedFields)
{
    const char aLog[] = "line one\nline two";
    EXPECT_EQ(MakeOptixLogMessage("c", "d.cpp", 9, aLog, 65536, 65537),
              "Optix call 'c' failed: d.cpp:9\nLog:\nline one\nline two<TRUNCATED>\n");
    const char aFull[4] = {'a', 'b', 'c', 'd'}; // a full buffer need not be terminated
    EXPECT_EQ(MakeOptixLogMessage("c", "f", 1, aFull, 4, 100),
              "Optix call 'c' failed: f:1\nLog:\nabcd<TRUNCATED>\n");
    std::deque<std::string> aLines;
    ContextLogCallback(1, "TAG5", "msg", &aLines);
    ContextLogCallback(12, "AVERYLONGTAGNAME", "second", &aLines);
    EXPECT_EQ(aLines,
              (std::deque<std::string>{"[ 1][        TAG5]: msg\n", "[12][AVERYLONGTAGNAME]: second\n"}));
}
} // namespace
