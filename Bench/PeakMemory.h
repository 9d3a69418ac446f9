// Peak resident memory of this process, resettable so that each benchmark case gets its own peak.
#pragma once

#include <cstdint>

// Starts a new peak from the current resident size (Linux clear_refs); false where the kernel refuses.
bool ResetPeakMemory();
// Peak resident memory in MiB since the last reset (or since start), 0 when unknown.
std::uint64_t PeakMemoryMb();
