#include "TestPrograms.h"

RT_MODULE(StandInAssert, 1)

RT_PROGRAM(__raygen__assert)
{
    const TestLaunch& cLaunch = TestLaunchOfRecord();
    RT_DEVICE_ASSERT("StandInAssert", optixGetLaunchIndex().x != cLaunch.iFailingRay);
    cLaunch.pResults[optixGetLaunchIndex().x].nAnyHits = 1;
}
