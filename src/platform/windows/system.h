// The operating system as the library calls it: Windows, as it is.
#pragma once

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// The headers below need windows.h before them.
#define PSAPI_VERSION 2
#include <imagehlp.h>
#include <psapi.h>
