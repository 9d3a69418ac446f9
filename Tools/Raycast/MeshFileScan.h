// Cheap reading of mesh files for the checks made before import: a file of any size through one block of
// memory, and counts of lines and words in text formats.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

constexpr std::size_t c_nScanBlock = 1 << 20;

// Reads a file at (mostly) increasing offsets through one block of memory.
class BlockReader
{
public:
    // Throws ToolError when the file cannot be read.
    explicit BlockReader(const std::string& sPath);

    std::uint64_t Size() const { return m_nSize; }
    // nBytes (at most a block) at iOffset, or nullptr when the file ends first.
    const char* At(std::uint64_t iOffset, std::size_t nBytes);
    // Up to nBytes (at most a block) from iOffset.
    std::string Text(std::uint64_t iOffset, std::size_t nBytes);

private:
    std::ifstream m_cFile;
    std::string m_sPath;
    std::uint64_t m_nSize = 0;
    std::uint64_t m_iStart = 0;
    std::vector<char> m_aBlock;
};

std::uint64_t SaturatingAdd(std::uint64_t a, std::uint64_t b);

// A decimal count without sign; false for anything else or more than 64 bits.
bool ParseCount(const std::string& sWord, std::uint64_t& nCount);

// "1 face", "8 vertices", "2 edges".
std::string Counted(std::uint64_t nCount, const std::string& sName);

struct DataLines
{
    std::uint64_t nCount = 0;     // at most the number asked for
    std::uint64_t iLastStart = 0; // offset of the last line counted
};

// Lines holding more than whitespace (and, with bSkipComments, not starting with '#') from iOffset on, up to
// nEnough of them.
DataLines CountDataLines(BlockReader& cFile, std::uint64_t iOffset, std::uint64_t nEnough,
                         bool bSkipComments);

// A file cut inside its last line still has enough lines: that line must hold as many words as it declares.
// aListAt: for each value of the line, whether it is a list length (followed by that many values). Throws
// ToolError starting with sPath.
void CheckLastLine(BlockReader& cFile, const DataLines& cLines, const std::vector<bool>& aListAt,
                   const std::string& sPath);
