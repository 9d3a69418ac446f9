// Compares a library answer with the brute-force reference, ray by ray, skipping rays the reference marks
// ambiguous.
#pragma once

#include "ReferenceTracer.h"
#include "TraceCall.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

struct ReferenceCheckSummary
{
    std::uint64_t nRays = 0;
    std::uint64_t nAmbiguous = 0;
    std::uint64_t nWithHits = 0; // checked rays whose reference has at least one hit
};

// Ray i is checked against aReferences[i % aReferences.size()], so a long ray set may repeat a short pattern.
// Arrays the mode must not write (see TraceRequest::bUnusedPointers) must still hold their canaries.
::testing::AssertionResult MatchesReference(TraceMode eMode, const TraceOutcome& cOutcome,
                                            const std::vector<TestReference::RayReference>& aReferences,
                                            float fMaxDistance, ReferenceCheckSummary* pSummary = nullptr);

// Two answers of the same request are bit-identical (a scene's trace and the stateless call, say).
::testing::AssertionResult SameAnswers(const TraceOutcome& cExpected, const TraceOutcome& cActual);
