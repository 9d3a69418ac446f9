#include "Mesh.h"
#include "ScratchDirectory.h"
#include "ToolError.h"

#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <unistd.h>

namespace
{
const char* const c_sCubeVertices = "-1 -1 -1\n1 -1 -1\n1 1 -1\n-1 1 -1\n-1 -1 1\n1 -1 1\n1 1 1\n-1 1 1\n";

std::string Base64(const std::string& sBytes)
{
    static const char c_aAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string sText;
    for (std::size_t i = 0; i < sBytes.size(); i += 3)
    {
        const std::size_t nBytes = std::min<std::size_t>(3, sBytes.size() - i);
        std::uint32_t nBits = 0;
        for (std::size_t j = 0; j < 3; ++j)
            nBits = (nBits << 8) | (j < nBytes ? static_cast<unsigned char>(sBytes[i + j]) : 0u);
        for (std::size_t j = 0; j < 4; ++j)
            sText += j <= nBytes ? c_aAlphabet[(nBits >> (18 - 6 * j)) & 63] : '=';
    }
    return sText;
}

std::string BinaryStl(int nFacets)
{
    std::string sFile(80, ' ');
    sFile.replace(0, 6, "binary");
    sFile.append(reinterpret_cast<const char*>(&nFacets), 4);
    for (int i = 0; i < nFacets; ++i)
    {
        const float aFacet[12] = {0, 0, 1, 0, 0, float(i), 1, 0, float(i), 0, 1, float(i)};
        sFile.append(reinterpret_cast<const char*>(aFacet), sizeof(aFacet));
        sFile.append(2, '\0');
    }
    return sFile;
}

void ExpectLoadError(const std::string& sPath, const std::string& sPart)
{
    try
    {
        LoadMesh(sPath);
        ADD_FAILURE() << sPath << " loaded";
    }
    catch (const ToolError& cError)
    {
        EXPECT_NE(std::string(cError.what()).find(sPart), std::string::npos) << cError.what();
        EXPECT_NE(std::string(cError.what()).find(sPath), std::string::npos) << cError.what();
    }
}
} // namespace

TEST(MeshLoading, EachFormatLoadsToItsTriangleCount)
{
    ScratchDirectory cScratch;
    // Quads are triangulated.
    std::string sObjText;
    std::istringstream cVertices(c_sCubeVertices);
    for (std::string sLine; std::getline(cVertices, sLine);)
        sObjText += "v " + sLine + "\n";
    const std::string sObj = cScratch.Write(
        "cube.obj", sObjText + "f 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 2 3 7 6\nf 3 4 8 7\nf 4 1 5 8\n");
    EXPECT_EQ(LoadMesh(sObj).TriangleCount(), 12u);

    const std::string sOff =
        cScratch.Write("cube.off", std::string("OFF\n8 6 0\n") + c_sCubeVertices +
                                       "4 0 3 2 1\n4 4 5 6 7\n4 0 1 5 4\n4 1 2 6 5\n4 2 3 7 6\n4 3 0 4 7\n");
    EXPECT_EQ(LoadMesh(sOff).TriangleCount(), 12u);

    const std::string sPly =
        cScratch.Write("mixed.ply", "ply\nformat ascii 1.0\nelement vertex 4\nproperty float x\n"
                                    "property float y\nproperty float z\nelement face 2\n"
                                    "property list uchar int vertex_indices\nend_header\n"
                                    "0 0 0\n1 0 0\n1 1 0\n0 1 0\n3 0 1 2\n4 0 1 2 3\n");
    EXPECT_EQ(LoadMesh(sPly).TriangleCount(), 3u);

    const std::string sStl = cScratch.Write("five.stl", BinaryStl(5));
    EXPECT_EQ(LoadMesh(sStl).TriangleCount(), 5u);

    // One mesh placed by two nodes: both instances, each at its node's place.
    const float aPositions[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const std::string sBuffer(reinterpret_cast<const char*>(aPositions), sizeof(aPositions));
    const std::string sGltf =
        cScratch.Write("two.gltf",
                       R"({"asset": {"version": "2.0"}, "scene": 0, "scenes": [{"nodes": [0, 1]}],
            "nodes": [{"mesh": 0}, {"mesh": 0, "translation": [10, 0, 0]}],
            "meshes": [{"primitives": [{"attributes": {"POSITION": 0}}]}],
            "buffers": [{"byteLength": 36, "uri": "data:application/octet-stream;base64,)" +
                           Base64(sBuffer) + R"("}],
            "bufferViews": [{"buffer": 0, "byteOffset": 0, "byteLength": 36}],
            "accessors": [{"bufferView": 0, "componentType": 5126, "count": 3, "type": "VEC3",
                           "min": [0, 0, 0], "max": [1, 1, 0]}]})");
    const Mesh cGltf = LoadMesh(sGltf);
    ASSERT_EQ(cGltf.TriangleCount(), 2u);
    const Bounds cBounds = ComputeBounds(cGltf);
    EXPECT_FLOAT_EQ(cBounds.cMin.x, 0.0f);
    EXPECT_FLOAT_EQ(cBounds.cMax.x, 11.0f);
    EXPECT_EQ(cGltf.sPlacement, "node transforms applied");
    EXPECT_EQ(LoadMesh(sOff).sPlacement, "");

    // A COLLADA file in centimetres: the importer scales it to metres, and the summary must say so.
    const std::string sDae = cScratch.Write("cm.dae", R"(<?xml version="1.0"?>
<COLLADA xmlns="http://www.collada.org/2005/11/COLLADASchema" version="1.4.1">
 <asset><unit meter="0.01"/><up_axis>Y_UP</up_axis></asset>
 <library_geometries><geometry id="g"><mesh>
  <source id="p"><float_array id="a" count="9">0 0 0 100 0 0 0 100 0</float_array><technique_common>
   <accessor source="#a" count="3" stride="3"><param name="X" type="float"/><param name="Y" type="float"/>
   <param name="Z" type="float"/></accessor></technique_common></source>
  <vertices id="v"><input semantic="POSITION" source="#p"/></vertices>
  <triangles count="1"><input semantic="VERTEX" source="#v" offset="0"/><p>0 1 2</p></triangles>
 </mesh></geometry></library_geometries>
 <library_visual_scenes><visual_scene id="s"><node><instance_geometry url="#g"/></node></visual_scene>
 </library_visual_scenes><scene><instance_visual_scene url="#s"/></scene></COLLADA>)");
    const Mesh cDae = LoadMesh(sDae);
    EXPECT_FLOAT_EQ(ComputeBounds(cDae).cMax.x, 1.0f);
    EXPECT_EQ(cDae.sPlacement, "COLLADA unit scale 0.01 applied");
}

TEST(MeshLoading, MissingUnreadableOrEmptyMeshesAreRejected)
{
    ScratchDirectory cScratch;
    ExpectLoadError(cScratch.Path("missing.obj"), "no such file");
    std::filesystem::create_directory(cScratch.Path("folder.obj"));
    ExpectLoadError(cScratch.Path("folder.obj"), "is a directory");
    if (geteuid() != 0) // root reads anything
    {
        const std::string sLocked = cScratch.Write("locked.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
        std::filesystem::permissions(sLocked, std::filesystem::perms::none);
        ExpectLoadError(sLocked, "cannot be read");
    }
}

// The importer's internal checks would abort the process; here they fail the import with their text instead.
// (LoadMesh rejects this file before importing it, so the importer is called directly.)
TEST(MeshLoading, ImporterAssertionsFailTheImport)
{
    ScratchDirectory cScratch;
    const std::string sCut =
        cScratch.Write("cut.ply", "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\n"
                                  "property float y\nproperty float z\nelement face 1\n"
                                  "property list uchar int vertex_indices\nend_header\n"
                                  "0 0 0\n1 0 0\n0 1");
    Assimp::Importer cImporter;
    EXPECT_EQ(cImporter.ReadFile(sCut, aiProcess_Triangulate), nullptr);
    EXPECT_NE(std::string(cImporter.GetErrorString()).find("internal check"), std::string::npos)
        << cImporter.GetErrorString();
}
