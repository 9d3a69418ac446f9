#include "Mesh.h"

#include "ToolError.h"

#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <sys/stat.h>

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

Mesh LoadMesh(const std::string& sPath)
{
    struct stat cStatus = {};
    if (stat(sPath.c_str(), &cStatus) != 0)
        throw ToolError("mesh '" + sPath + "' does not exist");
    if (S_ISDIR(cStatus.st_mode))
        throw ToolError("mesh '" + sPath + "' is a directory");
    if (!std::ifstream(sPath))
        throw ToolError("mesh '" + sPath + "' cannot be read");
    if (cStatus.st_size == 0)
        throw ToolError("mesh '" + sPath + "' is empty");

    Assimp::Importer cImporter;
    // Pre-transforming bakes the node hierarchy into the vertices, so merging meshes keeps their placement.
    const aiScene* pScene = cImporter.ReadFile(sPath, aiProcess_Triangulate | aiProcess_PreTransformVertices);
    if (pScene == nullptr)
        throw ToolError("mesh '" + sPath + "' cannot be loaded: " + cImporter.GetErrorString());

    Mesh cMesh;
    for (unsigned iMesh = 0; iMesh < pScene->mNumMeshes; ++iMesh)
    {
        const aiMesh* pMesh = pScene->mMeshes[iMesh];
        for (unsigned iFace = 0; iFace < pMesh->mNumFaces; ++iFace)
        {
            const aiFace& cFace = pMesh->mFaces[iFace];
            if (cFace.mNumIndices != 3) // points and lines survive triangulation; they cannot be hit
                continue;
            for (unsigned iCorner = 0; iCorner < 3; ++iCorner)
            {
                const aiVector3D& cVertex = pMesh->mVertices[cFace.mIndices[iCorner]];
                if (!std::isfinite(cVertex.x) || !std::isfinite(cVertex.y) || !std::isfinite(cVertex.z))
                    throw ToolError("mesh '" + sPath + "' has a non-finite vertex coordinate");
                cMesh.aTriangles.insert(cMesh.aTriangles.end(), {cVertex.x, cVertex.y, cVertex.z});
            }
        }
    }
    if (cMesh.aTriangles.empty())
        throw ToolError("mesh '" + sPath + "' contains no triangles");
    return cMesh;
}
