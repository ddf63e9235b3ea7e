// The operating system as the library calls it: Windows, as it is.
#pragma once

#define WIN32_LEAN_AND_MEAN
#include <windows.h>
