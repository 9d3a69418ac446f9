// The raycast executable as a user meets it: options, bad input, files written.
#include "NpyFile.h"
#include "PictureLegend.h"
#include "ScratchDirectory.h"

#include <gtest/gtest.h>

#define STB_IMAGE_IMPLEMENTATION
#include <stb/stb_image.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <set>
#include <sys/wait.h>

namespace
{
struct Outcome
{
    int nExitCode = -1;
    std::string sOut, sErr;
};

std::string ReadFile(const std::string& sPath)
{
    std::ifstream cFile(sPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(cFile), std::istreambuf_iterator<char>()};
}

class RaycastCommand : public testing::Test
{
protected:
    // Runs in the scratch directory, so relative paths in sArguments name scratch files.
    Outcome Run(const std::string& sArguments, const std::string& sShellPrefix = "") const
    {
        const std::string sCommand = "cd '" + m_cScratch.Path("") + "' && " + sShellPrefix +
                                     "'" RAYCAST_EXECUTABLE "' " + sArguments + " > stdout.txt 2> stderr.txt";
        const int nStatus = std::system(sCommand.c_str());
        Outcome cOutcome;
        cOutcome.nExitCode = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
        cOutcome.sOut = ReadFile(m_cScratch.Path("stdout.txt"));
        cOutcome.sErr = ReadFile(m_cScratch.Path("stderr.txt"));
        return cOutcome;
    }

    void WriteRows(const std::string& sName, const std::vector<float>& aValues, std::uint64_t nColumns) const
    {
        std::vector<std::uint64_t> aShape{aValues.size() / nColumns};
        if (nColumns > 1)
            aShape.push_back(nColumns);
        Npy::Write(m_cScratch.Path(sName), "<f4", aShape, aValues.data(), aValues.size() * sizeof(float));
    }

    template <typename T> std::vector<T> ReadValues(const std::string& sName, const char* sDescr) const
    {
        const Npy::Array cArray = Npy::Read(m_cScratch.Path(sName));
        EXPECT_EQ(cArray.sDescr, sDescr) << sName;
        std::vector<T> aValues(cArray.aData.size() / sizeof(T));
        std::memcpy(aValues.data(), cArray.aData.data(), cArray.aData.size());
        return aValues;
    }

    ScratchDirectory m_cScratch;
};

// Squares across the z axis at z = 5 and z = 8.
const char* const c_sTwoSquares = "v -1 -1 5\nv 1 -1 5\nv 1 1 5\nv -1 1 5\n"
                                  "v -1 -1 8\nv 1 -1 8\nv 1 1 8\nv -1 1 8\nf 1 2 3 4\nf 5 6 7 8\n";
} // namespace

TEST_F(RaycastCommand, BadInputGetsOneClearLineAndAFailingExit)
{
    m_cScratch.Write("squares.obj", c_sTwoSquares);
    WriteRows("dirs.npy", {0, 0, 1, 0, 0, 1, 0, 0, 1}, 3);
    WriteRows("origins2.npy", {0, 0, 0, 0, 0, 0}, 3);
    WriteRows("dist2.npy", {1, 2}, 1);
    WriteRows("nan-dirs.npy", {0, 0, 1, 0, std::numeric_limits<float>::quiet_NaN(), 1}, 3);
    WriteRows("flat.npy", {0, 0, 1, 0, 0, 1}, 1);
    const double aDoubles[3] = {0, 0, 1};
    Npy::Write(m_cScratch.Path("doubles.npy"), "<f8", {1, 3}, aDoubles, sizeof(aDoubles));

    const std::pair<const char*, const char*> aCases[] = {
        {"", "a command is required"},
        {"launch", "launch"},
        {"trace --mesh squares.obj --bogus", "--bogus"},
        {"trace", "--mesh is required"},
        {"trace --mesh missing.obj", "missing.obj: no such file"},
        {"trace --mesh squares.obj --mode fastest", "--mode"},
        {"trace --mesh squares.obj --mesh squares.obj", "--mesh"},
        {"trace --mesh squares.obj --device tpu", "--device"},
        {"trace --mesh squares.obj --directions doubles.npy", "doubles.npy: dtype '<f8' is not float32"},
        {"trace --mesh squares.obj --directions flat.npy", "flat.npy: shape (6,) is not (n, 3)"},
        {"trace --mesh squares.obj --directions dirs.npy --origins origins2.npy",
         "2 origins for 3 directions"},
        {"trace --mesh squares.obj --directions dirs.npy --distances dist2.npy", "2 distances for 3 rays"},
        {"trace --mesh squares.obj --directions nan-dirs.npy", "ray 1 has a non-finite direction"},
        {"trace --mesh squares.obj --origins dirs.npy", "--origins needs --directions"},
        {"trace --mesh squares.obj --directions dirs.npy --rays sphere", "exclude each other"},
        {"trace --mesh squares.obj --directions missing.npy", "cannot open 'missing.npy'"},
        {"trace --mesh squares.obj --max-distance 0", "--max-distance must be greater than 0"},
        {"trace --mesh squares.obj --max-distance -inf", "--max-distance"},
        {"trace --mesh squares.obj --resolution 10by10", "--resolution: '10by10' is not a resolution"},
        {"trace --mesh squares.obj --position 1,2", "--position"},
        {"trace --mesh squares.obj --position 1,nan,2", "--position: coordinates must be finite"},
        {"trace --mesh squares.obj --rays grid --position 1,2,3", "applies to --rays camera only"},
        {"trace --mesh squares.obj --rays sphere --count 0", "--count must be at least 1"},
        {"trace --mesh squares.obj --output no/such/prefix", "directory 'no/such/' does not exist"},
        {"demo --resolution 0x0", "--resolution"},
        {"demo --output-dir no/such", "is not a directory"},
        {"demo --triangles 10", "--triangles"},
    };
    for (const auto& [sArguments, sExpected] : aCases)
    {
        const Outcome cOutcome = Run(sArguments);
        EXPECT_EQ(cOutcome.nExitCode, 1) << sArguments;
        EXPECT_EQ(cOutcome.sErr.rfind("raycast: error: ", 0), 0u) << sArguments << ": " << cOutcome.sErr;
        EXPECT_NE(cOutcome.sErr.find(sExpected), std::string::npos) << sArguments << ": " << cOutcome.sErr;
        EXPECT_EQ(std::count(cOutcome.sErr.begin(), cOutcome.sErr.end(), '\n'), 1)
            << sArguments << ": " << cOutcome.sErr;
    }
    EXPECT_EQ(Run("--help").nExitCode, 0);
}

// Broken mesh files as users meet them, each with the line that must explain it. Outside the sanitizer build
// they run under a 2 GiB address-space limit: a declared count must never turn into an allocation.
TEST_F(RaycastCommand, BrokenMeshFilesGetOneLineAndExitOne)
{
    const auto Raw = [](std::initializer_list<std::uint32_t> aWords)
    {
        std::string sBytes;
        for (std::uint32_t nWord : aWords)
            sBytes.append(reinterpret_cast<const char*>(&nWord), 4);
        return sBytes;
    };
    const auto Ply = [](const char* sFormat, const char* sFaces)
    {
        return std::string("ply\nformat ") + sFormat +
               " 1.0\nelement vertex 4\nproperty float x\nproperty float y\nproperty float z\nelement face " +
               sFaces + "\nproperty list uchar int vertex_indices\nend_header\n";
    };
    const std::string sSquare = "0 0 0\n1 0 0\n1 1 0\n0 1 0\n";
    const std::string sBinaryVertices(48, '\0'), sBinaryFace = "\x03" + Raw({0, 1, 2});
    const auto Stl = [&](std::uint32_t nTriangles, std::size_t nFacetBytes)
    { return std::string(80, ' ') + Raw({nTriangles}) + std::string(nFacetBytes, '\0'); };
    const std::string sOff = "OFF\n4 2 0\n" + sSquare + "3 0 1 2\n3 0 2 3\n";

    const struct
    {
        const char* sName;
        std::string sContent;
        const char* sExpected;
    } aCases[] = {
        {"empty.obj", "", "the file is empty"},
        {"header-cut.ply", Ply("ascii", "2").substr(0, 40), "the PLY header has no end_header line"},
        {"text-cut.ply", Ply("ascii", "2") + sSquare + "3 0 1",
         "declares 4 vertices and 2 faces (one line each) but the file has 5 lines of data"},
        {"line-cut.ply", Ply("ascii", "2") + sSquare + "3 0 1 2\n3 0", "the last line of data is cut short"},
        {"binary-cut.ply", Ply("binary_little_endian", "2") + sBinaryVertices + sBinaryFace + "\x03",
         "declares 4 vertices and 2 faces but the file ends after 1 of the 2 faces"},
        {"absurd.ply", Ply("binary_little_endian", "4000000000") + sBinaryVertices + sBinaryFace,
         "the file ends after 1 of the 4000000000 faces"},
        {"cut.off", sOff.substr(0, sOff.size() - 4), "the last line of data is cut short"},
        {"absurd.off", "OFF\n4 353535235358 0\n" + sSquare + "3 0 1 2\n",
         "declares 4 vertices and 353535235358 faces (one line each) but the file has 5 lines of data"},
        {"cut.obj", "v 0 0 0\nv 1 0 0\nv 1 1", "contains no triangles (points only)"},
        {"binary-cut.stl", Stl(5, 200), "declares 5 triangles (334 bytes) but the file has 284 bytes"},
        {"absurd.stl", Stl(0xFFFFFFF0u, 50), "declares 4294967280 triangles"},
        {"text-cut.stl", "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\n",
         "the ASCII STL does not end with endsolid: the file is truncated"},
        {"cut.gltf", R"({"asset": {"version": "2.0"}, "meshes": [{"primitives": [{"attributes": {"POS)",
         "the glTF JSON ends inside an object, array or string"},
        {"cut.glb", "glTF" + Raw({2, 1000, 600, 0x4E4F534A}) + "{\"asset\"",
         "the GLB header declares 1000 bytes"},
        {"absurd.gltf",
         R"({"asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0]}], "nodes": [{"mesh": 0}],
            "meshes": [{"primitives": [{"attributes": {"POSITION": 0}}]}],
            "buffers": [{"byteLength": 12, "uri": "data:application/octet-stream;base64,AAAAAAAAAAAAAAAA"}],
            "bufferViews": [{"buffer": 0, "byteLength": 12}],
            "accessors": [{"bufferView": 0, "componentType": 5126, "count": 400000000, "type": "VEC3"}]})",
         "is out of range"},
        {"points.ply",
         "ply\nformat ascii 1.0\nelement vertex 2\nproperty float x\nproperty float y\nproperty float z\n"
         "end_header\n0 0 0\n1 0 0\n",
         "contains no triangles (points only)"},
        {"lines.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nl 1 2 3\n", "contains no triangles (lines only)"},
        {"nan.off", "OFF\n3 1 0\n0 0 0\nnan 0 0\n0 1 0\n3 0 1 2\n",
         "a vertex has a non-finite coordinate (nan, 0, 0)"},
        {"index.ply", Ply("ascii", "1") + sSquare + "3 0 1 9\n", "a face refers to vertex 9 of 4"},
        {"noise.xyz", "this is not a mesh\n", "not a mesh format the importer reads"},
        // The importer's COLLADA parser dereferences null on an array without its count.
        {"no-count.dae",
         R"(<?xml version="1.0"?><COLLADA xmlns="http://www.collada.org/2005/11/COLLADASchema" version="1.4.1">
            <library_geometries><geometry id="g"><mesh><source id="p"><float_array id="a">0 0 0 1 0 0 0 1 0</float_array>
            <technique_common><accessor source="#a" count="3" stride="3"><param name="X" type="float"/>
            <param name="Y" type="float"/><param name="Z" type="float"/></accessor></technique_common></source>
            <vertices id="v"><input semantic="POSITION" source="#p"/></vertices><triangles count="1">
            <input semantic="VERTEX" source="#v" offset="0"/><p>0 1 2</p></triangles></mesh></geometry>
            </library_geometries></COLLADA>)",
         "the importer crashed (segmentation fault)"},
    };
#if defined(__SANITIZE_ADDRESS__)
    const std::string sLimit; // the sanitizer reserves terabytes of address space
#else
    const std::string sLimit = "ulimit -v 2097152 && ";
#endif
    for (const auto& cCase : aCases)
    {
        m_cScratch.Write(cCase.sName, cCase.sContent);
        const Outcome cOutcome =
            Run(std::string("trace --device cpu --mesh ") + cCase.sName + " --resolution 8x8", sLimit);
        EXPECT_EQ(cOutcome.nExitCode, 1) << cCase.sName;
        EXPECT_EQ(cOutcome.sErr.rfind(std::string("raycast: error: ") + cCase.sName + ": ", 0), 0u)
            << cCase.sName << ": " << cOutcome.sErr;
        EXPECT_NE(cOutcome.sErr.find(cCase.sExpected), std::string::npos)
            << cCase.sName << ": " << cOutcome.sErr;
        EXPECT_EQ(std::count(cOutcome.sErr.begin(), cOutcome.sErr.end(), '\n'), 1) << cCase.sName;
        EXPECT_EQ(cOutcome.sOut, "") << cCase.sName;
    }
}

#ifdef RAYCAST_HAVE_CPU_FLAVOUR
TEST_F(RaycastCommand, RayFilesTraceToNpyResultsInEveryMode)
{
    m_cScratch.Write("squares.obj", c_sTwoSquares);
    // Through both squares, away from them, and stopped between them; a NaN distance is passed on as it is.
    WriteRows("origins.npy", {0.2f, 0.3f, 0, 0.2f, 0.3f, 0, 0.2f, 0.3f, 0, 0.2f, 0.3f, 0}, 3);
    WriteRows("dirs.npy", {0, 0, 1, 0, 0, -1, 0, 0, 1, 0, 0, 1}, 3);
    WriteRows("dist.npy", {100, 100, 6, std::numeric_limits<float>::quiet_NaN()}, 1);
    const std::string sRays =
        "--mesh squares.obj --origins origins.npy --directions dirs.npy --distances dist.npy "
        "--max-distance 50 --device cpu ";

    Outcome cOutcome = Run("trace " + sRays + "--mode both-index --output r");
    ASSERT_EQ(cOutcome.nExitCode, 0) << cOutcome.sErr;
    EXPECT_NE(cOutcome.sOut.find("flavour: CPU"), std::string::npos) << cOutcome.sOut;
    const std::vector<float> aNearest = ReadValues<float>("r-nearest-distance.npy", "<f4");
    const std::vector<float> aFarthest = ReadValues<float>("r-farthest-distance.npy", "<f4");
    const std::vector<std::int32_t> aNearestIndex = ReadValues<std::int32_t>("r-nearest-index.npy", "<i4");
    ASSERT_EQ(aNearest.size(), 4u);
    EXPECT_FLOAT_EQ(aNearest[0], 5.0f);
    EXPECT_FLOAT_EQ(aFarthest[0], 8.0f);
    EXPECT_FLOAT_EQ(aNearest[1], 50.0f);
    EXPECT_EQ(aNearestIndex[1], -1);
    EXPECT_FLOAT_EQ(aFarthest[2], 5.0f);
    EXPECT_EQ(ReadValues<std::int32_t>("r-farthest-index.npy", "<i4").size(), 4u);

    // All hits in slices of three rays: offsets must continue across the slices.
    cOutcome = Run("trace " + sRays + "--mode all --slice-rays 3 --output a");
    ASSERT_EQ(cOutcome.nExitCode, 0) << cOutcome.sErr;
    const std::vector<std::uint64_t> aOffsets = ReadValues<std::uint64_t>("a-offsets.npy", "<u8");
    const std::vector<float> aHits = ReadValues<float>("a-hits.npy", "<f4");
    ASSERT_EQ(aOffsets.size(), 5u);
    EXPECT_EQ(std::vector<std::uint64_t>(aOffsets.begin(), aOffsets.begin() + 3),
              (std::vector<std::uint64_t>{0, 2, 2}));
    EXPECT_EQ(aOffsets[4], aHits.size());
    ASSERT_GE(aHits.size(), 3u);
    EXPECT_FLOAT_EQ(aHits[0], 5.0f);
    EXPECT_FLOAT_EQ(aHits[1], 8.0f);
    EXPECT_FLOAT_EQ(aHits[2], 5.0f);

    cOutcome = Run("trace " + sRays + "--mode count --output c");
    ASSERT_EQ(cOutcome.nExitCode, 0) << cOutcome.sErr;
    const std::vector<std::uint64_t> aCounts = ReadValues<std::uint64_t>("c-counts.npy", "<u8");
    ASSERT_EQ(aCounts.size(), 4u);
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(aCounts[i], aOffsets[i + 1] - aOffsets[i]) << "ray " << i;
}

TEST_F(RaycastCommand, CameraRaysAndTheDemoWriteValidPictures)
{
    m_cScratch.Write("squares.obj", c_sTwoSquares);
    // Pictures with a scale carry a legend strip under their rows.
    const auto ExpectPicture = [&](const std::string& sName, int nWidth, int nHeight, bool bLegend)
    {
        int nReadWidth = 0, nReadHeight = 0, nChannels = 0;
        unsigned char* pPixels =
            stbi_load(m_cScratch.Path(sName).c_str(), &nReadWidth, &nReadHeight, &nChannels, 3);
        ASSERT_NE(pPixels, nullptr) << sName << ": " << stbi_failure_reason();
        EXPECT_EQ(nReadWidth, nWidth) << sName;
        EXPECT_EQ(nReadHeight, nHeight + (bLegend ? static_cast<int>(LegendHeight(nWidth)) : 0)) << sName;
        // Something is in view: not every pixel has the first pixel's colour.
        const bool bVaried = std::any_of(pPixels, pPixels + nWidth * nHeight * 3,
                                         [&](unsigned char c) { return c != pPixels[0]; });
        EXPECT_TRUE(bVaried) << sName;
        // The strip holds a colour bar and digits, not only its background.
        std::set<std::array<unsigned char, 3>> aColours;
        for (int i = nWidth * nHeight; bLegend && i < nReadWidth * nReadHeight; ++i)
            aColours.insert({pPixels[3 * i], pPixels[3 * i + 1], pPixels[3 * i + 2]});
        EXPECT_GE(aColours.size(), bLegend ? 3u : 0u) << sName;
        stbi_image_free(pPixels);
    };

    Outcome cOutcome =
        Run("trace --mesh squares.obj --mode both-index --resolution 40x30 --device cpu --output cam");
    ASSERT_EQ(cOutcome.nExitCode, 0) << cOutcome.sErr;
    for (const char* sPicture : {"cam-depth.png", "cam-thickness.png"})
        ExpectPicture(sPicture, 40, 30, true);
    ExpectPicture("cam-triangles.png", 40, 30, false);
    cOutcome =
        Run("trace --mesh squares.obj --mode all --rays camera --fov 30 --resolution 20x10 --output hits");
    ASSERT_EQ(cOutcome.nExitCode, 0) << cOutcome.sErr;
    ExpectPicture("hits-hit-count.png", 20, 10, true);

    cOutcome = Run("demo --resolution 64x36 --triangles 5000 --device auto --output-dir .");
    ASSERT_EQ(cOutcome.nExitCode, 0) << cOutcome.sErr;
    for (const char* sMode : {"nearest ", "nearest-index ", "count ", "both "})
        EXPECT_NE(cOutcome.sOut.find(std::string("\n") + sMode), std::string::npos) << cOutcome.sOut;
    EXPECT_NE(cOutcome.sOut.find("flavour: "), std::string::npos) << cOutcome.sOut;
    for (const char* sPicture :
         {"raycast-demo-depth.png", "raycast-demo-hit-count.png", "raycast-demo-thickness.png"})
        ExpectPicture(sPicture, 64, 36, true);
    ExpectPicture("raycast-demo-triangles.png", 64, 36, false);
}
#endif
