// The six device-program modules as PTX texts, embedded at build time. Each is zero-terminated; the length
// handed to optixModuleCreate is the text's length without the terminator.
#pragma once

extern const char c_sOptixTriangleCountHits2[];
extern const char c_sOptixTriangleAllHits2[];
extern const char c_sOptixTriangleOneHit2[];
extern const char c_sOptixTriangleTwoHits4[];
extern const char c_sOptixTriangleOneHitDistance1[];
extern const char c_sOptixTriangleTwoHitsDistance2[];
