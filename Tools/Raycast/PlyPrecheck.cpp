#include "PlyPrecheck.h"

#include "ToolError.h"

#include <algorithm>
#include <sstream>
#include <vector>

namespace
{
struct PlyProperty
{
    unsigned nSize = 0;       // bytes of the value, or of each list item
    unsigned nLengthSize = 0; // bytes of a list's length; 0 for a single value
    bool bSignedLength = false;
};

struct PlyElement
{
    std::string sName;
    std::uint64_t nCount = 0;
    std::vector<PlyProperty> aProperties;
};

unsigned PlyTypeSize(const std::string& sType)
{
    static const std::pair<const char*, unsigned> c_aTypes[] = {
        {"char", 1},  {"uchar", 1},   {"int8", 1},   {"uint8", 1},  {"short", 2}, {"ushort", 2},
        {"int16", 2}, {"uint16", 2},  {"int", 4},    {"uint", 4},   {"int32", 4}, {"uint32", 4},
        {"float", 4}, {"float32", 4}, {"double", 8}, {"float64", 8}};
    for (const auto& [sName, nSize] : c_aTypes)
        if (sType == sName)
            return nSize;
    return 0;
}

std::string DescribeElements(const std::vector<PlyElement>& aElements)
{
    std::string sText;
    for (std::size_t i = 0; i < aElements.size(); ++i)
        sText += (i == 0                      ? ""
                  : i + 1 == aElements.size() ? " and "
                                              : ", ") +
                 Counted(aElements[i].nCount, aElements[i].sName);
    return sText;
}

} // namespace

void PrecheckPly(BlockReader& cFile, const std::string& sPath)
{
    const std::string sHead = cFile.Text(0, c_nScanBlock);
    if (sHead.compare(0, 3, "ply") != 0 || sHead.size() < 4 || (sHead[3] != '\n' && sHead[3] != '\r'))
        throw ToolError(sPath + ": not a PLY file (it does not start with 'ply')");
    std::string sFormat;
    std::vector<PlyElement> aElements;
    std::size_t iLine = 0;
    for (bool bEnd = false; !bEnd;)
    {
        const std::size_t iNewline = sHead.find('\n', iLine);
        if (iNewline == std::string::npos)
            throw ToolError(sPath + (sHead.size() < c_nScanBlock
                                         ? ": the PLY header has no end_header line: the file "
                                           "is truncated"
                                         : ": the PLY header is longer than 1 MiB"));
        std::istringstream cWords(sHead.substr(iLine, iNewline - iLine));
        iLine = iNewline + 1;
        std::string sKeyword, sWord;
        cWords >> sKeyword;
        if (sKeyword == "format")
            cWords >> sFormat;
        else if (sKeyword == "element")
        {
            PlyElement cElement;
            cWords >> cElement.sName >> sWord;
            if (!ParseCount(sWord, cElement.nCount))
                throw ToolError(sPath + ": the PLY element '" + cElement.sName + "' has no valid count");
            aElements.push_back(cElement);
        }
        else if (sKeyword == "property")
        {
            std::string sType, sLengthType;
            cWords >> sType;
            PlyProperty cProperty;
            if (sType == "list")
            {
                cWords >> sLengthType >> sType;
                cProperty.nLengthSize = PlyTypeSize(sLengthType);
                cProperty.bSignedLength = sLengthType.find('u') == std::string::npos;
                if (cProperty.nLengthSize == 0 || cProperty.nLengthSize > 4 || sLengthType.find('f') == 0)
                    throw ToolError(sPath + ": the PLY list length type '" + sLengthType +
                                    "' is not an integer");
            }
            cProperty.nSize = PlyTypeSize(sType);
            if (cProperty.nSize == 0)
                throw ToolError(sPath + ": unknown PLY property type '" + sType + "'");
            if (aElements.empty())
                throw ToolError(sPath + ": a PLY property comes before any element");
            aElements.back().aProperties.push_back(cProperty);
        }
        else if (sKeyword == "end_header")
            bEnd = true;
    }
    for (const PlyElement& cElement : aElements)
        if (cElement.nCount > 0 && cElement.aProperties.empty())
            throw ToolError(sPath + ": the PLY element '" + cElement.sName + "' has no properties");
    const std::string sDeclared = ": the PLY header declares " + DescribeElements(aElements);

    if (sFormat == "ascii")
    {
        // The importer reads one element per line.
        std::uint64_t nNeeded = 0;
        for (const PlyElement& cElement : aElements)
            nNeeded = SaturatingAdd(nNeeded, cElement.nCount);
        const DataLines cLines = CountDataLines(cFile, iLine, nNeeded, false);
        if (cLines.nCount < nNeeded)
            throw ToolError(sPath + sDeclared + " (one line each) but the file has " +
                            std::to_string(cLines.nCount) + " lines of data");
        const auto iLast = std::find_if(aElements.rbegin(), aElements.rend(),
                                        [](const PlyElement& c) { return c.nCount > 0; });
        if (iLast != aElements.rend())
        {
            std::vector<bool> aListAt;
            for (const PlyProperty& cProperty : iLast->aProperties)
                aListAt.push_back(cProperty.nLengthSize > 0);
            CheckLastLine(cFile, cLines, aListAt, sPath);
        }
        return;
    }
    if (sFormat != "binary_little_endian" && sFormat != "binary_big_endian")
        throw ToolError(sPath + ": unknown PLY format '" + sFormat + "'");

    // Walk the binary data, reading only list lengths, to the end of the last element.
    const bool bBigEndian = sFormat == "binary_big_endian";
    const std::uint64_t nSize = cFile.Size();
    std::uint64_t iOffset = iLine;
    for (const PlyElement& cElement : aElements)
    {
        if (cElement.nCount == 0)
            continue;
        const auto EndsAfter = [&](std::uint64_t nComplete)
        {
            return ToolError(sPath + sDeclared + " but the file ends after " + std::to_string(nComplete) +
                             " of the " + Counted(cElement.nCount, cElement.sName));
        };
        const bool bFixed = std::none_of(cElement.aProperties.begin(), cElement.aProperties.end(),
                                         [](const PlyProperty& c) { return c.nLengthSize > 0; });
        if (bFixed)
        {
            std::uint64_t nRow = 0;
            for (const PlyProperty& cProperty : cElement.aProperties)
                nRow += cProperty.nSize;
            const std::uint64_t nFit = (nSize - iOffset) / nRow;
            if (cElement.nCount > nFit)
                throw EndsAfter(nFit);
            iOffset += cElement.nCount * nRow;
            continue;
        }
        for (std::uint64_t i = 0; i < cElement.nCount; ++i)
            for (const PlyProperty& cProperty : cElement.aProperties)
            {
                std::uint64_t nBytes = cProperty.nSize;
                if (cProperty.nLengthSize > 0)
                {
                    const char* pLength = cFile.At(iOffset, cProperty.nLengthSize);
                    if (pLength == nullptr)
                        throw EndsAfter(i);
                    std::uint64_t nLength = 0;
                    for (unsigned iByte = 0; iByte < cProperty.nLengthSize; ++iByte)
                    {
                        const unsigned iFrom = bBigEndian ? iByte : cProperty.nLengthSize - 1 - iByte;
                        nLength = (nLength << 8) | static_cast<unsigned char>(pLength[iFrom]);
                    }
                    if (cProperty.bSignedLength && (nLength >> (8 * cProperty.nLengthSize - 1)) != 0)
                        throw ToolError(sPath + ": " + cElement.sName + " " + std::to_string(i) +
                                        " has a negative list length");
                    iOffset += cProperty.nLengthSize;
                    nBytes = nLength * cProperty.nSize;
                }
                if (nBytes > nSize - iOffset)
                    throw EndsAfter(i);
                iOffset += nBytes;
            }
    }
}
