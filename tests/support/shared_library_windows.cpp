#include <windows.h>

#include "support/shared_library.h"

void* ksomd::test::find_exported(const std::string& name) {
  static const HMODULE library = LoadLibraryA("..\\libksomd.dll");
  return library == nullptr ? nullptr
                            : reinterpret_cast<void*>(GetProcAddress(library, name.c_str()));
}
