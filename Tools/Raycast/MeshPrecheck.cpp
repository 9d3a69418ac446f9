#include "MeshPrecheck.h"

#include "MeshFileScan.h"
#include "PlyPrecheck.h"
#include "ToolError.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <utility>
#include <vector>

namespace
{
// --- OFF ---

// OFF, COFF, NOFF, STOFF, 4OFF, nOFF and their combinations, in the order the prefixes must come.
bool IsOffKeyword(const std::string& sWord, bool& bDimension)
{
    std::size_t i = sWord.compare(0, 2, "ST") == 0 ? 2 : 0;
    for (char cPrefix : {'C', 'N', '4'})
        i += i < sWord.size() && sWord[i] == cPrefix;
    bDimension = i < sWord.size() && sWord[i] == 'n';
    return sWord.compare(i + bDimension, std::string::npos, "OFF") == 0;
}

void CheckOff(BlockReader& cFile, const std::string& sPath)
{
    const std::string sHead = cFile.Text(0, c_nScanBlock);
    std::vector<std::uint64_t> aCounts; // vertices, faces
    bool bFirstWord = true, bDimension = false;
    std::size_t iLine = 0;
    while (aCounts.size() < 2)
    {
        if (iLine >= sHead.size())
            throw ToolError(sPath + ": the OFF header ends before its vertex and face counts");
        const std::size_t iNewline = std::min(sHead.find('\n', iLine), sHead.size());
        std::istringstream cWords(sHead.substr(iLine, iNewline - iLine));
        iLine = iNewline + 1;
        for (std::string sWord; aCounts.size() < 2 && cWords >> sWord;)
        {
            if (sWord[0] == '#')
                break;
            if (std::exchange(bFirstWord, false) && IsOffKeyword(sWord, bDimension))
                continue;
            std::uint64_t nCount = 0;
            if (!ParseCount(sWord, nCount))
                throw ToolError(sPath + ": the OFF header has '" + sWord + "' where a count belongs");
            if (std::exchange(bDimension, false))
                continue;
            aCounts.push_back(nCount);
        }
    }
    const std::uint64_t nNeeded = SaturatingAdd(aCounts[0], aCounts[1]);
    const DataLines cLines = CountDataLines(cFile, iLine, nNeeded, true);
    if (cLines.nCount < nNeeded)
        throw ToolError(sPath + ": the OFF header declares " + Counted(aCounts[0], "vertex") + " and " +
                        Counted(aCounts[1], "face") + " (one line each) but the file has " +
                        std::to_string(cLines.nCount) + " lines of data");
    if (aCounts[1] > 0) // the last line is a face: its index count, then the indices
        CheckLastLine(cFile, cLines, {true}, sPath);
}

// --- STL ---

void CheckStl(BlockReader& cFile, const std::string& sPath)
{
    const std::uint64_t nSize = cFile.Size();
    const std::string sHead = cFile.Text(0, 512);
    const std::size_t iFirst = sHead.find_first_not_of(" \t\r\n");
    const bool bText = iFirst != std::string::npos && sHead.compare(iFirst, 5, "solid") == 0 &&
                       sHead.find('\0') == std::string::npos;
    std::uint64_t nTriangles = 0;
    if (const char* pCount = cFile.At(80, 4))
        for (int iByte = 3; iByte >= 0; --iByte)
            nTriangles = (nTriangles << 8) | static_cast<unsigned char>(pCount[iByte]);
    const std::uint64_t nBinarySize = 84 + 50 * nTriangles;
    if (nSize >= 84 && nBinarySize == nSize)
        return;
    // The importer compares the sizes in 32 bits: a count that wraps to the file's size passes as binary
    // there.
    const bool bImporterTakesBinary =
        nSize >= 84 && static_cast<std::uint32_t>(nBinarySize) == static_cast<std::uint32_t>(nSize);
    if (bText && !bImporterTakesBinary)
    {
        const std::string sTail = cFile.Text(nSize - std::min<std::uint64_t>(nSize, 1024), 1024);
        const std::size_t iEnd = sTail.rfind("endsolid");
        const std::size_t iLast = sTail.find_last_not_of(" \t\r\n");
        if (iEnd == std::string::npos || sTail.find_first_of("\r\n", iEnd) < iLast)
            throw ToolError(sPath + ": the ASCII STL does not end with endsolid: the file is truncated");
        return;
    }
    if (nSize < 84)
        throw ToolError(sPath + ": too short for an STL file (" + std::to_string(nSize) +
                        " bytes; a binary STL header alone is 84)");
    throw ToolError(sPath + ": the binary STL header declares " + Counted(nTriangles, "triangle") + " (" +
                    std::to_string(nBinarySize) + " bytes) but the file has " + std::to_string(nSize) +
                    " bytes");
}

// --- glTF ---

std::uint32_t LittleEndian32(const char* p)
{
    return static_cast<std::uint32_t>(static_cast<unsigned char>(p[0])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(p[1])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(p[2])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(p[3])) << 24;
}

void CheckGlb(BlockReader& cFile, const std::string& sPath)
{
    const char* pHeader = cFile.At(0, 12);
    if (pHeader == nullptr || std::memcmp(pHeader, "glTF", 4) != 0)
        throw ToolError(sPath + ": not a GLB file (it does not start with 'glTF')");
    const std::uint32_t nVersion = LittleEndian32(pHeader + 4), nLength = LittleEndian32(pHeader + 8);
    if (nLength > cFile.Size())
        throw ToolError(sPath + ": the GLB header declares " + std::to_string(nLength) +
                        " bytes but the file has " + std::to_string(cFile.Size()) +
                        ": the file is truncated");
    if (nVersion != 2)
        return;
    for (std::uint64_t iOffset = 12; iOffset + 8 <= nLength;)
    {
        const std::uint32_t nChunk = LittleEndian32(cFile.At(iOffset, 8));
        iOffset += 8;
        if (nChunk > nLength - iOffset)
            throw ToolError(sPath + ": a GLB chunk declares " + std::to_string(nChunk) + " bytes but " +
                            std::to_string(nLength - iOffset) + " are left: the file is truncated");
        iOffset += nChunk;
    }
}

// A glTF's JSON cut short ends inside an object, an array or a string.
void CheckGltfJson(BlockReader& cFile, const std::string& sPath)
{
    std::uint64_t nOpen = 0;
    bool bString = false, bEscape = false;
    for (std::uint64_t iOffset = 0; iOffset < cFile.Size(); iOffset += c_nScanBlock)
    {
        const std::size_t nBytes =
            static_cast<std::size_t>(std::min<std::uint64_t>(c_nScanBlock, cFile.Size() - iOffset));
        const char* pBlock = cFile.At(iOffset, nBytes);
        for (std::size_t i = 0; i < nBytes; ++i)
        {
            const char c = pBlock[i];
            if (bString)
            {
                bString = bEscape || c != '"';
                bEscape = !bEscape && c == '\\';
            }
            else if (c == '"')
                bString = true;
            else if (c == '{' || c == '[')
                ++nOpen;
            else if ((c == '}' || c == ']') && nOpen > 0)
                --nOpen;
        }
    }
    if (nOpen > 0 || bString)
        throw ToolError(sPath +
                        ": the glTF JSON ends inside an object, array or string: the file is truncated");
}

std::string LowerExtension(const std::string& sPath)
{
    const std::size_t iDot = sPath.rfind('.');
    if (iDot == std::string::npos || sPath.find('/', iDot) != std::string::npos)
        return "";
    std::string sExtension = sPath.substr(iDot + 1);
    std::transform(sExtension.begin(), sExtension.end(), sExtension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return sExtension;
}
} // namespace

void PrecheckMeshFile(const std::string& sPath)
{
    BlockReader cFile(sPath);
    // By content where the format has a signature (the importer also finds formats that way), else by name.
    const std::string sHead = cFile.Text(0, 64);
    const std::string sExtension = LowerExtension(sPath);
    std::string sFirstWord;
    std::istringstream(sHead) >> sFirstWord;
    bool bDimension = false;
    if (sExtension == "ply" || (sHead.compare(0, 3, "ply") == 0 && sHead.size() > 3 &&
                                std::isspace(static_cast<unsigned char>(sHead[3]))))
        PrecheckPly(cFile, sPath);
    else if (sExtension == "glb" || sHead.compare(0, 4, "glTF") == 0)
        CheckGlb(cFile, sPath);
    else if (sExtension == "off" || IsOffKeyword(sFirstWord, bDimension))
        CheckOff(cFile, sPath);
    else if (sExtension == "stl")
        CheckStl(cFile, sPath);
    else if (sExtension == "gltf")
        CheckGltfJson(cFile, sPath);
}
