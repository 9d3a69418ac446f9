#include "PictureLegend.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace
{
// 3x5 glyphs, three bits per row from the top, the leftmost pixel in the highest bit of its row.
std::uint16_t Glyph(char c)
{
    switch (c)
    {
    case '0':
        return 0b111'101'101'101'111;
    case '1':
        return 0b010'110'010'010'111;
    case '2':
        return 0b111'001'111'100'111;
    case '3':
        return 0b111'001'111'001'111;
    case '4':
        return 0b101'101'111'001'001;
    case '5':
        return 0b111'100'111'001'111;
    case '6':
        return 0b111'100'111'101'111;
    case '7':
        return 0b111'001'001'001'001;
    case '8':
        return 0b111'101'111'101'111;
    case '9':
        return 0b111'101'111'001'111;
    case '.':
        return 0b000'000'000'000'010;
    case '-':
        return 0b000'000'111'000'000;
    case '+':
        return 0b000'010'111'010'000;
    case 'e':
        return 0b000'010'111'100'011;
    default:
        return 0;
    }
}

constexpr int c_nGlyphHeight = 5, c_nGlyphAdvance = 4;
// The strip's rows, in font pixels: margin, bar, tick, gap, text, margin.
constexpr int c_nMargin = 3, c_nBar = 6, c_nTick = 2, c_nGap = 1;
constexpr int c_nStripUnits = c_nMargin + c_nBar + c_nTick + c_nGap + c_nGlyphHeight + c_nMargin;

const Rgb c_cBackground{28, 28, 32}, c_cInk{235, 235, 235};

int FontScale(std::uint32_t nWidth)
{
    return std::clamp(static_cast<int>(nWidth / 240), 1, 6);
}
} // namespace

std::uint32_t LegendHeight(std::uint32_t nWidth)
{
    return static_cast<std::uint32_t>(c_nStripUnits * FontScale(nWidth));
}

void AppendLegend(Picture& cPicture, const std::function<Rgb(float)>& fnColour,
                  std::vector<LegendTick> aTicks)
{
    const int nWidth = static_cast<int>(cPicture.cResolution.nWidth);
    const int s = FontScale(cPicture.cResolution.nWidth);
    const int nTop = static_cast<int>(cPicture.cResolution.nHeight);
    cPicture.cResolution.nHeight += LegendHeight(cPicture.cResolution.nWidth);
    cPicture.aRgb.resize(cPicture.cResolution.Pixels() * 3);
    const int nBottom = static_cast<int>(cPicture.cResolution.nHeight);
    const auto Fill = [&](int x, int y, int nW, int nH, const Rgb& cColour)
    {
        for (int iRow = std::max(y, nTop); iRow < std::min(y + nH, nBottom); ++iRow)
            for (int iColumn = std::max(x, 0); iColumn < std::min(x + nW, nWidth); ++iColumn)
                std::copy(cColour.begin(), cColour.end(),
                          cPicture.aRgb.begin() + (static_cast<std::ptrdiff_t>(iRow) * nWidth + iColumn) * 3);
    };
    Fill(0, nTop, nWidth, nBottom - nTop, c_cBackground);

    const int xBar = 4 * s, nBar = nWidth - 8 * s, yBar = nTop + c_nMargin * s;
    if (nBar < 2)
        return;
    for (int i = 0; i < nBar; ++i)
        Fill(xBar + i, yBar, 1, c_nBar * s, fnColour((i + 0.5f) / nBar));

    // The ends first, so that the range is always readable.
    if (aTicks.size() > 2)
        std::rotate(aTicks.begin() + 1, aTicks.end() - 1, aTicks.end());
    std::vector<std::pair<int, int>> aTaken; // columns of the labels drawn
    for (const LegendTick& cTick : aTicks)
    {
        const int xTick =
            xBar + static_cast<int>(std::lround(std::clamp(cTick.fPosition, 0.0f, 1.0f) * (nBar - 1)));
        const int nText = (static_cast<int>(cTick.sLabel.size()) * c_nGlyphAdvance - 1) * s;
        if (nText > nWidth - 2 * s)
            continue;
        const int xText = std::clamp(xTick - nText / 2, s, nWidth - s - nText);
        if (std::any_of(aTaken.begin(), aTaken.end(),
                        [&](const std::pair<int, int>& c)
                        { return xText < c.second + 6 * s && c.first < xText + nText + 6 * s; }))
            continue;
        aTaken.emplace_back(xText, xText + nText);
        const int yTick = yBar + c_nBar * s, yText = yTick + (c_nTick + c_nGap) * s;
        Fill(xTick - s / 2, yTick, s, c_nTick * s, c_cInk);
        for (std::size_t iChar = 0; iChar < cTick.sLabel.size(); ++iChar)
        {
            const std::uint16_t nGlyph = Glyph(cTick.sLabel[iChar]);
            for (int iRow = 0; iRow < c_nGlyphHeight; ++iRow)
                for (int iColumn = 0; iColumn < 3; ++iColumn)
                    if ((nGlyph >> ((4 - iRow) * 3 + (2 - iColumn))) & 1)
                        Fill(xText + (static_cast<int>(iChar) * c_nGlyphAdvance + iColumn) * s,
                             yText + iRow * s, s, s, c_cInk);
        }
    }
}

std::string LegendLabel(double fValue)
{
    char aText[32];
    std::snprintf(aText, sizeof(aText), "%.3g", fValue);
    return aText;
}
