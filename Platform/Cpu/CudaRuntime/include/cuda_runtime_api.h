// CCCL decides whether a CUDA toolkit is present by looking for this header, and then includes it. A
// toolkit's own copy may sit on the compiler's default path (e.g. /usr/local/include), so the stand-in
// answers under this name too: CCCL then sees one consistent runtime, the stand-in.
#pragma once

#include "cuda_runtime.h"
