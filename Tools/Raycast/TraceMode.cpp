#include "TraceMode.h"

#include "ToolError.h"

const char* ModeName(TraceMode eMode)
{
    switch (eMode)
    {
    case TraceMode::Nearest:
        return "nearest";
    case TraceMode::NearestIndex:
        return "nearest-index";
    case TraceMode::Both:
        return "both";
    case TraceMode::BothIndex:
        return "both-index";
    case TraceMode::Count:
        return "count";
    case TraceMode::All:
        return "all";
    }
    return "?";
}

const std::vector<TraceMode>& AllModes()
{
    static const std::vector<TraceMode> c_aModes = {TraceMode::Nearest, TraceMode::NearestIndex,
                                                    TraceMode::Both,    TraceMode::BothIndex,
                                                    TraceMode::Count,   TraceMode::All};
    return c_aModes;
}

TraceMode ParseMode(const std::string& sName)
{
    for (TraceMode eMode : AllModes())
        if (sName == ModeName(eMode))
            return eMode;
    throw ToolError("unknown mode '" + sName + "' (nearest, nearest-index, both, both-index, count, all)");
}

void TraceResults::Prepare(TraceMode eMode, std::uint64_t nRays)
{
    *this = TraceResults();
    if (IsCounting(eMode))
    {
        aCounts.resize(eMode == TraceMode::All ? nRays + 1 : nRays);
        return;
    }
    aNearestDistance.resize(nRays);
    if (HasIndices(eMode))
        aNearestIndex.resize(nRays);
    if (HasFarthest(eMode))
        aFarthestDistance.resize(nRays);
    if (HasFarthest(eMode) && HasIndices(eMode))
        aFarthestIndex.resize(nRays);
}
