// The check of a PLY file before import: its header, and its data against the element counts (one line per
// element in text files; binary data walked through, reading only list lengths).
#pragma once

#include "MeshFileScan.h"

#include <string>

// Throws ToolError starting with sPath.
void PrecheckPly(BlockReader& cFile, const std::string& sPath);
