#include "Pictures.h"

#include "PictureLegend.h"
#include "ToolError.h"

#include <algorithm>
#include <cmath>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>

namespace
{
struct Colour
{
    float r, g, b;
};

Colour Mix(Colour a, Colour b, float f)
{
    return {a.r + (b.r - a.r) * f, a.g + (b.g - a.g) * f, a.b + (b.b - a.b) * f};
}

// A perceptually ordered black-purple-orange-yellow ramp for f in [0, 1].
Colour Ramp(float f)
{
    static const Colour c_aStops[] = {{0.00f, 0.00f, 0.02f},
                                      {0.34f, 0.06f, 0.43f},
                                      {0.74f, 0.22f, 0.33f},
                                      {0.98f, 0.56f, 0.04f},
                                      {0.99f, 1.00f, 0.64f}};
    f = std::clamp(f, 0.0f, 1.0f) * 4.0f;
    const int i = std::min(static_cast<int>(f), 3);
    return Mix(c_aStops[i], c_aStops[i + 1], f - i);
}

Picture Blank(Resolution cResolution)
{
    return {cResolution, std::vector<std::uint8_t>(cResolution.Pixels() * 3, 0)};
}

Rgb ToRgb(Colour cColour)
{
    const auto Byte = [](float f)
    { return static_cast<std::uint8_t>(std::clamp(f, 0.0f, 1.0f) * 255.0f + 0.5f); };
    return {Byte(cColour.r), Byte(cColour.g), Byte(cColour.b)};
}

void Put(Picture& cPicture, std::uint64_t iPixel, Colour cColour)
{
    const Rgb cRgb = ToRgb(cColour);
    std::copy(cRgb.begin(), cRgb.end(), cPicture.aRgb.begin() + static_cast<std::ptrdiff_t>(iPixel * 3));
}

// Ticks at nTicks evenly spaced positions for values from fLow to fHigh.
std::vector<LegendTick> EvenTicks(double fLow, double fHigh, int nTicks)
{
    std::vector<LegendTick> aTicks;
    for (int i = 0; i < nTicks; ++i)
    {
        const float fPosition = nTicks > 1 ? static_cast<float>(i) / static_cast<float>(nTicks - 1) : 0.0f;
        aTicks.push_back({fPosition, LegendLabel(fLow + (fHigh - fLow) * fPosition)});
    }
    return aTicks;
}

// The depth colour without light: warm near, cool and fogged far.
Colour DepthTint(float fDepth, float fLight)
{
    const Colour cBase = Mix({0.95f, 0.78f, 0.55f}, {0.45f, 0.58f, 0.80f}, fDepth);
    return Mix({cBase.r * fLight, cBase.g * fLight, cBase.b * fLight}, {0.55f, 0.62f, 0.75f},
               0.35f * fDepth * fDepth);
}

bool IsHit(float fDistance, float fMaxDistance)
{
    return std::isfinite(fDistance) && fDistance < fMaxDistance;
}

// A high percentile rather than the maximum, so that a few extreme pixels do not wash out the picture.
template <typename T> double Percentile(std::vector<T> aValues, double fFraction)
{
    if (aValues.empty())
        return 0.0;
    const std::size_t i = std::min(aValues.size() - 1, static_cast<std::size_t>(fFraction * aValues.size()));
    std::nth_element(aValues.begin(), aValues.begin() + static_cast<std::ptrdiff_t>(i), aValues.end());
    return static_cast<double>(aValues[i]);
}

void CheckSize(Resolution cResolution, std::size_t nValues)
{
    if (nValues != cResolution.Pixels())
        throw ToolError("picture: " + std::to_string(nValues) + " results for " +
                        std::to_string(cResolution.Pixels()) + " pixels");
}
} // namespace

Picture ShadeDepth(const Rays& cRays, Resolution cResolution, const std::vector<float>& aNearest,
                   float fMaxDistance)
{
    CheckSize(cResolution, aNearest.size());
    Picture cPicture = Blank(cResolution);
    float fNear = fMaxDistance, fFar = 0.0f;
    for (float fDistance : aNearest)
        if (IsHit(fDistance, fMaxDistance))
        {
            fNear = std::min(fNear, fDistance);
            fFar = std::max(fFar, fDistance);
        }
    const auto Point = [&](std::uint64_t i)
    {
        const Vec3 cOrigin = cRays.aOrigins.empty() ? Vec3{}
                                                    : Vec3{cRays.aOrigins[3 * i], cRays.aOrigins[3 * i + 1],
                                                           cRays.aOrigins[3 * i + 2]};
        return cOrigin +
               Vec3{cRays.aDirections[3 * i], cRays.aDirections[3 * i + 1], cRays.aDirections[3 * i + 2]} *
                   aNearest[i];
    };
    const Vec3 cLight = Normalize({0.45f, 0.8f, 0.35f});
    const std::int64_t nWidth = cResolution.nWidth, nHeight = cResolution.nHeight;
    for (std::int64_t iRow = 0; iRow < nHeight; ++iRow)
        for (std::int64_t iColumn = 0; iColumn < nWidth; ++iColumn)
        {
            const std::uint64_t i = static_cast<std::uint64_t>(iRow * nWidth + iColumn);
            if (!IsHit(aNearest[i], fMaxDistance))
            {
                Put(cPicture, i, Mix({0.55f, 0.65f, 0.80f}, {0.15f, 0.18f, 0.25f}, float(iRow) / nHeight));
                continue;
            }
            // Tangents towards the neighbour at the more similar distance, so silhouettes do not smear.
            const auto Tangent = [&](std::int64_t iDeltaRow, std::int64_t iDeltaColumn)
            {
                Vec3 cBest{};
                float fBestGap = 0.05f * aNearest[i];
                for (int iSign : {1, -1})
                {
                    const std::int64_t iR = iRow + iSign * iDeltaRow, iC = iColumn + iSign * iDeltaColumn;
                    if (iR < 0 || iR >= nHeight || iC < 0 || iC >= nWidth)
                        continue;
                    const std::uint64_t j = static_cast<std::uint64_t>(iR * nWidth + iC);
                    const float fGap = std::fabs(aNearest[j] - aNearest[i]);
                    if (IsHit(aNearest[j], fMaxDistance) && fGap <= fBestGap)
                    {
                        fBestGap = fGap;
                        cBest = (Point(j) - Point(i)) * static_cast<float>(iSign);
                    }
                }
                return cBest;
            };
            const Vec3 cDirection = Normalize(
                {cRays.aDirections[3 * i], cRays.aDirections[3 * i + 1], cRays.aDirections[3 * i + 2]});
            Vec3 cNormal = Normalize(Cross(Tangent(0, 1), Tangent(1, 0)));
            if (Length(cNormal) == 0.0f)
                cNormal = cDirection * -1.0f;
            if (Dot(cNormal, cDirection) > 0.0f)
                cNormal = cNormal * -1.0f;
            const float fDiffuse = std::max(0.0f, Dot(cNormal, cLight));
            const float fFacing = std::max(0.0f, -Dot(cNormal, cDirection));
            const float fDepth = fFar > fNear ? (aNearest[i] - fNear) / (fFar - fNear) : 0.0f;
            Put(cPicture, i, DepthTint(fDepth, 0.15f + 0.6f * fDiffuse + 0.25f * fFacing));
        }
    // The hue gives the distance; the bar shows it on a surface facing the light.
    AppendLegend(
        cPicture, [](float f) { return ToRgb(DepthTint(f, 0.9f)); },
        fFar >= fNear ? EvenTicks(fNear, fFar, fFar > fNear ? 5 : 1) : std::vector<LegendTick>{});
    return cPicture;
}

Picture ColourIndices(Resolution cResolution, const std::vector<std::int32_t>& aIndices)
{
    CheckSize(cResolution, aIndices.size());
    Picture cPicture = Blank(cResolution);
    for (std::uint64_t i = 0; i < aIndices.size(); ++i)
    {
        if (aIndices[i] < 0)
            continue;
        // Integer hash (lowbias32) so that neighbouring triangles get unrelated colours.
        std::uint32_t h = static_cast<std::uint32_t>(aIndices[i]);
        h ^= h >> 16;
        h *= 0x7feb352dU;
        h ^= h >> 15;
        h *= 0x846ca68bU;
        h ^= h >> 16;
        Put(cPicture, i,
            {0.25f + 0.75f * (h & 0xFF) / 255.0f, 0.25f + 0.75f * ((h >> 8) & 0xFF) / 255.0f,
             0.25f + 0.75f * ((h >> 16) & 0xFF) / 255.0f});
    }
    return cPicture;
}

Picture HeatMap(Resolution cResolution, const std::vector<std::uint64_t>& aCounts)
{
    CheckSize(cResolution, aCounts.size());
    Picture cPicture = Blank(cResolution);
    const std::uint64_t nMax = aCounts.empty() ? 0 : *std::max_element(aCounts.begin(), aCounts.end());
    const auto Scaled = [&](std::uint64_t nCount)
    { return std::log1p(float(nCount)) / std::log1p(float(nMax)); };
    for (std::uint64_t i = 0; i < aCounts.size(); ++i)
        if (aCounts[i] > 0)
            Put(cPicture, i, Ramp(0.15f + 0.85f * Scaled(aCounts[i])));
    // The bar runs from one hit to the most, on the same logarithmic scale; ticks at 1, 2, 5, 10, 20, ...
    const float fOne = nMax > 0 ? Scaled(1) : 0.0f;
    const auto Position = [&](std::uint64_t nCount)
    { return nMax > 1 ? (Scaled(nCount) - fOne) / (1.0f - fOne) : 0.0f; };
    std::vector<LegendTick> aTicks;
    for (std::uint64_t nDecade = 1; nMax > 0 && nDecade < nMax; nDecade *= 10)
        for (std::uint64_t nStep : {1, 2, 5})
            if (nDecade * nStep < nMax)
                aTicks.push_back({Position(nDecade * nStep), std::to_string(nDecade * nStep)});
    if (nMax > 0)
        aTicks.push_back({1.0f, std::to_string(nMax)});
    AppendLegend(
        cPicture, [&](float f) { return ToRgb(Ramp(0.15f + 0.85f * (fOne + f * (1.0f - fOne)))); }, aTicks);
    return cPicture;
}

Picture Thickness(Resolution cResolution, const std::vector<float>& aNearest,
                  const std::vector<float>& aFarthest, float fMaxDistance)
{
    CheckSize(cResolution, aNearest.size());
    CheckSize(cResolution, aFarthest.size());
    Picture cPicture = Blank(cResolution);
    std::vector<float> aThickness;
    for (std::uint64_t i = 0; i < aNearest.size(); ++i)
        if (IsHit(aNearest[i], fMaxDistance) && aFarthest[i] > aNearest[i])
            aThickness.push_back(aFarthest[i] - aNearest[i]);
    const double fScale = Percentile(aThickness, 0.99);
    for (std::uint64_t i = 0; i < aNearest.size(); ++i)
        if (IsHit(aNearest[i], fMaxDistance))
        {
            const float fThickness = std::max(0.0f, aFarthest[i] - aNearest[i]);
            Put(cPicture, i,
                Ramp(0.1f + 0.9f * static_cast<float>(fScale > 0.0 ? fThickness / fScale : 0.0)));
        }
    // Thicker than the top of the scale (the 99th percentile) shows as its colour: '+' says so.
    std::vector<LegendTick> aTicks = EvenTicks(0.0, fScale, fScale > 0.0 ? 5 : 1);
    if (!aThickness.empty() && *std::max_element(aThickness.begin(), aThickness.end()) > fScale)
        aTicks.back().sLabel += "+";
    AppendLegend(
        cPicture, [](float f) { return ToRgb(Ramp(0.1f + 0.9f * f)); }, aTicks);
    return cPicture;
}

void WritePng(const std::string& sPath, const Picture& cPicture)
{
    const int nStride = static_cast<int>(cPicture.cResolution.nWidth) * 3;
    if (stbi_write_png(sPath.c_str(), static_cast<int>(cPicture.cResolution.nWidth),
                       static_cast<int>(cPicture.cResolution.nHeight), 3, cPicture.aRgb.data(), nStride) == 0)
        throw ToolError("cannot write '" + sPath + "'");
}

std::vector<std::uint64_t> CountsFromOffsets(const std::vector<std::uint64_t>& aOffsets)
{
    std::vector<std::uint64_t> aCounts(aOffsets.empty() ? 0 : aOffsets.size() - 1);
    for (std::size_t i = 0; i < aCounts.size(); ++i)
        aCounts[i] = aOffsets[i + 1] - aOffsets[i];
    return aCounts;
}
