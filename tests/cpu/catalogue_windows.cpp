#include <windows.h>

#include "cpu/catalogue.h"

// The test build puts the catalogue into the directory catalogue/1033 of the working directory; it
// is looked for relative to the current one.
void ksomd::test::use_catalogue(bool present) {
  constexpr LCID us_english = 1033, german = 1031;
  SetCurrentDirectoryA("catalogue");
  SetThreadLocale(present ? us_english : german);
}
