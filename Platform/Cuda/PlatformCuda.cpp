// GPU flavour's platform answers.
#include "Platform.h"

std::string PlatformOptixLibraryName()
{
#if defined(_WIN32)
    return "nvoptix.dll";
#else
    return "libnvoptix.so.1";
#endif
}
