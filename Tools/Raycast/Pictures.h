// PNG pictures of per-pixel results of camera rays (one ray per pixel, row after row from the top). The
// depth, hit-count and thickness pictures end in a legend strip below the pixel rows (see PictureLegend.h).
#pragma once

#include "Rays.h"

#include <cstdint>
#include <string>
#include <vector>

struct Picture
{
    Resolution cResolution;
    std::vector<std::uint8_t> aRgb; // 3 bytes per pixel
};

// Nearest distances shaded as a surface: normals from neighbouring hit points, light and distance fog.
Picture ShadeDepth(const Rays& cRays, Resolution cResolution, const std::vector<float>& aNearest,
                   float fMaxDistance);
// Triangle indices hashed to colours; misses black.
Picture ColourIndices(Resolution cResolution, const std::vector<std::int32_t>& aIndices);
// Hit counts as a heat map scaled to the largest count; no hits black.
Picture HeatMap(Resolution cResolution, const std::vector<std::uint64_t>& aCounts);
// Farthest minus nearest distance as a heat map; misses black.
Picture Thickness(Resolution cResolution, const std::vector<float>& aNearest,
                  const std::vector<float>& aFarthest, float fMaxDistance);

// Throws ToolError when the file cannot be written.
void WritePng(const std::string& sPath, const Picture& cPicture);

// Per-ray hit counts from the nRays + 1 offsets of all-hits mode.
std::vector<std::uint64_t> CountsFromOffsets(const std::vector<std::uint64_t>& aOffsets);
