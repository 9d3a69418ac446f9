// Cheap checks of the sizes a mesh file declares, made before the importer reads it. The importer trusts
// declared counts: it allocates what they say and reads past the end of a file that holds less (it crashes,
// hangs or fills the memory), so a file whose declared data cannot be in it is rejected here instead.
#pragma once

#include <string>

// Checks PLY (header, and data against the element counts), OFF (data lines against the counts), STL (binary
// size against the triangle count; ASCII ends with endsolid), GLB (declared lengths) and glTF JSON (not cut
// off); other formats pass unchecked. Throws ToolError starting with sPath.
void PrecheckMeshFile(const std::string& sPath);
