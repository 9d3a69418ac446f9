// Minimal 3-vector for generating rays and scenes on the host.
#pragma once

#include <cmath>

struct Vec3
{
    float x = 0.0f, y = 0.0f, z = 0.0f;
};

inline Vec3 operator+(Vec3 a, Vec3 b)
{
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec3 operator-(Vec3 a, Vec3 b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec3 operator*(Vec3 a, float f)
{
    return {a.x * f, a.y * f, a.z * f};
}
inline float Dot(Vec3 a, Vec3 b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vec3 Cross(Vec3 a, Vec3 b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline float Length(Vec3 a)
{
    return std::sqrt(Dot(a, a));
}
inline Vec3 Normalize(Vec3 a)
{
    const float fLength = Length(a);
    return fLength > 0.0f ? a * (1.0f / fLength) : a;
}
