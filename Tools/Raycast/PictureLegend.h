// A strip below a picture that turns its colours back into numbers: the colour scale as a bar, with values
// under it in a small built-in digit font.
#pragma once

#include "Pictures.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

using Rgb = std::array<std::uint8_t, 3>;

struct LegendTick
{
    float fPosition;    // along the bar, 0 (left) to 1 (right)
    std::string sLabel; // digits, '.', '-', '+' and 'e'
};

// Rows of the strip for a picture nWidth pixels wide (the font grows with the width).
std::uint32_t LegendHeight(std::uint32_t nWidth);

// Appends the strip under the picture's rows; fnColour gives the bar's colour at a position from 0 to 1.
// Ticks whose labels would overlap an earlier one are left out, the first and last tick are kept.
void AppendLegend(Picture& cPicture, const std::function<Rgb(float)>& fnColour,
                  std::vector<LegendTick> aTicks);

// A value as a short label: three significant digits.
std::string LegendLabel(double fValue);
