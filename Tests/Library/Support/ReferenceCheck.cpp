#include "ReferenceCheck.h"

#include <algorithm>
#include <cmath>
#include <sstream>

using TestReference::RayReference;
using TestReference::ReferenceHit;

namespace
{
// Collects the first few mismatches so that a systematic fault does not flood the log.
class MismatchLog
{
public:
    template <typename T> void Add(std::uint64_t iRay, const char* sWhat, const T& expected, const T& actual)
    {
        if (m_nCount++ < c_nShown)
        {
            m_cText << "\n  ray " << iRay << ": " << sWhat << " expected " << expected << ", got " << actual;
        }
    }
    void Add(const std::string& sText)
    {
        if (m_nCount++ < c_nShown)
        {
            m_cText << "\n  " << sText;
        }
    }
    bool Empty() const { return m_nCount == 0; }
    ::testing::AssertionResult Result() const
    {
        if (Empty())
        {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << m_nCount << " mismatches" << m_cText.str();
    }

private:
    static constexpr std::uint64_t c_nShown = 8;
    std::uint64_t m_nCount = 0;
    std::ostringstream m_cText;
};

bool DistanceMatches(float fActual, const ReferenceHit& cHit)
{
    const double fSlack = cHit.fTolerance + 1e-6 * std::abs(cHit.fDistance);
    return std::abs(static_cast<double>(fActual) - cHit.fDistance) <= fSlack;
}

template <typename T> bool AllEqual(const std::vector<T>& a, T value)
{
    return std::all_of(a.begin(), a.end(), [&](const T& x) { return x == value; });
}

void CheckNearestAndFarthest(TraceMode eMode, const TraceOutcome& c, std::uint64_t i, const RayReference& r,
                             float fMaxDistance, MismatchLog& cLog)
{
    // The nearest-and-farthest programs replace the nearest value only by a hit that compares smaller, and
    // nothing compares smaller than a NaN start value: the ray is traced, but its nearest hit stays unset.
    const bool bNearestStaysUnset = HasFarthest(eMode) && std::isnan(fMaxDistance);
    const ReferenceHit* pNearest = bNearestStaysUnset ? nullptr : r.Nearest();
    if (pNearest == nullptr)
    {
        if (FloatBits(c.aFirstHit[i]) != FloatBits(fMaxDistance))
        {
            cLog.Add(i, "nearest distance (no hit)", fMaxDistance, c.aFirstHit[i]);
        }
    }
    else if (!DistanceMatches(c.aFirstHit[i], *pNearest))
    {
        cLog.Add(i, "nearest distance", pNearest->fDistance, static_cast<double>(c.aFirstHit[i]));
    }
    if (HasIndices(eMode))
    {
        const std::int32_t iExpected = pNearest ? pNearest->iTriangle : -1;
        if (c.aFirstIndex[i] != iExpected)
        {
            cLog.Add(i, "nearest index", iExpected, c.aFirstIndex[i]);
        }
    }
    if (!HasFarthest(eMode))
    {
        return;
    }
    const ReferenceHit* pFarthest = r.Farthest();
    if (pFarthest == nullptr)
    {
        if (FloatBits(c.aLastHit[i]) != c_uNoFarthestHitBits)
        {
            cLog.Add(i, "farthest distance (no hit)", -3.40282347e+38f, c.aLastHit[i]);
        }
    }
    else if (!DistanceMatches(c.aLastHit[i], *pFarthest))
    {
        cLog.Add(i, "farthest distance", pFarthest->fDistance, static_cast<double>(c.aLastHit[i]));
    }
    if (HasIndices(eMode))
    {
        const std::int32_t iExpected = pFarthest ? pFarthest->iTriangle : -1;
        if (c.aLastIndex[i] != iExpected)
        {
            cLog.Add(i, "farthest index", iExpected, c.aLastIndex[i]);
        }
    }
}

// Offsets must bound every ray's stretch and each stretch must be sorted, for ambiguous rays too.
void CheckAllHitsLayout(const TraceOutcome& c, std::uint64_t nRays, MismatchLog& cLog)
{
    if (c.aCountHits.size() != nRays + 1)
    {
        cLog.Add("all-hits offsets need nRays + 1 entries");
        return;
    }
    if (c.aCountHits[0] != 0)
    {
        cLog.Add(0, "first offset", std::uint64_t{0}, c.aCountHits[0]);
    }
    if (c.aCountHits[nRays] != c.aAllHits.size())
    {
        cLog.Add(nRays, "total hits (= size of cAllHits)", static_cast<std::uint64_t>(c.aAllHits.size()),
                 c.aCountHits[nRays]);
        return;
    }
    for (std::uint64_t i = 0; i < nRays; ++i)
    {
        if (c.aCountHits[i] > c.aCountHits[i + 1])
        {
            cLog.Add(i, "offsets must not decrease; next offset", c.aCountHits[i], c.aCountHits[i + 1]);
            return;
        }
        if (!std::is_sorted(c.aAllHits.begin() + c.aCountHits[i], c.aAllHits.begin() + c.aCountHits[i + 1]))
        {
            cLog.Add(i, "hit distances sorted ascending", std::string("sorted"), std::string("unsorted"));
        }
    }
}

void CheckCollectedHits(const TraceOutcome& c, std::uint64_t i, const RayReference& r, MismatchLog& cLog)
{
    const std::vector<ReferenceHit> aExpected = r.CountedHits();
    const std::uint64_t nActual = c.aCountHits[i + 1] - c.aCountHits[i];
    if (nActual != aExpected.size())
    {
        cLog.Add(i, "number of collected hits", static_cast<std::uint64_t>(aExpected.size()), nActual);
        return;
    }
    for (std::size_t k = 0; k < aExpected.size(); ++k)
    {
        const float fActual = c.aAllHits[c.aCountHits[i] + k];
        if (!DistanceMatches(fActual, aExpected[k]))
        {
            cLog.Add(i, "collected hit distance", aExpected[k].fDistance, static_cast<double>(fActual));
            return;
        }
    }
}
} // namespace

::testing::AssertionResult MatchesReference(TraceMode eMode, const TraceOutcome& c,
                                            const std::vector<RayReference>& aReferences, float fMaxDistance,
                                            ReferenceCheckSummary* pSummary)
{
    if (c.eResult != Success || !c.sError.empty())
    {
        return ::testing::AssertionFailure() << "call failed with code " << c.eResult << ": " << c.sError;
    }
    if (aReferences.empty())
    {
        return ::testing::AssertionFailure() << "no reference";
    }
    const bool bCounting = IsCountingMode(eMode);
    const std::uint64_t nRays =
        bCounting ? c.aCountHits.size() - (eMode == TraceMode::AllHits ? 1 : 0) : c.aFirstHit.size();
    MismatchLog cLog;
    if (!AllEqual(c.aLastIndex, c_iIndexCanary) && !(HasFarthest(eMode) && HasIndices(eMode)))
    {
        cLog.Add("the farthest index array must stay untouched in this mode");
    }
    if (bCounting && (!AllEqual(c.aFirstHit, c_fHitCanary) || !AllEqual(c.aLastHit, c_fHitCanary) ||
                      !AllEqual(c.aFirstIndex, c_iIndexCanary)))
    {
        cLog.Add("counting modes must not write the nearest-hit arrays");
    }
    if (eMode != TraceMode::AllHits && !c.aAllHits.empty())
    {
        cLog.Add("cAllHits must be left empty outside all-hits mode");
    }
    if (eMode == TraceMode::AllHits)
    {
        CheckAllHitsLayout(c, nRays, cLog);
        if (!cLog.Empty())
        {
            return cLog.Result();
        }
    }

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
        switch (eMode)
        {
        case TraceMode::HitCount:
            if (c.aCountHits[i] != r.CountHits())
            {
                cLog.Add(i, "hit count", r.CountHits(), c.aCountHits[i]);
            }
            break;
        case TraceMode::AllHits:
            CheckCollectedHits(c, i, r, cLog);
            break;
        default:
            CheckNearestAndFarthest(eMode, c, i, r, fMaxDistance, cLog);
            break;
        }
    }
    if (pSummary)
    {
        *pSummary = cSummary;
    }
    return cLog.Result();
}

::testing::AssertionResult SameAnswers(const TraceOutcome& a, const TraceOutcome& b)
{
    if (a.eResult != b.eResult || a.sError != b.sError)
    {
        return ::testing::AssertionFailure() << "results differ: " << a.eResult << " '" << a.sError << "' vs "
                                             << b.eResult << " '" << b.sError << "'";
    }
    auto Differs = [](const auto& x, const auto& y)
    {
        if (x.size() != y.size())
        {
            return true;
        }
        for (std::size_t i = 0; i < x.size(); ++i)
        {
            if constexpr (std::is_same_v<std::decay_t<decltype(x[i])>, float>)
            {
                if (FloatBits(x[i]) != FloatBits(y[i]))
                {
                    return true;
                }
            }
            else if (x[i] != y[i])
            {
                return true;
            }
        }
        return false;
    };
    const char* sDiffering = Differs(a.aCountHits, b.aCountHits)     ? "pCountHits"
                             : Differs(a.aAllHits, b.aAllHits)       ? "cAllHits"
                             : Differs(a.aFirstIndex, b.aFirstIndex) ? "pFirstIndex"
                             : Differs(a.aFirstHit, b.aFirstHit)     ? "pFirstHit"
                             : Differs(a.aLastIndex, b.aLastIndex)   ? "pLastIndex"
                             : Differs(a.aLastHit, b.aLastHit)       ? "pLastHit"
                                                                     : nullptr;
    if (sDiffering)
    {
        return ::testing::AssertionFailure() << sDiffering << " differs";
    }
    return ::testing::AssertionSuccess();
}
