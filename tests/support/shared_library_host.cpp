#include <dlfcn.h>

#include "support/shared_library.h"

void* ksomd::test::find_exported(const std::string& name) {
  static void* const library = dlopen("../libksomd.so", RTLD_NOW | RTLD_LOCAL);
  return library == nullptr ? nullptr : dlsym(library, name.c_str());
}
