// GPU flavour: Thrust algorithms run on the call's stream and return when it has finished them.
#pragma once

#include <thrust/system/cuda/execution_policy.h>

inline auto StreamPolicy(cudaStream_t stream)
{
    return thrust::cuda::par.on(stream);
}
