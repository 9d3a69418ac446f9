#include "Mesh.h"

#include "ImportCrashGuard.h"
#include "MeshPrecheck.h"
#include "ToolError.h"

#include <assimp/Importer.hpp>
#include <assimp/commonMetaData.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

// The importer's internal checks end in this function, whose own version aborts the process, and the library
// offers no way to install another. It calls it through the dynamic symbol table, so this definition in the
// executable takes its place; ReadFile catches the exception and fails the import with its text.
namespace Assimp
{
__attribute__((visibility("default"))) void aiAssertViolation(const char* sExpression, const char* sFile,
                                                              int iLine);
void aiAssertViolation(const char* sExpression, const char* sFile, int iLine)
{
    const std::string sSource = sFile;
    throw std::runtime_error("the importer failed an internal check (" + std::string(sExpression) + " in " +
                             sSource.substr(sSource.rfind('/') + 1) + ":" + std::to_string(iLine) + ")");
}
} // namespace Assimp

Bounds ComputeBounds(const Mesh& cMesh)
{
    if (cMesh.aTriangles.empty())
        return {{-1.0f, -1.0f, -1.0f}, {1.0f, 1.0f, 1.0f}};
    Bounds cBounds{{cMesh.aTriangles[0], cMesh.aTriangles[1], cMesh.aTriangles[2]},
                   {cMesh.aTriangles[0], cMesh.aTriangles[1], cMesh.aTriangles[2]}};
    for (std::size_t i = 0; i < cMesh.aTriangles.size(); i += 3)
    {
        cBounds.cMin = {std::min(cBounds.cMin.x, cMesh.aTriangles[i]),
                        std::min(cBounds.cMin.y, cMesh.aTriangles[i + 1]),
                        std::min(cBounds.cMin.z, cMesh.aTriangles[i + 2])};
        cBounds.cMax = {std::max(cBounds.cMax.x, cMesh.aTriangles[i]),
                        std::max(cBounds.cMax.y, cMesh.aTriangles[i + 1]),
                        std::max(cBounds.cMax.z, cMesh.aTriangles[i + 2])};
    }
    return cBounds;
}

namespace
{
struct Primitives
{
    std::uint64_t nPoints = 0, nLines = 0;
};

bool IsIdentity(const aiMatrix4x4& cMatrix)
{
    const aiMatrix4x4 cIdentity;
    for (unsigned iRow = 0; iRow < 4; ++iRow)
        for (unsigned iColumn = 0; iColumn < 4; ++iColumn)
            if (std::fabs(cMatrix[iRow][iColumn] - cIdentity[iRow][iColumn]) > 1e-6f)
                return false;
    return true;
}

bool IsFinite(const aiVector3D& cVertex)
{
    return std::isfinite(cVertex.x) && std::isfinite(cVertex.y) && std::isfinite(cVertex.z);
}

void CheckFaceIndices(const aiScene& cScene, const std::string& sPath)
{
    for (unsigned iMesh = 0; iMesh < cScene.mNumMeshes; ++iMesh)
    {
        const aiMesh* pMesh = cScene.mMeshes[iMesh];
        for (unsigned iFace = 0; pMesh != nullptr && iFace < pMesh->mNumFaces; ++iFace)
        {
            const aiFace& cFace = pMesh->mFaces[iFace];
            for (unsigned iCorner = 0; iCorner < cFace.mNumIndices; ++iCorner)
                if (cFace.mIndices[iCorner] >= pMesh->mNumVertices)
                    throw ToolError(sPath + ": a face refers to vertex " +
                                    std::to_string(cFace.mIndices[iCorner]) + " of " +
                                    std::to_string(pMesh->mNumVertices));
        }
    }
}

// Appends the mesh's triangles placed by cTransform; counts its points and lines, which cannot be hit.
void AppendMesh(const aiMesh& cSource, const aiMatrix4x4& cTransform, const std::string& sPath, Mesh& cMesh,
                Primitives& cOthers)
{
    if (cSource.mNumFaces == 0)
        cOthers.nPoints += cSource.mNumVertices; // a point cloud
    for (unsigned iFace = 0; iFace < cSource.mNumFaces; ++iFace)
    {
        const aiFace& cFace = cSource.mFaces[iFace];
        cOthers.nPoints += cFace.mNumIndices == 1;
        cOthers.nLines += cFace.mNumIndices == 2;
        if (cFace.mNumIndices != 3)
            continue;
        for (unsigned iCorner = 0; iCorner < 3; ++iCorner)
        {
            const aiVector3D& cVertex = cSource.mVertices[cFace.mIndices[iCorner]];
            if (!IsFinite(cVertex))
            {
                std::ostringstream cText;
                cText << sPath << ": a vertex has a non-finite coordinate (" << cVertex.x << ", " << cVertex.y
                      << ", " << cVertex.z << ")";
                throw ToolError(cText.str());
            }
            const aiVector3D cPlaced = cTransform * cVertex;
            if (!IsFinite(cPlaced))
                throw ToolError(sPath + ": node transforms take a vertex beyond the float range");
            cMesh.aTriangles.insert(cMesh.aTriangles.end(), {cPlaced.x, cPlaced.y, cPlaced.z});
        }
    }
}

// The importer scales a COLLADA scene's root node by the file's unit (so that lengths are in metres).
float ColladaUnitScale(const aiScene& cScene)
{
    aiString sFormat;
    if (cScene.mMetaData == nullptr || !cScene.mMetaData->Get(AI_METADATA_SOURCE_FORMAT, sFormat) ||
        std::string(sFormat.C_Str()).find("Collada") == std::string::npos)
        return 1.0f;
    const aiMatrix4x4& cRoot = cScene.mRootNode->mTransformation;
    const float fScale = aiVector3D(cRoot.a1, cRoot.b1, cRoot.c1).Length();
    return fScale > 0.0f && std::isfinite(fScale) ? fScale : 1.0f;
}

// One line whatever the importer says.
std::string ImportError(const Assimp::Importer& cImporter)
{
    std::string sError = cImporter.GetErrorString();
    if (sError.rfind("No suitable reader found", 0) == 0)
        return "not a mesh format the importer reads";
    if (sError.find("bad_alloc") != std::string::npos)
        return "out of memory while importing";
    std::replace(sError.begin(), sError.end(), '\n', ' ');
    return sError;
}

// Every instance of every mesh in the node tree, placed by its node's transform, in node order, mesh by mesh,
// face by face (that order numbers the triangles).
Mesh PlaceMeshes(const aiScene& cScene, const std::string& sPath)
{
    const float fUnitScale = ColladaUnitScale(cScene);
    const aiMatrix4x4& cRoot = cScene.mRootNode->mTransformation;
    aiMatrix4x4 cWithoutUnit;
    aiMatrix4x4::Scaling(aiVector3D(1.0f / fUnitScale), cWithoutUnit);
    struct Visit
    {
        const aiNode* pNode;
        aiMatrix4x4 cTransform;
        bool bMoved; // a transform other than the unit scale applies
    };
    // A stack rather than recursion: files can nest deeply.
    std::vector<Visit> aPending{{cScene.mRootNode, cRoot, !IsIdentity(cRoot * cWithoutUnit)}};
    Mesh cMesh;
    Primitives cOthers;
    bool bMoved = false;
    while (!aPending.empty())
    {
        const Visit cVisit = aPending.back();
        aPending.pop_back();
        for (unsigned i = 0; i < cVisit.pNode->mNumMeshes; ++i)
        {
            const unsigned iMesh = cVisit.pNode->mMeshes[i];
            if (iMesh >= cScene.mNumMeshes || cScene.mMeshes[iMesh] == nullptr)
                throw ToolError(sPath + ": a node refers to a missing mesh");
            const std::size_t nBefore = cMesh.aTriangles.size();
            AppendMesh(*cScene.mMeshes[iMesh], cVisit.cTransform, sPath, cMesh, cOthers);
            bMoved = bMoved || (cVisit.bMoved && cMesh.aTriangles.size() > nBefore);
        }
        for (unsigned i = cVisit.pNode->mNumChildren; i-- > 0;)
            if (const aiNode* pChild = cVisit.pNode->mChildren[i])
                aPending.push_back({pChild, cVisit.cTransform * pChild->mTransformation,
                                    cVisit.bMoved || !IsIdentity(pChild->mTransformation)});
    }

    if (cMesh.aTriangles.empty())
        throw ToolError(sPath + ": contains no triangles" +
                        (cOthers.nPoints && cOthers.nLines ? " (points and lines only)"
                         : cOthers.nPoints                 ? " (points only)"
                         : cOthers.nLines                  ? " (lines only)"
                                                           : ""));
    if (std::fabs(fUnitScale - 1.0f) > 1e-6f)
    {
        std::ostringstream cText;
        cText << "COLLADA unit scale " << fUnitScale << " applied";
        cMesh.sPlacement = cText.str();
    }
    if (bMoved)
        cMesh.sPlacement += (cMesh.sPlacement.empty() ? "" : "; ") + std::string("node transforms applied");
    return cMesh;
}
} // namespace

Mesh LoadMesh(const std::string& sPath)
{
    struct stat cStatus = {};
    if (stat(sPath.c_str(), &cStatus) != 0)
        throw ToolError(sPath + ": no such file");
    if (S_ISDIR(cStatus.st_mode))
        throw ToolError(sPath + ": is a directory");
    if (!std::ifstream(sPath))
        throw ToolError(sPath + ": cannot be read");
    if (cStatus.st_size == 0)
        throw ToolError(sPath + ": the file is empty");
    PrecheckMeshFile(sPath);

    Assimp::Importer cImporter;
    const aiScene* pScene = nullptr;
    {
        const ImportCrashGuard cGuard(sPath);
        // Triangulation reads the vertices that polygons refer to, so their indices are checked before it.
        pScene = cImporter.ReadFile(sPath, 0);
        if (pScene == nullptr || pScene->mRootNode == nullptr)
            throw ToolError(sPath + ": cannot be loaded: " + ImportError(cImporter));
        CheckFaceIndices(*pScene, sPath);
        pScene = cImporter.ApplyPostProcessing(aiProcess_Triangulate);
        if (pScene == nullptr)
            throw ToolError(sPath + ": cannot be loaded: " + ImportError(cImporter));
    }
    return PlaceMeshes(*pScene, sPath);
}
