#include "TestPrograms.h"

const char c_sTestModuleText[] = ".version 9.0\n.target sm_75\n.address_size 64\n\n"
                                 ".visible .entry __raygen__test()\n{\n}\n"
                                 ".visible .entry __miss__test()\n{\n}\n"
                                 ".visible .entry __closesthit__test()\n{\n}\n"
                                 ".visible .entry __anyhit__test()\n{\n}\n";
const char c_sAssertModuleText[] = ".visible .entry __raygen__assert()\n{\n}\n";
const char c_sUnknownModuleText[] = ".visible .entry __raygen__nobody()\n{\n}\n";

RT_MODULE(StandInTest, 3)

RT_PROGRAM(__raygen__test)
{
    const TestLaunch& cLaunch = TestLaunchOfRecord();
    const unsigned int iRay = optixGetLaunchIndex().x;
    unsigned int nAnyHits = 0;
    unsigned int iClosest = c_uNoPrimitive;
    unsigned int uClosest = __float_as_uint(-1.0f);
    optixTrace(cLaunch.hTraversable, cLaunch.pOrigins[iRay], cLaunch.pDirections[iRay], cLaunch.fTmin,
               cLaunch.fTmax, 0.0f, 255u, cLaunch.uRayFlags, 0u, 1u, 0u, nAnyHits, iClosest, uClosest);
    RayResult& cResult = cLaunch.pResults[iRay];
    cResult.nAnyHits = nAnyHits;
    cResult.iClosest = iClosest;
    cResult.fClosest = __uint_as_float(uClosest);
}

RT_PROGRAM(__miss__test)
{
    RayResult& cResult = TestLaunchOfRecord().pResults[optixGetLaunchIndex().x];
    cResult.bMissed = 1;
    cResult.fMissTmax = optixGetRayTmax();
}

RT_PROGRAM(__closesthit__test)
{
    optixSetPayload_1(optixGetPrimitiveIndex());
    optixSetPayload_2(__float_as_uint(optixGetRayTmax()));
}

RT_PROGRAM(__anyhit__test)
{
    const TestLaunch& cLaunch = TestLaunchOfRecord();
    const unsigned int iHit = optixGetPayload_0();
    if (iHit < c_nMaxRecordedHits)
    {
        RayResult& cResult = cLaunch.pResults[optixGetLaunchIndex().x];
        cResult.aHits[iHit] = optixGetPrimitiveIndex();
        cResult.aHitDistances[iHit] = optixGetRayTmax();
    }
    optixSetPayload_0(iHit + 1);
    if (cLaunch.bIgnoreAll)
        optixIgnoreIntersection();
}
