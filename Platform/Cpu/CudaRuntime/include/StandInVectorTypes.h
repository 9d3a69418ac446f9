// CUDA's built-in vector types for host builds, with the toolkit's sizes and alignments so that records
// shared between host and device code have the same layout in both flavours. CCCL specialises its tuple
// interface for every one of them once it sees a CUDA runtime, so the whole family is declared.
#pragma once

#define RAYTRACING_VECTOR_FAMILY(name, type, nAlign2, nAlign4)                                               \
    struct name##1                                                                                           \
    {                                                                                                        \
        type x;                                                                                              \
    };                                                                                                       \
    struct alignas(nAlign2) name##2                                                                          \
    {                                                                                                        \
        type x, y;                                                                                           \
    };                                                                                                       \
    struct name##3                                                                                           \
    {                                                                                                        \
        type x, y, z;                                                                                        \
    };                                                                                                       \
    struct alignas(nAlign4) name##4                                                                          \
    {                                                                                                        \
        type x, y, z, w;                                                                                     \
    };                                                                                                       \
    inline name##1 make_##name##1(type x)                                                                    \
    {                                                                                                        \
        return name##1 {x};                                                                                  \
    }                                                                                                        \
    inline name##2 make_##name##2(type x, type y)                                                            \
    {                                                                                                        \
        return name##2 {x, y};                                                                               \
    }                                                                                                        \
    inline name##3 make_##name##3(type x, type y, type z)                                                    \
    {                                                                                                        \
        return name##3 {x, y, z};                                                                            \
    }                                                                                                        \
    inline name##4 make_##name##4(type x, type y, type z, type w)                                            \
    {                                                                                                        \
        return name##4 {x, y, z, w};                                                                         \
    }

// The four-element 64-bit types also come with explicit 16- and 32-byte alignment (CUDA 13).
#define RAYTRACING_VECTOR_WIDE4(name, type)                                                                  \
    struct alignas(16) name##4_16a                                                                           \
    {                                                                                                        \
        type x, y, z, w;                                                                                     \
    };                                                                                                       \
    struct alignas(32) name##4_32a                                                                           \
    {                                                                                                        \
        type x, y, z, w;                                                                                     \
    };

RAYTRACING_VECTOR_FAMILY(char, signed char, 2, 4)
RAYTRACING_VECTOR_FAMILY(uchar, unsigned char, 2, 4)
RAYTRACING_VECTOR_FAMILY(short, short, 4, 8)
RAYTRACING_VECTOR_FAMILY(ushort, unsigned short, 4, 8)
RAYTRACING_VECTOR_FAMILY(int, int, 8, 16)
RAYTRACING_VECTOR_FAMILY(uint, unsigned int, 8, 16)
RAYTRACING_VECTOR_FAMILY(long, long, 2 * sizeof(long), 16)
RAYTRACING_VECTOR_FAMILY(ulong, unsigned long, 2 * sizeof(unsigned long), 16)
RAYTRACING_VECTOR_FAMILY(longlong, long long, 16, 16)
RAYTRACING_VECTOR_FAMILY(ulonglong, unsigned long long, 16, 16)
RAYTRACING_VECTOR_FAMILY(float, float, 8, 16)
RAYTRACING_VECTOR_FAMILY(double, double, 16, 16)
RAYTRACING_VECTOR_WIDE4(long, long)
RAYTRACING_VECTOR_WIDE4(ulong, unsigned long)
RAYTRACING_VECTOR_WIDE4(longlong, long long)
RAYTRACING_VECTOR_WIDE4(ulonglong, unsigned long long)
RAYTRACING_VECTOR_WIDE4(double, double)

#undef RAYTRACING_VECTOR_FAMILY
#undef RAYTRACING_VECTOR_WIDE4

struct dim3
{
    unsigned int x, y, z;
    constexpr dim3(unsigned int vx = 1, unsigned int vy = 1, unsigned int vz = 1) : x(vx), y(vy), z(vz) {}
    constexpr dim3(uint3 v) : x(v.x), y(v.y), z(v.z) {}
    constexpr operator uint3() const { return uint3{x, y, z}; }
};

static_assert(sizeof(float3) == 12 && alignof(float3) == 4, "float3 is three packed floats");
static_assert(sizeof(uint3) == 12, "uint3 is three packed unsigned ints");
static_assert(alignof(float4) == 16 && alignof(float2) == 8, "CUDA aligns float2 and float4");
