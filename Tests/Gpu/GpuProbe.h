// Whether this machine can run the GPU flavour's tests. They skip only where there is no CUDA driver or no
// CUDA device; once a device answers, every failure is a test failure.
#pragma once

#include <string>

// What the CUDA driver said when asked.
struct CudaDriverAnswers
{
    std::string sLoadError;    // dlerror()'s text when the driver library cannot be loaded
    std::string sMissingEntry; // an entry point the driver library lacks
    int iInitResult = 0;       // cuInit(0)
    int iCountResult = 0;      // cuDeviceGetCount
    int nDevices = 0;
};

enum class GpuVerdict
{
    Run,
    Skip, // no CUDA driver or no device
    Fail, // a driver is there but broken: never a reason to skip
};

struct GpuDecision
{
    GpuVerdict eVerdict = GpuVerdict::Fail;
    std::string sReason;
};

GpuDecision DecideGpu(const CudaDriverAnswers& cAnswers);

// Loads sLibrary (it stays mapped: a driver may leave threads behind) and asks it for its devices.
CudaDriverAnswers AskCudaDriver(const std::string& sLibrary = "libcuda.so.1");

// Where the driver's OptiX library loads from, or dlerror()'s text when it does not.
std::string DescribeOptixLibrary(const std::string& sLibrary = "libnvoptix.so.1");
