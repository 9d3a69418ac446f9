// The embedded module texts are what the driver compiles: each must be 64-bit PTX defining its own programs.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "OptixPrograms.h"

namespace
{

struct EmbeddedModule
{
    const char* sText;
    const char* aEntries[3];
};

TEST(EmbeddedPtx, EachTextIsSixtyFourBitPtxWithItsModulesEntries)
{
    const EmbeddedModule aModules[] = {
        {c_sOptixTriangleCountHits2, {"__raygen__rgCountHits", "__miss__ms", "__anyhit__ah"}},
        {c_sOptixTriangleAllHits2, {"__raygen__rgAllHits", "__miss__ms", "__anyhit__ah"}},
        {c_sOptixTriangleOneHit2, {"__raygen__rgFirst", "__miss__ms", "__closesthit__ch"}},
        {c_sOptixTriangleTwoHits4, {"__raygen__rgFirstLast", "__miss__ms", "__anyhit__ah"}},
        {c_sOptixTriangleOneHitDistance1, {"__raygen__rgFirstDistance", "__miss__ms", "__closesthit__ch"}},
        {c_sOptixTriangleTwoHitsDistance2, {"__raygen__rgFirstLastDistance", "__miss__ms", "__anyhit__ah"}},
    };
    for (const EmbeddedModule& module : aModules)
    {
        const std::string sText(module.sText);
        SCOPED_TRACE(module.aEntries[0]);
        EXPECT_NE(sText.find("\n.address_size 64\n"), std::string::npos);
        for (const char* sEntry : module.aEntries)
        {
            EXPECT_NE(sText.find(std::string(".visible .entry ") + sEntry + "()"), std::string::npos)
                << sEntry;
        }
        // Exactly three programs: no helper leaked out as an entry of its own.
        std::size_t nEntries = 0;
        for (std::size_t i = sText.find(".entry "); i != std::string::npos; i = sText.find(".entry ", i + 1))
        {
            ++nEntries;
        }
        EXPECT_EQ(nEntries, 3u);
    }
}

} // namespace
