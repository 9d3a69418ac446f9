// The six ways of asking the library, and the arrays each one fills.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class TraceMode
{
    Nearest,      // nearest distance
    NearestIndex, // nearest distance and triangle index
    Both,         // nearest and farthest distances
    BothIndex,    // nearest and farthest distances and indices
    Count,        // number of hits
    All,          // every hit distance, sorted per ray
};

const char* ModeName(TraceMode eMode);
// Throws ToolError for an unknown name.
TraceMode ParseMode(const std::string& sName);
const std::vector<TraceMode>& AllModes();

inline bool HasIndices(TraceMode eMode)
{
    return eMode == TraceMode::NearestIndex || eMode == TraceMode::BothIndex;
}
inline bool HasFarthest(TraceMode eMode)
{
    return eMode == TraceMode::Both || eMode == TraceMode::BothIndex;
}
inline bool IsCounting(TraceMode eMode)
{
    return eMode == TraceMode::Count || eMode == TraceMode::All;
}

struct TraceResults
{
    std::vector<float> aNearestDistance;
    std::vector<std::int32_t> aNearestIndex;
    std::vector<float> aFarthestDistance;
    std::vector<std::int32_t> aFarthestIndex;
    std::vector<std::uint64_t> aCounts; // counts, or in All mode nRays + 1 offsets into aAllHits
    std::vector<float> aAllHits;

    // Sizes the arrays eMode fills for nRays rays and empties the others.
    void Prepare(TraceMode eMode, std::uint64_t nRays);
};
