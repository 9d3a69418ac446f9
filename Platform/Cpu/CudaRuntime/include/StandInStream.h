// The stand-in's stream object, shared by the CUDA runtime stand-in (which creates streams) and the
// OptiX driver stand-in (which enqueues builds and launches on them). Only virtual calls cross the
// library boundary, so no symbol of one library is needed by the other.
#pragma once

#include <functional>

#include "cuda_runtime.h"

struct CUstream_st
{
    virtual ~CUstream_st() = default;
    // Runs fnWork after all work enqueued before it, now or at the next synchronisation.
    virtual void Enqueue(std::function<void()> fnWork) = 0;
    // Sticky error of the stream, returned by its next synchronisation (e.g. cudaErrorAssert).
    virtual void Fail(cudaError_t nError) = 0;
};

// Runs fnWork in the order of stream (a null stream runs it at once).
inline void EnqueueOnStream(cudaStream_t stream, std::function<void()> fnWork)
{
    if (stream)
        stream->Enqueue(std::move(fnWork));
    else
        fnWork();
}
