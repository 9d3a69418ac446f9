// The shared helper source, compiled as C++ against the stand-in sort and Thrust's CPP system.
#include "RayTracingHelper.cu"
