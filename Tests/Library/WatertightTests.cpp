// Rays exactly through the edges and vertices of closed meshes: every crossing of the surface counts once,
// so parity tells inside from outside, whatever the triangle chunks.
#include "StandInTest.h"
#include "TraceCall.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <random>

using TestReference::RaySet;
using TestReference::TriangleSoup;

namespace
{
using Point = std::array<double, 3>;

void PushTriangle(TriangleSoup& cSoup, const Point& a, const Point& b, const Point& c)
{
    for (const Point* p : {&a, &b, &c})
        for (double f : *p)
            cSoup.aVertices.push_back(static_cast<float>(f));
}

void PushRay(RaySet& cRays, const Point& o, const Point& d)
{
    for (int k = 0; k < 3; ++k)
    {
        cRays.aOrigins.push_back(static_cast<float>(o[k]));
        cRays.aDirections.push_back(static_cast<float>(d[k]));
    }
}

// The cube [-n, n]^3, every face cut into unit squares split along a diagonal, facing outwards: rays along
// the axes through integer and half-integer points meet its vertices, edges and diagonals exactly.
TriangleSoup CubeGrid(int n)
{
    TriangleSoup cSoup;
    for (int iAxis = 0; iAxis < 3; ++iAxis)
        for (int iSide : {-1, 1})
            for (int i = -n; i < n; ++i)
                for (int j = -n; j < n; ++j)
                {
                    const auto P = [&](int u, int v)
                    {
                        Point p;
                        p[iAxis] = iSide * n;
                        p[(iAxis + 1) % 3] = u;
                        p[(iAxis + 2) % 3] = v;
                        return p;
                    };
                    if (iSide > 0)
                    {
                        PushTriangle(cSoup, P(i, j), P(i + 1, j), P(i + 1, j + 1));
                        PushTriangle(cSoup, P(i, j), P(i + 1, j + 1), P(i, j + 1));
                    }
                    else
                    {
                        PushTriangle(cSoup, P(i, j), P(i + 1, j + 1), P(i + 1, j));
                        PushTriangle(cSoup, P(i, j), P(i, j + 1), P(i + 1, j + 1));
                    }
                }
    return cSoup;
}

// Latitude-longitude sphere with one vertex at each pole and a seam at longitude 0.
TriangleSoup UvSphere(int nLatitudes, int nLongitudes)
{
    const auto P = [&](int iLatitude, int iLongitude)
    {
        const double fTheta = M_PI * iLatitude / nLatitudes;
        const double fPhi = 2.0 * M_PI * (iLongitude % nLongitudes) / nLongitudes;
        if (iLatitude == 0 || iLatitude == nLatitudes)
            return Point{0.0, 0.0, iLatitude == 0 ? 1.0 : -1.0};
        // Rounded to float once, so that every triangle shares the vertex bit for bit.
        return Point{static_cast<float>(std::sin(fTheta) * std::cos(fPhi)),
                     static_cast<float>(std::sin(fTheta) * std::sin(fPhi)),
                     static_cast<float>(std::cos(fTheta))};
    };
    TriangleSoup cSoup;
    for (int i = 0; i < nLatitudes; ++i)
        for (int j = 0; j < nLongitudes; ++j)
        {
            if (i > 0)
                PushTriangle(cSoup, P(i, j), P(i + 1, j + 1), P(i, j + 1));
            if (i + 1 < nLatitudes)
                PushTriangle(cSoup, P(i, j), P(i + 1, j), P(i + 1, j + 1));
        }
    return cSoup;
}

// An exact rotation scaled by 65: the product of two Pythagorean rotations about random coordinate axes
// (3-4-5 and 5-12-13), so that integer and half-integer points map to integer and half-integer points.
struct ExactRotation
{
    std::array<std::array<int, 3>, 3> m{}; // 65 x the rotation

    explicit ExactRotation(std::uint32_t uSeed)
    {
        std::mt19937 cRandom(uSeed);
        const auto Axis = [](int iAxis, int a, int b, int c)
        {
            std::array<std::array<int, 3>, 3> r{};
            const int u = (iAxis + 1) % 3, v = (iAxis + 2) % 3;
            r[iAxis][iAxis] = c;
            r[u][u] = r[v][v] = a;
            r[u][v] = -b;
            r[v][u] = b;
            return r;
        };
        const auto r1 = Axis(static_cast<int>(cRandom() % 3), 3, 4, 5);
        const auto r2 = Axis(static_cast<int>(cRandom() % 3), 5, 12, 13);
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                for (int k = 0; k < 3; ++k)
                    m[i][j] += r2[i][k] * r1[k][j];
    }
    Point operator()(const Point& p) const
    {
        Point q{};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                q[i] += m[i][j] * p[j];
        return q;
    }
};

TriangleSoup Rotated(const TriangleSoup& cSoup, const ExactRotation& cRotation)
{
    TriangleSoup cRotated;
    for (size_t i = 0; i < cSoup.aVertices.size(); i += 9)
    {
        const auto V = [&](size_t j) {
            return cRotation({cSoup.aVertices[j], cSoup.aVertices[j + 1], cSoup.aVertices[j + 2]});
        };
        PushTriangle(cRotated, V(i), V(i + 3), V(i + 6));
    }
    return cRotated;
}

// Rays with what each must meet: one crossing from inside, none or two from outside (the meshes are convex;
// a ray that only touches the surface meets it twice or not at all).
struct QueryRays
{
    RaySet cRays;
    std::vector<bool> aInside;
};

// From every integer and half-integer point of [-n - 1, n + 1]^3 off the cube's surface, along the six axes.
QueryRays AxisRaysThroughCubeGrid(int n, const std::function<Point(const Point&)>& fnMap)
{
    QueryRays cQuery;
    for (int x = -2 * n - 2; x <= 2 * n + 2; ++x)
        for (int y = -2 * n - 2; y <= 2 * n + 2; ++y)
            for (int z = -2 * n - 2; z <= 2 * n + 2; ++z)
            {
                const int nMax = std::max({std::abs(x), std::abs(y), std::abs(z)});
                if (nMax == 2 * n)
                    continue; // on the surface
                for (int iAxis = 0; iAxis < 3; ++iAxis)
                    for (int iSign : {-1, 1})
                    {
                        Point d{0.0, 0.0, 0.0};
                        d[iAxis] = iSign;
                        PushRay(cQuery.cRays, fnMap({0.5 * x, 0.5 * y, 0.5 * z}), fnMap(d));
                        cQuery.aInside.push_back(nMax < 2 * n);
                    }
            }
    return cQuery;
}

// The least |cosine| between d and the normals of the triangles around vertex iVertex.
double LeastIncidence(const TriangleSoup& cSoup, size_t iVertex, const Point& d)
{
    const float* v = cSoup.aVertices.data() + 3 * iVertex;
    double fLeast = 1.0;
    for (size_t i = 0; i < cSoup.aVertices.size(); i += 9)
    {
        const float* p = cSoup.aVertices.data() + i;
        bool bAround = false;
        for (int j = 0; j < 9; j += 3)
            bAround |= p[j] == v[0] && p[j + 1] == v[1] && p[j + 2] == v[2];
        if (!bAround)
            continue;
        const Point e1{p[3] - p[0], p[4] - p[1], p[5] - p[2]}, e2{p[6] - p[0], p[7] - p[1], p[8] - p[2]};
        const Point n{e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                      e1[0] * e2[1] - e1[1] * e2[0]};
        const double fDot = n[0] * d[0] + n[1] * d[1] + n[2] * d[2];
        fLeast = std::min(fLeast, std::fabs(fDot) / std::sqrt((n[0] * n[0] + n[1] * n[1] + n[2] * n[2]) *
                                                              (d[0] * d[0] + d[1] * d[1] + d[2] * d[2])));
    }
    return fLeast;
}

// From a grid of points well inside or well outside a unit sphere, aimed exactly at mesh vertices, and
// along the polar axis. Rays from outside that meet a triangle around the vertex within 10 degrees of its
// plane are left out: at such grazing angles Embree may not present every triangle the exact test owns.
QueryRays RaysAtVertices(const TriangleSoup& cSoup)
{
    QueryRays cQuery;
    const size_t nVertices = cSoup.aVertices.size() / 3;
    size_t iVertex = 0;
    for (double x = -1.5; x <= 1.5; x += 0.3)
        for (double y = -1.5; y <= 1.5; y += 0.3)
            for (double z = -1.5; z <= 1.5; z += 0.3)
            {
                const double fRadius = std::sqrt(x * x + y * y + z * z);
                if (fRadius > 0.8 && fRadius < 1.2)
                    continue;
                for (int i = 0; i < 4; ++i, iVertex = (iVertex + 7919) % nVertices)
                {
                    const float* v = cSoup.aVertices.data() + 3 * iVertex;
                    const Point d{v[0] - static_cast<float>(x), v[1] - static_cast<float>(y),
                                  v[2] - static_cast<float>(z)};
                    if (fRadius > 1.0 && LeastIncidence(cSoup, iVertex, d) < std::sin(10.0 * M_PI / 180.0))
                        continue;
                    PushRay(cQuery.cRays, {x, y, z}, d);
                    cQuery.aInside.push_back(fRadius < 1.0);
                }
            }
    for (double z : {-1.5, -0.5, 0.0, 0.5, 1.5})
        for (double fSign : {-1.0, 1.0})
        {
            PushRay(cQuery.cRays, {0.0, 0.0, z}, {0.0, 0.0, fSign});
            cQuery.aInside.push_back(std::fabs(z) < 1.0);
        }
    return cQuery;
}

struct WatertightCase
{
    const char* sName;
    std::function<TriangleSoup()> fnSoup;
    std::function<QueryRays(const TriangleSoup&)> fnRays;
};

void PrintTo(const WatertightCase& cCase, std::ostream* pStream)
{
    *pStream << cCase.sName;
}

QueryRays CubeRays(const TriangleSoup&)
{
    return AxisRaysThroughCubeGrid(2, [](const Point& p) { return p; });
}

WatertightCase RotatedCube(const char* sName, std::uint32_t uSeed)
{
    const ExactRotation cRotation(uSeed);
    return {sName, [=]() { return Rotated(CubeGrid(2), cRotation); },
            [=](const TriangleSoup&) { return AxisRaysThroughCubeGrid(2, cRotation); }};
}

const WatertightCase c_aCases[] = {
    {"CubeGrid", []() { return CubeGrid(2); }, CubeRays},
    RotatedCube("RotatedCubeA", 1),
    RotatedCube("RotatedCubeB", 2),
    RotatedCube("RotatedCubeC", 3),
    {"UvSphere", []() { return UvSphere(12, 16); }, RaysAtVertices},
    {"Icosphere", []() { return TestReference::MakeIcosphere(3, 1.0f); }, RaysAtVertices},
};

class WatertightTest : public StandInTest, public ::testing::WithParamInterface<WatertightCase>
{
protected:
    TraceOutcome Trace(TraceMode eMode, const TriangleSoup& cSoup, const RaySet& cRays,
                       std::uint32_t nPerChunk)
    {
        Configure([&](RayTracingCpu::DeviceConfig& c) { c.nMaxPrimitivesPerGas = nPerChunk; });
        TraceOutcome cOutcome = RunTrace(eMode, TraceRequest(cSoup, cRays));
        EXPECT_EQ(cOutcome.eResult, Success) << cOutcome.sError;
        return cOutcome;
    }
};

TEST_P(WatertightTest, EveryCrossingCountsOnceInOneOrManyChunks)
{
    const TriangleSoup cSoup = GetParam().fnSoup();
    const QueryRays cQuery = GetParam().fnRays(cSoup);
    const TraceOutcome cWhole = Trace(TraceMode::HitCount, cSoup, cQuery.cRays, 1u << 29);
    const TraceOutcome cChunked = Trace(TraceMode::HitCount, cSoup, cQuery.cRays, 37);
    const TraceOutcome cBoth = Trace(TraceMode::BothDistances, cSoup, cQuery.cRays, 1u << 29);
    ASSERT_EQ(cWhole.aCountHits.size(), cQuery.aInside.size());
    size_t nInside = 0;
    for (size_t i = 0; i < cQuery.aInside.size(); ++i)
    {
        const std::uint64_t nCount = cWhole.aCountHits[i];
        if (cQuery.aInside[i])
        {
            ++nInside;
            ASSERT_EQ(nCount, 1u) << "ray " << i << " starts inside";
            ASSERT_NE(FloatBits(cBoth.aLastHit[i]), c_uNoFarthestHitBits)
                << "ray " << i << " has no farthest hit";
        }
        else
            ASSERT_TRUE(nCount == 0 || nCount == 2) << "ray " << i << " from outside counts " << nCount;
        ASSERT_EQ(cChunked.aCountHits[i], nCount) << "ray " << i << " in chunks";
    }
    EXPECT_GT(nInside, 0u);
    EXPECT_LT(nInside, cQuery.aInside.size());
}

INSTANTIATE_TEST_SUITE_P(ClosedMeshes, WatertightTest, ::testing::ValuesIn(c_aCases),
                         [](const auto& cInfo) { return std::string(cInfo.param.sName); });

TEST_F(StandInTest, CoincidentTrianglesStillCountSeparately)
{
    TriangleSoup cTwice = CubeGrid(2);
    cTwice.Append(CubeGrid(2));
    const QueryRays cQuery = AxisRaysThroughCubeGrid(2, [](const Point& p) { return p; });
    const TraceOutcome cOutcome = RunTrace(TraceMode::HitCount, TraceRequest(cTwice, cQuery.cRays));
    ASSERT_EQ(cOutcome.eResult, Success) << cOutcome.sError;
    for (size_t i = 0; i < cQuery.aInside.size(); ++i)
        if (cQuery.aInside[i])
            ASSERT_EQ(cOutcome.aCountHits[i], 2u) << "ray " << i;
        else
            ASSERT_EQ(cOutcome.aCountHits[i] % 2, 0u) << "ray " << i;
}

// A million rays from inside a closed sphere of a million triangles: exactly a million crossings.
TEST_F(StandInTest, MillionInsideRaysOfAMillionTriangleSphereCrossItOnceEach)
{
    const TriangleSoup cSphere = UvSphere(501, 1000);
    ASSERT_EQ(cSphere.Count(), 1000000u);
    RaySet cRays = TestReference::MakeRaysInside(1000000, 7, 0.9f);
    const TraceOutcome cCount = RunTrace(TraceMode::HitCount, TraceRequest(cSphere, cRays));
    const TraceOutcome cBoth = RunTrace(TraceMode::BothDistances, TraceRequest(cSphere, cRays));
    ASSERT_EQ(cCount.eResult, Success) << cCount.sError;
    std::uint64_t nHits = 0, nWithoutFarthest = 0;
    for (size_t i = 0; i < cRays.Count(); ++i)
    {
        nHits += cCount.aCountHits[i];
        nWithoutFarthest += FloatBits(cBoth.aLastHit[i]) == c_uNoFarthestHitBits;
    }
    EXPECT_EQ(nHits, 1000000u);
    EXPECT_EQ(nWithoutFarthest, 0u);
}
} // namespace
