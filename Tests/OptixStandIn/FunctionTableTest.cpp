#include <gtest/gtest.h>

#include "StandInHarness.h"

namespace
{
TEST(FunctionTable, RefusesOtherAbiSizeAndOptions)
{
    OptixFunctionTable cTable{};
    EXPECT_EQ(optixQueryFunctionTable(93, 0, nullptr, nullptr, &cTable, sizeof(cTable)),
              OPTIX_ERROR_UNSUPPORTED_ABI_VERSION);
    EXPECT_EQ(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, 400),
              OPTIX_ERROR_FUNCTION_TABLE_SIZE_MISMATCH);
    OptixQueryFunctionTableOptions aKeys[1] = {static_cast<OptixQueryFunctionTableOptions>(7)};
    EXPECT_EQ(optixQueryFunctionTable(OPTIX_ABI_VERSION, 1, aKeys, nullptr, &cTable, sizeof(cTable)),
              OPTIX_ERROR_INVALID_ENTRY_FUNCTION_OPTIONS);
    EXPECT_EQ(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, nullptr, sizeof(cTable)),
              OPTIX_ERROR_INVALID_VALUE);
    EXPECT_EQ(cTable.optixLaunch, nullptr) << "a refused query leaves the table alone";
}

TEST(FunctionTable, InjectedRefusalHitsOnlyTheChosenCall)
{
    OptixFunctionTable cTable{};
    Control().InjectFault("optixQueryFunctionTable", 2, OPTIX_ERROR_UNSUPPORTED_ABI_VERSION);
    EXPECT_EQ(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, sizeof(cTable)),
              OPTIX_SUCCESS);
    EXPECT_EQ(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, sizeof(cTable)),
              OPTIX_ERROR_UNSUPPORTED_ABI_VERSION);
    EXPECT_EQ(optixQueryFunctionTable(OPTIX_ABI_VERSION, 0, nullptr, nullptr, &cTable, sizeof(cTable)),
              OPTIX_SUCCESS);
}

TEST(FunctionTable, FillsEverySlotAndAnswersErrorTexts)
{
    const OptixFunctionTable& cTable = Optix();
    const auto* aSlots = reinterpret_cast<void* const*>(&cTable);
    for (size_t i = 0; i < sizeof(OptixFunctionTable) / sizeof(void*); ++i)
        EXPECT_NE(aSlots[i], nullptr) << "slot " << i;
    // A slot the stand-in does not serve refuses instead of crashing.
    const auto fnDenoiserCreate = reinterpret_cast<OptixResult (*)()>(cTable.optixDenoiserCreate);
    EXPECT_EQ(fnDenoiserCreate(), OPTIX_ERROR_NOT_SUPPORTED);

    EXPECT_STREQ(cTable.optixGetErrorName(OPTIX_ERROR_INVALID_VALUE), "OPTIX_ERROR_INVALID_VALUE");
    EXPECT_STREQ(cTable.optixGetErrorString(OPTIX_ERROR_INVALID_VALUE), "Invalid value");
    EXPECT_STREQ(cTable.optixGetErrorName(OPTIX_ERROR_INVALID_POINTER), "OPTIX_ERROR_INVALID_POINTER");
    EXPECT_STREQ(cTable.optixGetErrorString(OPTIX_ERROR_LIBRARY_NOT_FOUND), "Library not found");
    EXPECT_STREQ(cTable.optixGetErrorName(static_cast<OptixResult>(1234)), "Unrecognized OptixResult code");
    EXPECT_STREQ(cTable.optixGetErrorString(static_cast<OptixResult>(1234)), "Unrecognized OptixResult code");
}
} // namespace
