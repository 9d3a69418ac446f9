// The stand-in device as the environment describes it, with host-derived defaults.
#pragma once

#include "RayTracingCpu.h"

namespace RayTracingCpu::StandIn
{
// Reads the RAYTRACING_CPU_* variables; an unreadable value is reported on stderr and left at its default.
DeviceConfig ReadDeviceConfig();
// Fills values left at 0 from the host and keeps free memory within total memory.
DeviceConfig Normalise(DeviceConfig cConfig);
int HostCores();
} // namespace RayTracingCpu::StandIn
