#include "NpyFile.h"

#include "ToolError.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <limits>
#include <sstream>

namespace Npy
{
namespace
{
const char c_aMagic[] = "\x93NUMPY";
constexpr std::size_t c_nMagic = 6;

// The header is a Python dict literal; these helpers read just the three keys NumPy always writes.
std::string ValueOf(const std::string& sHeader, const std::string& sKey, const std::string& sPath)
{
    std::size_t iKey = sHeader.find("'" + sKey + "'");
    if (iKey == std::string::npos)
        iKey = sHeader.find("\"" + sKey + "\"");
    if (iKey == std::string::npos)
        throw ToolError(sPath + ": .npy header has no '" + sKey + "'");
    std::size_t iValue = sHeader.find(':', iKey);
    if (iValue == std::string::npos)
        throw ToolError(sPath + ": malformed .npy header");
    ++iValue;
    while (iValue < sHeader.size() && std::isspace(static_cast<unsigned char>(sHeader[iValue])))
        ++iValue;
    if (iValue >= sHeader.size())
        throw ToolError(sPath + ": malformed .npy header");
    const char cOpen = sHeader[iValue];
    if (cOpen == '\'' || cOpen == '"' || cOpen == '(')
    {
        const char cClose = cOpen == '(' ? ')' : cOpen;
        const std::size_t iEnd = sHeader.find(cClose, iValue + 1);
        if (iEnd == std::string::npos)
            throw ToolError(sPath + ": malformed .npy header");
        return sHeader.substr(iValue + 1, iEnd - iValue - 1);
    }
    std::size_t iEnd = iValue;
    while (iEnd < sHeader.size() && std::isalnum(static_cast<unsigned char>(sHeader[iEnd])))
        ++iEnd;
    return sHeader.substr(iValue, iEnd - iValue);
}

std::vector<std::uint64_t> ParseShape(const std::string& sShape, const std::string& sPath)
{
    std::vector<std::uint64_t> aShape;
    std::size_t i = 0;
    while (i < sShape.size())
    {
        if (std::isspace(static_cast<unsigned char>(sShape[i])) || sShape[i] == ',')
        {
            ++i;
            continue;
        }
        if (!std::isdigit(static_cast<unsigned char>(sShape[i])))
            throw ToolError(sPath + ": malformed shape (" + sShape + ") in .npy header");
        std::uint64_t nDimension = 0;
        while (i < sShape.size() && std::isdigit(static_cast<unsigned char>(sShape[i])))
        {
            const std::uint64_t nDigit = static_cast<std::uint64_t>(sShape[i] - '0');
            if (nDimension > (std::numeric_limits<std::uint64_t>::max() - nDigit) / 10)
                throw ToolError(sPath + ": shape (" + sShape + ") is too large");
            nDimension = nDimension * 10 + nDigit;
            ++i;
        }
        aShape.push_back(nDimension);
    }
    return aShape;
}

std::uint64_t ElementSize(const std::string& sDescr, const std::string& sPath)
{
    if (sDescr.size() < 3 || (sDescr[0] != '<' && sDescr[0] != '|' && sDescr[0] != '>' && sDescr[0] != '='))
        throw ToolError(sPath + ": unsupported dtype '" + sDescr + "'");
    const std::string sSize = sDescr.substr(2);
    if (sSize.empty() || sSize.size() > 2 || !std::isdigit(static_cast<unsigned char>(sSize[0])))
        throw ToolError(sPath + ": unsupported dtype '" + sDescr + "'");
    return std::stoull(sSize);
}

std::string DescribeShape(const std::vector<std::uint64_t>& aShape)
{
    std::ostringstream cText;
    cText << '(';
    for (std::size_t i = 0; i < aShape.size(); ++i)
        cText << (i ? ", " : "") << aShape[i];
    cText << (aShape.size() == 1 ? ",)" : ")");
    return cText.str();
}

// Fortran-ordered 2-D arrays are legal .npy files; bring them to C order so callers see rows.
void TransposeToRowMajor(Array& cArray, std::uint64_t nElementSize)
{
    const std::uint64_t nRows = cArray.aShape[0];
    const std::uint64_t nColumns = cArray.aShape[1];
    std::vector<char> aRowMajor(cArray.aData.size());
    for (std::uint64_t iRow = 0; iRow < nRows; ++iRow)
        for (std::uint64_t iColumn = 0; iColumn < nColumns; ++iColumn)
            std::memcpy(&aRowMajor[(iRow * nColumns + iColumn) * nElementSize],
                        &cArray.aData[(iColumn * nRows + iRow) * nElementSize], nElementSize);
    cArray.aData.swap(aRowMajor);
}
} // namespace

Array Read(const std::string& sPath)
{
    std::ifstream cFile(sPath, std::ios::binary);
    if (!cFile)
        throw ToolError("cannot open '" + sPath + "'");
    char aPreamble[10] = {};
    cFile.read(aPreamble, sizeof(aPreamble));
    if (cFile.gcount() < 8 || std::memcmp(aPreamble, c_aMagic, c_nMagic) != 0)
        throw ToolError(sPath + ": not a .npy file");
    const int nMajor = static_cast<unsigned char>(aPreamble[6]);
    std::uint64_t nHeaderBytes = 0;
    if (nMajor == 1)
    {
        if (cFile.gcount() < 10)
            throw ToolError(sPath + ": truncated .npy header");
        nHeaderBytes =
            static_cast<unsigned char>(aPreamble[8]) | (static_cast<unsigned char>(aPreamble[9]) << 8);
    }
    else if (nMajor == 2 || nMajor == 3)
    {
        char aLength[2] = {};
        cFile.read(aLength, 2);
        if (cFile.gcount() != 2)
            throw ToolError(sPath + ": truncated .npy header");
        const unsigned char aBytes[4] = {
            static_cast<unsigned char>(aPreamble[8]), static_cast<unsigned char>(aPreamble[9]),
            static_cast<unsigned char>(aLength[0]), static_cast<unsigned char>(aLength[1])};
        nHeaderBytes = aBytes[0] | (aBytes[1] << 8) | (aBytes[2] << 16) | (std::uint64_t(aBytes[3]) << 24);
    }
    else
        throw ToolError(sPath + ": unsupported .npy version " + std::to_string(nMajor));

    // Check against the file before allocating: the length field may be garbage.
    const std::streampos iHeaderStart = cFile.tellg();
    cFile.seekg(0, std::ios::end);
    if (static_cast<std::uint64_t>(cFile.tellg() - iHeaderStart) < nHeaderBytes)
        throw ToolError(sPath + ": truncated .npy header");
    cFile.seekg(iHeaderStart);
    std::string sHeader(nHeaderBytes, '\0');
    cFile.read(sHeader.data(), static_cast<std::streamsize>(nHeaderBytes));
    if (static_cast<std::uint64_t>(cFile.gcount()) != nHeaderBytes)
        throw ToolError(sPath + ": truncated .npy header");

    Array cArray;
    cArray.sDescr = ValueOf(sHeader, "descr", sPath);
    const std::string sFortran = ValueOf(sHeader, "fortran_order", sPath);
    if (sFortran != "False" && sFortran != "True")
        throw ToolError(sPath + ": malformed fortran_order in .npy header");
    cArray.aShape = ParseShape(ValueOf(sHeader, "shape", sPath), sPath);

    const std::uint64_t nElementSize = ElementSize(cArray.sDescr, sPath);
    std::uint64_t nElements = 1;
    for (std::uint64_t nDimension : cArray.aShape)
    {
        if (nDimension != 0 &&
            nElements > std::numeric_limits<std::uint64_t>::max() / nDimension / nElementSize)
            throw ToolError(sPath + ": shape " + DescribeShape(cArray.aShape) + " is too large");
        nElements *= nDimension;
    }
    const std::uint64_t nDataBytes = nElements * nElementSize;

    const std::streampos iDataStart = cFile.tellg();
    cFile.seekg(0, std::ios::end);
    const std::uint64_t nAvailable = static_cast<std::uint64_t>(cFile.tellg() - iDataStart);
    if (nAvailable < nDataBytes)
        throw ToolError(sPath + ": file is truncated (" + std::to_string(nAvailable) +
                        " data bytes for shape " + DescribeShape(cArray.aShape) + ")");
    cFile.seekg(iDataStart);
    cArray.aData.resize(nDataBytes);
    cFile.read(cArray.aData.data(), static_cast<std::streamsize>(nDataBytes));
    if (static_cast<std::uint64_t>(cFile.gcount()) != nDataBytes)
        throw ToolError(sPath + ": read error");

    if (sFortran == "True" && cArray.aShape.size() == 2)
        TransposeToRowMajor(cArray, nElementSize);
    else if (sFortran == "True" && cArray.aShape.size() > 2)
        throw ToolError(sPath + ": Fortran-ordered arrays of more than two dimensions are not supported");
    return cArray;
}

namespace
{
std::vector<float> ReadFloats(const std::string& sPath, const std::vector<std::uint64_t>& aShape)
{
    Array cArray = Read(sPath);
    if (cArray.sDescr != "<f4")
        throw ToolError(sPath + ": dtype '" + cArray.sDescr +
                        "' is not float32 ('<f4'); convert with astype(numpy.float32)");
    // 0 in aShape stands for any length.
    const bool bMatches =
        cArray.aShape.size() == aShape.size() &&
        std::equal(aShape.begin(), aShape.end(), cArray.aShape.begin(),
                   [](std::uint64_t nWanted, std::uint64_t n) { return nWanted == 0 || nWanted == n; });
    if (!bMatches)
        throw ToolError(sPath + ": shape " + DescribeShape(cArray.aShape) + " is not " +
                        (aShape.size() == 1 ? "(n,)" : "(n, " + std::to_string(aShape[1]) + ")"));
    std::vector<float> aValues(cArray.aData.size() / sizeof(float));
    std::memcpy(aValues.data(), cArray.aData.data(), aValues.size() * sizeof(float));
    return aValues;
}
} // namespace

std::vector<float> ReadFloatRows(const std::string& sPath, std::uint64_t nColumns)
{
    return ReadFloats(sPath, {0, nColumns});
}

std::vector<float> ReadFloatVector(const std::string& sPath)
{
    return ReadFloats(sPath, {0});
}

void Write(const std::string& sPath, const std::string& sDescr, const std::vector<std::uint64_t>& aShape,
           const void* pData, std::uint64_t nBytes)
{
    std::string sHeader =
        "{'descr': '" + sDescr + "', 'fortran_order': False, 'shape': " + DescribeShape(aShape) + ", }";
    // Version 1.0: preamble + header padded with spaces to a multiple of 64 bytes, ending in a newline.
    const std::size_t nPreamble = c_nMagic + 4;
    const std::size_t nTotal = (nPreamble + sHeader.size() + 1 + 63) / 64 * 64;
    sHeader.append(nTotal - nPreamble - sHeader.size() - 1, ' ');
    sHeader.push_back('\n');
    if (sHeader.size() > 0xFFFF)
        throw ToolError(sPath + ": .npy header too long");

    std::ofstream cFile(sPath, std::ios::binary | std::ios::trunc);
    if (!cFile)
        throw ToolError("cannot create '" + sPath + "'");
    cFile.write(c_aMagic, c_nMagic);
    const char aVersion[4] = {1, 0, static_cast<char>(sHeader.size() & 0xFF),
                              static_cast<char>(sHeader.size() >> 8)};
    cFile.write(aVersion, 4);
    cFile.write(sHeader.data(), static_cast<std::streamsize>(sHeader.size()));
    cFile.write(static_cast<const char*>(pData), static_cast<std::streamsize>(nBytes));
    cFile.close();
    if (!cFile)
        throw ToolError("cannot write '" + sPath + "'");
}
} // namespace Npy
