// Reading and writing NumPy .npy files: little-endian float32, int32 and uint64 arrays of one or two
// dimensions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Npy
{
// One array as stored in a file; aData holds the elements in C order.
struct Array
{
    std::string sDescr; // NumPy type string, e.g. "<f4"
    std::vector<std::uint64_t> aShape;
    std::vector<char> aData;
};

// Throws ToolError naming the file on anything malformed (bad magic, header, truncated data).
Array Read(const std::string& sPath);

// Reads a float32 array of shape (n, nColumns); returns the n * nColumns values.
std::vector<float> ReadFloatRows(const std::string& sPath, std::uint64_t nColumns);
// Reads a float32 array of shape (n).
std::vector<float> ReadFloatVector(const std::string& sPath);

void Write(const std::string& sPath, const std::string& sDescr, const std::vector<std::uint64_t>& aShape,
           const void* pData, std::uint64_t nBytes);

inline void Write(const std::string& sPath, const std::vector<float>& aValues)
{
    Write(sPath, "<f4", {aValues.size()}, aValues.data(), aValues.size() * sizeof(float));
}
inline void Write(const std::string& sPath, const std::vector<std::int32_t>& aValues)
{
    Write(sPath, "<i4", {aValues.size()}, aValues.data(), aValues.size() * sizeof(std::int32_t));
}
inline void Write(const std::string& sPath, const std::vector<std::uint64_t>& aValues)
{
    Write(sPath, "<u8", {aValues.size()}, aValues.data(), aValues.size() * sizeof(std::uint64_t));
}
} // namespace Npy
