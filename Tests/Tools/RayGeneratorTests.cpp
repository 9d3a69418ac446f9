#include "Rays.h"
#include "ToolError.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace
{
Vec3 DirectionOf(const Rays& cRays, std::uint64_t i)
{
    return {cRays.aDirections[3 * i], cRays.aDirections[3 * i + 1], cRays.aDirections[3 * i + 2]};
}
Vec3 OriginOf(const Rays& cRays, std::uint64_t i)
{
    return {cRays.aOrigins[3 * i], cRays.aOrigins[3 * i + 1], cRays.aOrigins[3 * i + 2]};
}
} // namespace

TEST(RayGenerators, ResolutionsAreWidthByHeightWithinLimits)
{
    const Resolution cResolution = ParseResolution("1920x1080", "--resolution");
    EXPECT_EQ(cResolution.nWidth, 1920u);
    EXPECT_EQ(cResolution.nHeight, 1080u);
    for (const char* sBad : {"", "x", "1920", "1920x", "x1080", "0x10", "10x0", "-5x10", "10x-5", "10x10x",
                             "65537x1", "1920X1080", " 19x10", "19x10 "})
        EXPECT_THROW(ParseResolution(sBad, "--resolution"), ToolError) << "'" << sBad << "'";
}

TEST(RayGenerators, CameraRaysRunRowByRowFromTheTopLeft)
{
    PinholeCamera cCamera;
    cCamera.cPosition = {0, 0, 10};
    cCamera.cLookAt = {0, 0, 0};
    cCamera.fFovDegrees = 90.0f;
    cCamera.cResolution = {4, 3};
    const Rays cRays = GenerateCameraRays(cCamera);
    ASSERT_EQ(cRays.Count(), 12u);
    for (std::uint64_t i = 0; i < cRays.Count(); ++i)
    {
        EXPECT_NEAR(Length(DirectionOf(cRays, i)), 1.0f, 1e-6f);
        EXPECT_FLOAT_EQ(OriginOf(cRays, i).z, 10.0f);
    }
    // The first pixel looks up and left, the last down and right; the middle row straight ahead vertically.
    EXPECT_LT(DirectionOf(cRays, 0).x, 0.0f);
    EXPECT_GT(DirectionOf(cRays, 0).y, 0.0f);
    EXPECT_GT(DirectionOf(cRays, 11).x, 0.0f);
    EXPECT_LT(DirectionOf(cRays, 11).y, 0.0f);
    EXPECT_NEAR(DirectionOf(cRays, 5).y, 0.0f, 1e-6f);
    // 90 degrees vertically: the top row's centre ray is at 45 degrees less half a pixel.
    const float fTopAngle = std::atan2(DirectionOf(cRays, 1).y, -DirectionOf(cRays, 1).z);
    EXPECT_NEAR(fTopAngle, std::atan(2.0f / 3.0f), 1e-3f);

    cCamera.cLookAt = cCamera.cPosition;
    EXPECT_THROW(GenerateCameraRays(cCamera), ToolError);
    cCamera.cLookAt = {0, 0, 0};
    cCamera.cUp = {0, 0, 1}; // parallel to the view: a side vector is chosen instead
    EXPECT_EQ(GenerateCameraRays(cCamera).Count(), 12u);
    cCamera.fFovDegrees = 180.0f;
    EXPECT_THROW(GenerateCameraRays(cCamera), ToolError);
}

TEST(RayGenerators, SphereRaysCoverAllDirectionsEvenly)
{
    const Rays cRays = GenerateSphereRays({1, 2, 3}, 10000);
    ASSERT_EQ(cRays.Count(), 10000u);
    Vec3 cSum;
    int nUpperOctant = 0;
    for (std::uint64_t i = 0; i < cRays.Count(); ++i)
    {
        const Vec3 cDirection = DirectionOf(cRays, i);
        EXPECT_NEAR(Length(cDirection), 1.0f, 1e-5f);
        cSum = cSum + cDirection;
        nUpperOctant += cDirection.x > 0 && cDirection.y > 0 && cDirection.z > 0;
    }
    EXPECT_LT(Length(cSum) / cRays.Count(), 1e-3f);
    EXPECT_NEAR(nUpperOctant, 1250, 40);
    EXPECT_FLOAT_EQ(OriginOf(cRays, 9999).z, 3.0f);
    EXPECT_EQ(GenerateSphereRays({}, 1).Count(), 1u);
}

TEST(RayGenerators, GridRaysAreParallelAndStartOutsideTheBounds)
{
    const Bounds cBounds{{-1, -2, -3}, {1, 2, 3}};
    const Rays cRays = GenerateGridRays(cBounds, {0, 0, -2}, {8, 6});
    ASSERT_EQ(cRays.Count(), 48u);
    for (std::uint64_t i = 0; i < cRays.Count(); ++i)
    {
        EXPECT_FLOAT_EQ(DirectionOf(cRays, i).z, -1.0f);
        EXPECT_GT(OriginOf(cRays, i).z, 3.0f);
    }
    // The grid spans the bounds' shadow: its corners lie beyond the box's corners.
    EXPECT_LT(OriginOf(cRays, 0).x, -1.0f);
    EXPECT_GT(OriginOf(cRays, 0).y, 2.0f);
    EXPECT_GT(OriginOf(cRays, 47).x, 1.0f);
    EXPECT_LT(OriginOf(cRays, 47).y, -2.0f);
    EXPECT_THROW(GenerateGridRays(cBounds, {0, 0, 0}, {8, 6}), ToolError);
}

TEST(RayGenerators, NonFiniteOriginsAndDirectionsAreRejected)
{
    Rays cRays;
    cRays.Add({0, 0, 0}, {0, 0, 1});
    cRays.aDistances = {std::numeric_limits<float>::quiet_NaN()}; // a distance may be anything
    EXPECT_NO_THROW(CheckRaysFinite(cRays));
    cRays.Add({0, std::numeric_limits<float>::infinity(), 0}, {0, 0, 1});
    EXPECT_THROW(CheckRaysFinite(cRays), ToolError);
    cRays.aOrigins.clear();
    EXPECT_NO_THROW(CheckRaysFinite(cRays));
    cRays.aDirections[5] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_THROW(CheckRaysFinite(cRays), ToolError);
}
