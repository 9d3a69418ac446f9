// The shared helper source, compiled by nvcc for the GPU flavour.
#include "RayTracingHelper.cu"
