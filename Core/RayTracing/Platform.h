// The one question the library asks its platform layer; each flavour answers it in its own platform folder.
#pragma once

#include <string>

// File name (or path) of the OptiX driver library the loader opens.
std::string PlatformOptixLibraryName();
