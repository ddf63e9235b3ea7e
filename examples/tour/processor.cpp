#include "ksomd/processor.h"

#include <xmmintrin.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sections.h"

namespace tour {
namespace {

struct Level {
  const char* name;
  void (*check)(std::uint32_t flags);
  const char* requires_text;
};

const Level levels[] = {
    {"B", __orvex_new_proc_init_B, "SSE2"},
    {"P", __orvex_new_proc_init_P, "SSE3"},
    {"T", __orvex_new_proc_init_T, "SSSE3"},
    {"L", __orvex_new_proc_init_L, "SSSE3 and MOVBE"},
    {"S", __orvex_new_proc_init_S, "SSE4.1"},
    {"H", __orvex_new_proc_init_H, "SSE4.2 and POPCNT"},
    {"G", __orvex_new_proc_init_G, "AVX"},
    {"I", __orvex_new_proc_init_I, "AVX and F16C"},
    {"E", __orvex_new_proc_init_E, "AVX2, FMA, BMI, LZCNT and MOVBE"},
};

int run_self(const char* program, const std::string& arguments) {
  std::fflush(stdout);
  const std::string command = '"' + std::string(program) + "\" " + arguments;
  return std::system(command.c_str());  // NOLINT(bugprone-command-processor): this very program
}

}  // namespace

int check_level(const char* name) {
  std::fclose(stdout);
  for (const Level& level : levels) {
    if (std::strcmp(level.name, name) == 0) {
      level.check(0);
      return 0;
    }
  }
  return 2;
}

int check_without_avx2() {
  static char variable[] = "ORVEX_ISA_DISABLE=avx2";
  putenv(variable);
  __orvex_new_proc_init_E(0);
  return 0;
}

void show_processor(const char* program) {
  std::printf("\nStart-up checks\n");
  std::printf("  A program built for a processor level makes one call before anything else.\n");
  for (const Level& level : levels) {
    const bool passes = run_self(program, std::string("--level ") + level.name) == 0;
    std::printf("    __orvex_new_proc_init_%s  %-32s %s\n", level.name, level.requires_text,
                passes ? "runs here" : "does not run here");
  }
  const unsigned control = _mm_getcsr();
  std::printf("  This program asked for level B with subnormal numbers off: MXCSR is %#x\n",
              control);
  std::printf("    flush to zero %s, denormals are zero %s\n",
              (control & 0x8000) != 0 ? "on" : "off", (control & 0x40) != 0 ? "on" : "off");
  std::printf("  With ORVEX_ISA_DISABLE=avx2, a program built for level E ends like this:\n");
  const int status = run_self(program, "--without-avx2");
  std::printf("    (%s)\n", status == 0 ? "it ran" : "ended with a failure status, as it should");
}

}  // namespace tour
