#include "Rays.h"

#include "ToolError.h"

#include <cmath>
#include <cstdlib>

namespace
{
constexpr float c_fPi = 3.14159265358979f;

// An orthonormal frame whose third axis is cForward.
void MakeFrame(Vec3 cForward, Vec3 cUpHint, Vec3& cRight, Vec3& cUp)
{
    cRight = Cross(cForward, cUpHint);
    if (Length(cRight) < 1e-6f * Length(cForward))
        cRight = Cross(cForward, std::fabs(cForward.x) < 0.9f ? Vec3{1, 0, 0} : Vec3{0, 1, 0});
    cRight = Normalize(cRight);
    cUp = Normalize(Cross(cRight, cForward));
}
} // namespace

Resolution ParseResolution(const std::string& sText, const std::string& sOption)
{
    const std::size_t iCross = sText.find('x');
    char* pEnd = nullptr;
    Resolution cResolution;
    bool bValid = iCross != std::string::npos && iCross > 0 && iCross + 1 < sText.size();
    if (bValid)
    {
        const unsigned long nWidth = std::strtoul(sText.c_str(), &pEnd, 10);
        bValid = pEnd == sText.c_str() + iCross;
        const unsigned long nHeight = std::strtoul(sText.c_str() + iCross + 1, &pEnd, 10);
        bValid = bValid && *pEnd == '\0' && nWidth > 0 && nHeight > 0 && nWidth <= 65536 &&
                 nHeight <= 65536 && std::isdigit(static_cast<unsigned char>(sText[0])) &&
                 std::isdigit(static_cast<unsigned char>(sText[iCross + 1]));
        cResolution = {static_cast<std::uint32_t>(nWidth), static_cast<std::uint32_t>(nHeight)};
    }
    if (!bValid)
        throw ToolError(sOption + ": '" + sText + "' is not a resolution like 1920x1080 (1 to 65536 each)");
    return cResolution;
}

PinholeCamera FrameBounds(const Bounds& cBounds, Resolution cResolution, float fFovDegrees)
{
    PinholeCamera cCamera;
    cCamera.cLookAt = cBounds.Center();
    cCamera.fFovDegrees = fFovDegrees;
    cCamera.cResolution = cResolution;
    const float fRadius = std::max(0.5f * cBounds.Diagonal(), 1e-6f);
    const float fDistance = fRadius / std::sin(0.5f * fFovDegrees * c_fPi / 180.0f);
    cCamera.cPosition = cCamera.cLookAt + Normalize(Vec3{0.8f, 0.55f, 1.0f}) * fDistance;
    return cCamera;
}

Rays GenerateCameraRays(const PinholeCamera& cCamera)
{
    const Vec3 cForward = Normalize(cCamera.cLookAt - cCamera.cPosition);
    if (Length(cForward) == 0.0f)
        throw ToolError("camera: position and look-at point coincide");
    if (!(cCamera.fFovDegrees > 0.0f && cCamera.fFovDegrees < 180.0f))
        throw ToolError("camera: field of view must be between 0 and 180 degrees");
    Vec3 cRight, cUp;
    MakeFrame(cForward, cCamera.cUp, cRight, cUp);
    const float fHalfHeight = std::tan(0.5f * cCamera.fFovDegrees * c_fPi / 180.0f);
    const float fHalfWidth = fHalfHeight * cCamera.cResolution.nWidth / cCamera.cResolution.nHeight;

    Rays cRays;
    cRays.aOrigins.reserve(cCamera.cResolution.Pixels() * 3);
    cRays.aDirections.reserve(cCamera.cResolution.Pixels() * 3);
    for (std::uint32_t iRow = 0; iRow < cCamera.cResolution.nHeight; ++iRow)
    {
        const float fV = (1.0f - 2.0f * (iRow + 0.5f) / cCamera.cResolution.nHeight) * fHalfHeight;
        for (std::uint32_t iColumn = 0; iColumn < cCamera.cResolution.nWidth; ++iColumn)
        {
            const float fU = (2.0f * (iColumn + 0.5f) / cCamera.cResolution.nWidth - 1.0f) * fHalfWidth;
            cRays.Add(cCamera.cPosition, Normalize(cForward + cRight * fU + cUp * fV));
        }
    }
    return cRays;
}

Rays GenerateSphereRays(Vec3 cCenter, std::uint64_t nRays)
{
    Rays cRays;
    cRays.aOrigins.reserve(nRays * 3);
    cRays.aDirections.reserve(nRays * 3);
    const double fGoldenAngle = c_fPi * (3.0 - std::sqrt(5.0));
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        const double fZ = 1.0 - (2.0 * i + 1.0) / static_cast<double>(nRays);
        const double fRadius = std::sqrt(std::max(0.0, 1.0 - fZ * fZ));
        const double fAngle = fGoldenAngle * static_cast<double>(i);
        cRays.Add(cCenter, {static_cast<float>(fRadius * std::cos(fAngle)),
                            static_cast<float>(fRadius * std::sin(fAngle)), static_cast<float>(fZ)});
    }
    return cRays;
}

Rays GenerateGridRays(const Bounds& cBounds, Vec3 cDirection, Resolution cResolution)
{
    const Vec3 cForward = Normalize(cDirection);
    if (Length(cForward) == 0.0f || !std::isfinite(Length(cForward)))
        throw ToolError("grid: the ray direction must be a finite non-zero vector");
    Vec3 cRight, cUp;
    MakeFrame(cForward, {0.0f, 1.0f, 0.0f}, cRight, cUp);
    const float fRadius = std::max(0.5f * cBounds.Diagonal(), 1e-6f);
    // Covering the bounding sphere's disc keeps the grid independent of the direction's orientation.
    const Vec3 cCorner = cBounds.Center() - cForward * (fRadius * 1.01f) - cRight * fRadius + cUp * fRadius;
    const float fStepX = 2.0f * fRadius / cResolution.nWidth;
    const float fStepY = 2.0f * fRadius / cResolution.nHeight;

    Rays cRays;
    cRays.aOrigins.reserve(cResolution.Pixels() * 3);
    cRays.aDirections.reserve(cResolution.Pixels() * 3);
    for (std::uint32_t iRow = 0; iRow < cResolution.nHeight; ++iRow)
        for (std::uint32_t iColumn = 0; iColumn < cResolution.nWidth; ++iColumn)
            cRays.Add(cCorner + cRight * ((iColumn + 0.5f) * fStepX) - cUp * ((iRow + 0.5f) * fStepY),
                      cForward);
    return cRays;
}

void CheckRaysFinite(const Rays& cRays)
{
    for (std::size_t i = 0; i < cRays.aOrigins.size(); ++i)
        if (!std::isfinite(cRays.aOrigins[i]))
            throw ToolError("ray " + std::to_string(i / 3) + " has a non-finite origin");
    for (std::size_t i = 0; i < cRays.aDirections.size(); ++i)
        if (!std::isfinite(cRays.aDirections[i]))
            throw ToolError("ray " + std::to_string(i / 3) + " has a non-finite direction");
}
