/* Stands in for libcuda.so.1 where there is no GPU: cuInit and cuDeviceGetCount answer as the environment
   says (default: one device), and nothing else exists, so the CUDA runtime's first call fails as it would
   against a broken driver. */
#include <stdlib.h>

static int EnvironmentInt(const char* sName, int iDefault)
{
    const char* sValue = getenv(sName);
    return sValue != NULL ? atoi(sValue) : iDefault;
}

int cuInit(unsigned int uFlags)
{
    (void)uFlags;
    return EnvironmentInt("FAKE_CUDA_INIT_RESULT", 0);
}

int cuDeviceGetCount(int* pCount)
{
    *pCount = EnvironmentInt("FAKE_CUDA_DEVICES", 1);
    return 0;
}
