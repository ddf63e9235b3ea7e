// ksomd-info: what the library finds on this processor, and what it makes of it.
#include <cstdio>
#include <cstdlib>

#include "cpu/feature_table.h"
#include "ksomd_version.h"
#include "report.h"

namespace {

using namespace ksomd::info;

constexpr int fulfilled = 0, not_fulfilled = 1, wrong_usage = 2, not_written = 3;

constexpr char usage[] =
    "usage: ksomd-info [--json | --require NAMES | --tune | --version | --help]\n"
    "\n"
    "Prints what the ksomd library finds on this processor: its features and why others are\n"
    "missing, the outcome of each start-up check, caches, tuning values, and the variant that\n"
    "each dispatching entry point takes.\n"
    "\n"
    "  --json           the same for programs, as a JSON object\n"
    "  --require NAMES  nothing but the named features that are missing, one a line with the\n"
    "                   reason; NAMES are separated by commas, in letters of either case: AVX2,\n"
    "                   sse4.1, SSE4_1\n"
    "  --tune           measures copies, moves and fills on this machine, some seconds, and "
    "prints\n"
    "                   the setting of KSOMD_MEM_TUNING that suits it\n"
    "  --version        the library's version\n"
    "  --help           this text\n"
    "\n"
    "Exit status: 0, with --require only if every named feature is there; 1, a named feature is\n"
    "missing; 2, wrong usage or a name that no feature has; 3, the output cannot be written.\n"
    "\n"
    "The variable ORVEX_ISA_DISABLE switches features off here as it does in every program,\n"
    "and KSOMD_MEM_TUNING sets tuning values.\n";

Report this_processor() {
  return make_report(ksomd::hardware_processor, std::getenv("ORVEX_ISA_DISABLE"),
                     std::getenv("KSOMD_MEM_TUNING"));
}

int require(const char* list) {
  const std::vector<std::string> names = split(list);
  int status = names.empty() ? wrong_usage : fulfilled;
  if (names.empty()) {
    std::fprintf(stderr, "ksomd-info: --require needs the names of features\n");
  }
  for (const std::string& name : names) {
    if (find_feature(name) == 0) {
      std::fprintf(stderr, "ksomd-info: no feature is named \"%s\"\n", name.c_str());
      status = wrong_usage;
    }
  }
  if (status != fulfilled) {
    return status;
  }
  const Report report = this_processor();
  for (const std::string& name : names) {
    const int id = find_feature(name);
    if (const std::string why = reason(report, id); !why.empty()) {
      std::printf("%s: %s\n", ksomd::feature_table::rows[id].upper_name, why.c_str());
      status = not_fulfilled;
    }
  }
  return status;
}

int run(int count, char** words) {
  const std::string_view option = count > 1 ? words[1] : "";
  if (option == "--require" && count == 3) {
    return require(words[2]);
  }
  if (count == 1) {
    print_text(this_processor());
  } else if (option == "--json" && count == 2) {
    print_json(this_processor());
  } else if (option == "--tune" && count == 2) {
    if (!tune()) {
      std::fprintf(stderr, "ksomd-info: not enough memory to measure in\n");
      return not_written;
    }
  } else if (option == "--version" && count == 2) {
    std::printf("ksomd %s\n", KSOMD_VERSION);
  } else if (option == "--help" && count == 2) {
    std::fputs(usage, stdout);
  } else {
    std::fputs(usage, stderr);
    return wrong_usage;
  }
  return fulfilled;
}

}  // namespace

int main(int count, char** words) {
  const int status = run(count, words);
  const bool flushed = std::fflush(stdout) == 0;
  if (!flushed || std::ferror(stdout) != 0) {
    std::fprintf(stderr, "ksomd-info: cannot write to standard output\n");
    return not_written;
  }
  return status;
}
