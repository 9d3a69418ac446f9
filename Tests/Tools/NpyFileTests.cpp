#include "NpyFile.h"
#include "ScratchDirectory.h"
#include "ToolError.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

namespace
{
// A .npy file written by hand, for headers our writer never produces.
std::string NpyBytes(int nMajor, const std::string& sHeader, const std::string& sData)
{
    std::string sFile = std::string("\x93NUMPY", 6) + char(nMajor) + '\0';
    const std::size_t nLength = sHeader.size();
    sFile += char(nLength & 0xFF);
    sFile += char((nLength >> 8) & 0xFF);
    if (nMajor >= 2)
        sFile += std::string(2, '\0');
    return sFile + sHeader + sData;
}

std::string FloatBytes(std::initializer_list<float> aValues)
{
    std::string sBytes(aValues.size() * 4, '\0');
    std::memcpy(sBytes.data(), aValues.begin(), sBytes.size());
    return sBytes;
}

template <typename T> std::vector<T> ValuesOf(const Npy::Array& cArray)
{
    std::vector<T> aValues(cArray.aData.size() / sizeof(T));
    std::memcpy(aValues.data(), cArray.aData.data(), cArray.aData.size());
    return aValues;
}

void ExpectError(const std::function<void()>& Action, const std::string& sPart)
{
    try
    {
        Action();
        ADD_FAILURE() << "no error; expected one containing '" << sPart << "'";
    }
    catch (const ToolError& cError)
    {
        EXPECT_NE(std::string(cError.what()).find(sPart), std::string::npos) << cError.what();
    }
}
} // namespace

TEST(NpyFile, EveryResultTypeRoundTripsWithItsDtypeAndShape)
{
    ScratchDirectory cScratch;
    const std::vector<float> aDistances = {1.5f, std::numeric_limits<float>::quiet_NaN(), -3.40282347e+38f,
                                           0.0f};
    const std::vector<std::int32_t> aIndices = {-1, 0, 2147483647};
    const std::vector<std::uint64_t> aCounts = {0, 1, 1ull << 40};
    Npy::Write(cScratch.Path("d.npy"), aDistances);
    Npy::Write(cScratch.Path("i.npy"), aIndices);
    Npy::Write(cScratch.Path("c.npy"), aCounts);
    Npy::Write(cScratch.Path("empty.npy"), std::vector<float>());

    const Npy::Array cDistances = Npy::Read(cScratch.Path("d.npy"));
    EXPECT_EQ(cDistances.sDescr, "<f4");
    EXPECT_EQ(cDistances.aShape, std::vector<std::uint64_t>{4});
    const std::vector<float> aRead = ValuesOf<float>(cDistances);
    EXPECT_EQ(0, std::memcmp(aRead.data(), aDistances.data(), 16)); // bit-exact, NaN included

    const Npy::Array cIndices = Npy::Read(cScratch.Path("i.npy"));
    EXPECT_EQ(cIndices.sDescr, "<i4");
    EXPECT_EQ(ValuesOf<std::int32_t>(cIndices), aIndices);
    const Npy::Array cCounts = Npy::Read(cScratch.Path("c.npy"));
    EXPECT_EQ(cCounts.sDescr, "<u8");
    EXPECT_EQ(ValuesOf<std::uint64_t>(cCounts), aCounts);
    EXPECT_EQ(Npy::Read(cScratch.Path("empty.npy")).aShape, std::vector<std::uint64_t>{0});

    // NumPy needs the data to start on a 64-byte boundary.
    std::ifstream cFile(cScratch.Path("d.npy"), std::ios::binary);
    const std::string sBytes((std::istreambuf_iterator<char>(cFile)), std::istreambuf_iterator<char>());
    EXPECT_EQ((sBytes.size() - 16) % 64, 0u);
    EXPECT_EQ(sBytes[sBytes.size() - 17], '\n');
}

TEST(NpyFile, RowsAreReadFromCAndFortranOrderAndVersionTwoHeaders)
{
    ScratchDirectory cScratch;
    const std::vector<float> aRows = {1, 2, 3, 4, 5, 6};
    Npy::Write(cScratch.Path("c.npy"), "<f4", {2, 3}, aRows.data(), 24);
    EXPECT_EQ(Npy::ReadFloatRows(cScratch.Path("c.npy"), 3), aRows);

    // Column after column on disk: 1 4 | 2 5 | 3 6.
    cScratch.Write("f.npy", NpyBytes(1, "{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }\n",
                                     FloatBytes({1, 4, 2, 5, 3, 6})));
    EXPECT_EQ(Npy::ReadFloatRows(cScratch.Path("f.npy"), 3), aRows);

    cScratch.Write("v2.npy", NpyBytes(2, "{\"descr\": \"<f4\", \"fortran_order\": False, \"shape\": (3,)}\n",
                                      FloatBytes({7, 8, 9})));
    EXPECT_EQ(Npy::ReadFloatVector(cScratch.Path("v2.npy")), (std::vector<float>{7, 8, 9}));
}

TEST(NpyFile, MalformedOrUnsuitableFilesAreNamedInOneLine)
{
    ScratchDirectory cScratch;
    const std::string sHeader3 = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }\n";
    const std::string sDoubles = cScratch.Write(
        "double.npy",
        NpyBytes(1, "{'descr': '<f8', 'fortran_order': False, 'shape': (1, 3), }\n", std::string(24, '\0')));
    const std::string sTwoColumns =
        cScratch.Write("two.npy", NpyBytes(1, "{'descr': '<f4', 'fortran_order': False, 'shape': (3, 2), }\n",
                                           FloatBytes({1, 2, 3, 4, 5, 6})));
    cScratch.Write("short.npy", NpyBytes(1, sHeader3, FloatBytes({1, 2, 3})));
    const std::string sText = cScratch.Write("text.npy", "1,2,3\n");
    const std::string sNoShape =
        cScratch.Write("noshape.npy", NpyBytes(1, "{'descr': '<f4', 'fortran_order': False}\n", ""));
    const std::string sBigEndian =
        cScratch.Write("big.npy", NpyBytes(1, "{'descr': '>f4', 'fortran_order': False, 'shape': (3,), }\n",
                                           FloatBytes({1, 2, 3})));
    const std::string sHuge = cScratch.Write(
        "huge.npy",
        NpyBytes(1, "{'descr': '<f4', 'fortran_order': False, 'shape': (9999999999999999999, 3), }\n", ""));

    ExpectError([&] { Npy::ReadFloatRows(sDoubles, 3); }, "'<f8' is not float32");
    ExpectError([&] { Npy::ReadFloatRows(sTwoColumns, 3); }, "shape (3, 2) is not (n, 3)");
    ExpectError([&] { Npy::ReadFloatRows(cScratch.Path("short.npy"), 3); }, "truncated");
    ExpectError([&] { Npy::ReadFloatVector(sTwoColumns); }, "shape (3, 2) is not (n,)");
    // A column is not a vector: (n, 1) would hide a mix-up of files.
    const std::string sColumn = cScratch.Write(
        "column.npy",
        NpyBytes(1, "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 1), }\n", FloatBytes({7, 8})));
    ExpectError([&] { Npy::ReadFloatVector(sColumn); }, "shape (2, 1) is not (n,)");
    ExpectError([&] { Npy::Read(sText); }, "not a .npy file");
    const std::string sLongHeader =
        cScratch.Write("long.npy", std::string("\x93NUMPY\x02\x00\xF0\xFF\xFF\xFF{}", 14));
    ExpectError([&] { Npy::Read(sLongHeader); }, "truncated .npy header");
    ExpectError([&] { Npy::Read(sNoShape); }, "no 'shape'");
    ExpectError([&] { Npy::ReadFloatVector(sBigEndian); }, "'>f4' is not float32");
    ExpectError([&] { Npy::Read(sHuge); }, "too large");
    ExpectError([&] { Npy::Read(cScratch.Path("missing.npy")); }, "cannot open");
    ExpectError([&] { Npy::Write(cScratch.Path("no/such/dir.npy"), std::vector<float>{1}); },
                "cannot create");
}
