#include "MeshFileScan.h"

#include "ToolError.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <sstream>

BlockReader::BlockReader(const std::string& sPath) : m_cFile(sPath, std::ios::binary), m_sPath(sPath)
{
    m_cFile.seekg(0, std::ios::end);
    if (!m_cFile)
        throw ToolError(sPath + ": cannot be read");
    m_nSize = static_cast<std::uint64_t>(m_cFile.tellg());
}

const char* BlockReader::At(std::uint64_t iOffset, std::size_t nBytes)
{
    if (iOffset > m_nSize || nBytes > m_nSize - iOffset)
        return nullptr;
    if (iOffset < m_iStart || iOffset + nBytes > m_iStart + m_aBlock.size())
    {
        m_aBlock.resize(static_cast<std::size_t>(std::min<std::uint64_t>(c_nScanBlock, m_nSize - iOffset)));
        m_cFile.clear();
        m_cFile.seekg(static_cast<std::streamoff>(iOffset));
        m_cFile.read(m_aBlock.data(), static_cast<std::streamsize>(m_aBlock.size()));
        if (static_cast<std::size_t>(m_cFile.gcount()) != m_aBlock.size())
            throw ToolError(m_sPath + ": read error");
        m_iStart = iOffset;
    }
    return m_aBlock.data() + (iOffset - m_iStart);
}

std::string BlockReader::Text(std::uint64_t iOffset, std::size_t nBytes)
{
    nBytes = static_cast<std::size_t>(std::min<std::uint64_t>(nBytes, m_nSize - std::min(iOffset, m_nSize)));
    const char* p = At(iOffset, nBytes);
    return p == nullptr ? std::string() : std::string(p, nBytes);
}

std::uint64_t SaturatingAdd(std::uint64_t a, std::uint64_t b)
{
    return a > std::numeric_limits<std::uint64_t>::max() - b ? std::numeric_limits<std::uint64_t>::max()
                                                             : a + b;
}

bool ParseCount(const std::string& sWord, std::uint64_t& nCount)
{
    if (sWord.empty() || sWord.size() > 19 ||
        !std::all_of(sWord.begin(), sWord.end(),
                     [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }))
        return false;
    nCount = std::stoull(sWord);
    return true;
}

std::string Counted(std::uint64_t nCount, const std::string& sName)
{
    return std::to_string(nCount) + " " +
           (nCount == 1         ? sName
            : sName == "vertex" ? std::string("vertices")
                                : sName + "s");
}

DataLines CountDataLines(BlockReader& cFile, std::uint64_t iOffset, std::uint64_t nEnough, bool bSkipComments)
{
    enum class Line
    {
        Blank,
        Data,
        Comment
    } eLine = Line::Blank;
    DataLines cLines;
    for (; iOffset < cFile.Size(); iOffset += c_nScanBlock)
    {
        const std::size_t nBytes =
            static_cast<std::size_t>(std::min<std::uint64_t>(c_nScanBlock, cFile.Size() - iOffset));
        const char* pBlock = cFile.At(iOffset, nBytes);
        for (std::size_t i = 0; i < nBytes; ++i)
        {
            const char c = pBlock[i];
            if (c == '\n' || c == '\r')
            {
                if (eLine == Line::Data && ++cLines.nCount == nEnough)
                    return cLines;
                eLine = Line::Blank;
            }
            else if (eLine == Line::Blank && !std::isspace(static_cast<unsigned char>(c)))
            {
                eLine = bSkipComments && c == '#' ? Line::Comment : Line::Data;
                cLines.iLastStart = iOffset + i;
            }
        }
    }
    cLines.nCount += eLine == Line::Data;
    return cLines;
}

namespace
{
// The words of the line at iOffset; none when it is too long to tell.
std::vector<std::string> WordsOfLine(BlockReader& cFile, std::uint64_t iOffset)
{
    constexpr std::size_t c_nLongest = 1 << 16;
    const std::string sText = cFile.Text(iOffset, c_nLongest);
    const std::size_t iEnd = sText.find_first_of("\r\n");
    if (iEnd == std::string::npos && sText.size() == c_nLongest)
        return {};
    std::istringstream cLine(sText.substr(0, iEnd));
    std::vector<std::string> aWords;
    for (std::string sWord; cLine >> sWord;)
        aWords.push_back(sWord);
    return aWords;
}
} // namespace

void CheckLastLine(BlockReader& cFile, const DataLines& cLines, const std::vector<bool>& aListAt,
                   const std::string& sPath)
{
    const std::vector<std::string> aWords = WordsOfLine(cFile, cLines.iLastStart);
    if (aWords.empty())
        return;
    std::uint64_t nWords = 0;
    for (bool bList : aListAt)
    {
        std::uint64_t nLength = 0;
        if (bList && nWords < aWords.size() && !ParseCount(aWords[nWords], nLength))
            return; // not a count: the importer will say what is wrong
        nWords = SaturatingAdd(nWords, 1 + nLength);
    }
    if (nWords > aWords.size())
        throw ToolError(sPath + ": the last line of data is cut short: the file is truncated");
}
