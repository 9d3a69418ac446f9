#include "ReferenceCheck.h"

#include <algorithm>
#include <cmath>
#include <sstream>

using TestReference::RayReference;
using TestReference::ReferenceHit;

namespace
{
// The first few mismatches, so that a systematic fault does not flood the log.
class Mismatches
{
public:
    template <typename T> void Add(std::uint64_t iRay, const char* sWhat, const T& expected, const T& actual)
    {
        if (m_nCount++ < 8)
            m_cText << "\n  ray " << iRay << ": " << sWhat << " expected " << expected << ", got " << actual;
    }
    void Add(const char* sWhat)
    {
        if (m_nCount++ < 8)
            m_cText << "\n  " << sWhat;
    }
    bool Empty() const { return m_nCount == 0; }
    ::testing::AssertionResult Result() const
    {
        if (Empty())
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << m_nCount << " mismatches" << m_cText.str();
    }

private:
    std::uint64_t m_nCount = 0;
    std::ostringstream m_cText;
};

bool DistanceMatches(float fActual, const ReferenceHit& cHit)
{
    return std::abs(static_cast<double>(fActual) - cHit.fDistance) <=
           cHit.fTolerance + 1e-6 * std::abs(cHit.fDistance);
}

template <typename T> bool AllEqual(const std::vector<T>& a, T value)
{
    return std::all_of(a.begin(), a.end(), [&](const T& x) { return x == value; });
}

// One end of a ray: the hit's distance and index, or the no-hit values.
void CheckEnd(const char* sWhich, const ReferenceHit* pHit, float fNoHit, float fActual,
              const std::int32_t* pIndex, std::uint64_t i, Mismatches& cLog)
{
    if (pHit ? !DistanceMatches(fActual, *pHit) : FloatBits(fActual) != FloatBits(fNoHit))
        cLog.Add(i, sWhich, pHit ? pHit->fDistance : static_cast<double>(fNoHit),
                 static_cast<double>(fActual));
    if (pIndex && *pIndex != (pHit ? pHit->iTriangle : -1))
        cLog.Add(i, (std::string(sWhich) + " index").c_str(), pHit ? pHit->iTriangle : -1, *pIndex);
}

// Offsets must bound every ray's stretch and each stretch must be sorted, for ambiguous rays too.
void CheckAllHitsLayout(const TraceOutcome& c, std::uint64_t nRays, Mismatches& cLog)
{
    if (c.aCountHits.front() != 0 || c.aCountHits.back() != c.aAllHits.size())
    {
        cLog.Add("offsets must run from 0 to the size of cAllHits");
        return;
    }
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        if (c.aCountHits[i] > c.aCountHits[i + 1])
            return cLog.Add(i, "offsets must not decrease; next offset", c.aCountHits[i],
                            c.aCountHits[i + 1]);
        if (!std::is_sorted(c.aAllHits.begin() + c.aCountHits[i], c.aAllHits.begin() + c.aCountHits[i + 1]))
            cLog.Add(i, "hit distances sorted ascending", 1, 0);
    }
}

void CheckCollectedHits(const TraceOutcome& c, std::uint64_t i, const RayReference& r, Mismatches& cLog)
{
    const std::vector<ReferenceHit> aExpected = r.CountedHits();
    const std::uint64_t nActual = c.aCountHits[i + 1] - c.aCountHits[i];
    if (nActual != aExpected.size())
        return cLog.Add(i, "number of collected hits", static_cast<std::uint64_t>(aExpected.size()), nActual);
    for (std::size_t k = 0; k < aExpected.size(); ++k)
        if (!DistanceMatches(c.aAllHits[c.aCountHits[i] + k], aExpected[k]))
            return cLog.Add(i, "collected hit distance", aExpected[k].fDistance,
                            static_cast<double>(c.aAllHits[c.aCountHits[i] + k]));
}
} // namespace

::testing::AssertionResult MatchesReference(TraceMode eMode, const TraceOutcome& c,
                                            const std::vector<RayReference>& aReferences, float fMaxDistance,
                                            ReferenceCheckSummary* pSummary)
{
    if (c.eResult != Success || !c.sError.empty())
        return ::testing::AssertionFailure() << "call failed with code " << c.eResult << ": " << c.sError;
    if (aReferences.empty())
        return ::testing::AssertionFailure() << "no reference";
    const bool bAllHits = eMode == TraceMode::AllHits;
    const std::uint64_t nRays =
        IsCountingMode(eMode) ? c.aCountHits.size() - (bAllHits ? 1 : 0) : c.aFirstHit.size();
    Mismatches cLog;
    if (!AllEqual(c.aLastIndex, c_iIndexCanary) && !(HasFarthest(eMode) && HasIndices(eMode)))
        cLog.Add("the farthest index array must stay untouched in this mode");
    if (IsCountingMode(eMode) &&
        (!AllEqual(c.aFirstHit, c_fHitCanary) || !AllEqual(c.aLastHit, c_fHitCanary) ||
         !AllEqual(c.aFirstIndex, c_iIndexCanary)))
        cLog.Add("counting modes must not write the nearest-hit arrays");
    if (!bAllHits && !c.aAllHits.empty())
        cLog.Add("cAllHits must be left empty outside all-hits mode");
    if (bAllHits)
        CheckAllHitsLayout(c, nRays, cLog);
    if (!cLog.Empty())
        return cLog.Result();

    ReferenceCheckSummary cSummary;
    cSummary.nRays = nRays;
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        const RayReference& r = aReferences[i % aReferences.size()];
        if (r.bAmbiguous)
        {
            ++cSummary.nAmbiguous;
            continue;
        }
        cSummary.nWithHits += r.aHits.empty() ? 0 : 1;
        if (eMode == TraceMode::HitCount && c.aCountHits[i] != r.CountHits())
            cLog.Add(i, "hit count", r.CountHits(), c.aCountHits[i]);
        else if (bAllHits)
            CheckCollectedHits(c, i, r, cLog);
        else if (!IsCountingMode(eMode))
        {
            // The nearest-and-farthest programs replace the nearest value only by a hit that compares
            // smaller, and nothing compares smaller than a NaN start value: the nearest hit stays unset.
            const bool bNearestStaysUnset = HasFarthest(eMode) && std::isnan(fMaxDistance);
            const std::int32_t* pIndex = HasIndices(eMode) ? &c.aFirstIndex[i] : nullptr;
            CheckEnd("nearest", bNearestStaysUnset ? nullptr : r.Nearest(), fMaxDistance, c.aFirstHit[i],
                     pIndex, i, cLog);
            if (HasFarthest(eMode))
                CheckEnd("farthest", r.Farthest(), -3.40282347e+38f, c.aLastHit[i],
                         HasIndices(eMode) ? &c.aLastIndex[i] : nullptr, i, cLog);
        }
    }
    if (pSummary)
        *pSummary = cSummary;
    return cLog.Result();
}

::testing::AssertionResult SameAnswers(const TraceOutcome& a, const TraceOutcome& b)
{
    if (a.eResult != b.eResult || a.sError != b.sError)
        return ::testing::AssertionFailure() << "results differ: " << a.eResult << " '" << a.sError << "' vs "
                                             << b.eResult << " '" << b.sError << "'";
    const auto Same = [](const auto& x, const auto& y)
    {
        return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(),
                                                  [](auto u, auto v)
                                                  {
                                                      if constexpr (std::is_same_v<decltype(u), float>)
                                                          return FloatBits(u) == FloatBits(v);
                                                      else
                                                          return u == v;
                                                  });
    };
    const char* sDiffering = !Same(a.aCountHits, b.aCountHits)     ? "pCountHits"
                             : !Same(a.aAllHits, b.aAllHits)       ? "cAllHits"
                             : !Same(a.aFirstIndex, b.aFirstIndex) ? "pFirstIndex"
                             : !Same(a.aFirstHit, b.aFirstHit)     ? "pFirstHit"
                             : !Same(a.aLastIndex, b.aLastIndex)   ? "pLastIndex"
                             : !Same(a.aLastHit, b.aLastHit)       ? "pLastHit"
                                                                   : nullptr;
    if (sDiffering)
        return ::testing::AssertionFailure() << sDiffering << " differs";
    return ::testing::AssertionSuccess();
}
