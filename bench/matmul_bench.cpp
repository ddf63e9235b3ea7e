// Matrix products in GFLOP/s, one thread: the sixteen entries, on every row of the kernel table,
// against the Fortran compiler's MATMUL and two BLAS libraries, each told to use its best kernels,
// beside what the processor can do at most with separate multiplies and adds.
//
// A benchmark is named ENTRY/EXTENT/CONTESTANT, as in r8_n_n/512/ksomd. All contestants of an entry
// and extent take turns when the first of them is asked for; each repetition (15 at the most, or as
// many as the large extents had turns) reports another turn, so that medians and spreads are
// theirs.
//
//   ksomd            the exported entry, kernels as chosen for this processor
//   ksomd_ROW        the same on another row of the kernel table
//   ksomd_portable   r8: the portable path, NAME.A
//   gfortran         MATMUL at -O3: above 30 the run-time library's, for this processor
//   gfortran_inline  MATMUL at -O3, always inlined: baseline instructions
//   gfortran_native  MATMUL at -O3 -march=native, always inlined
//   openblas, blis   gemm, loaded if installed
//   loop             up to 16: three nested loops
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "ksomd/matmul.h"
#include "matmul/drive/kernels.h"
#include "matmul/reference/arithmetic.h"
#include "matmul_ceiling.h"

extern "C" {
// matmul_peer.f90. Layouts: 0 to 3 for n_n, t_n, n_t, t_t.
#define KSOMD_PEER(code, element, build) \
  void build##_##code(const element*, const element*, element*, const int* n, const int* layout);
#define KSOMD_PEERS(code, element)           \
  KSOMD_PEER(code, element, gfortran)        \
  KSOMD_PEER(code, element, gfortran_inline) \
  KSOMD_PEER(code, element, gfortran_native)
KSOMD_PEERS(r4, float)
KSOMD_PEERS(r8, double)
KSOMD_PEERS(c4, ksomd_c4)
KSOMD_PEERS(c8, ksomd_c8)
}

namespace {

using ksomd::matmul::Size;

// Time that this thread had the processor: other programs' turns do not count.
double thread_time() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// ---- contestants --------------------------------------------------------------------------------

template <class Element>
struct Operands {
  int n;
  const Element* a;
  const Element* b;
  Element* p;
};

template <class Element>
struct Contestant {
  std::string name;
  std::function<void(const Operands<Element>&)> multiply;
};

template <class Element>
constexpr Element unity() {
  if constexpr (ksomd::matmul::is_complex<Element>) {
    return {1, 0};
  } else {
    return 1;
  }
}

template <class Element>
struct Type;

#define KSOMD_LAYOUT(code, a, b) \
  {#code "_" #a "_" #b, _MATMUL_##code##_##a##_##b, _MATMUL_##code##_##a##_##b##_portable}
#define KSOMD_TYPE(code_, element, gemm_, flops_)                                                  \
  template <>                                                                                      \
  struct Type<element> {                                                                           \
    using Entry = void (*)(const element*, const element*, element*, uint64_t, uint64_t, uint64_t, \
                           uint64_t, uint64_t, uint64_t);                                          \
    using Peer = void (*)(const element*, const element*, element*, const int*, const int*);       \
    struct Layout {                                                                                \
      const char* name;                                                                            \
      Entry entry;                                                                                 \
      Entry portable;                                                                              \
    };                                                                                             \
    static constexpr Layout layouts[4] = {KSOMD_LAYOUT(code_, n, n), KSOMD_LAYOUT(code_, t, n),    \
                                          KSOMD_LAYOUT(code_, n, t), KSOMD_LAYOUT(code_, t, t)};   \
    static constexpr struct {                                                                      \
      const char* name;                                                                            \
      Peer peer;                                                                                   \
    } peers[] = {{"gfortran", gfortran_##code_},                                                   \
                 {"gfortran_inline", gfortran_inline_##code_},                                     \
                 {"gfortran_native", gfortran_native_##code_}};                                    \
    static constexpr const char* gemm = gemm_;                                                     \
    static constexpr double flops = flops_; /* of a product and a sum */                           \
  };
KSOMD_TYPE(r4, float, "sgemm_", 2)
KSOMD_TYPE(r8, double, "dgemm_", 2)
KSOMD_TYPE(c4, ksomd_c4, "cgemm_", 8)
KSOMD_TYPE(c8, ksomd_c8, "zgemm_", 8)

// A BLAS library with its kernels forced; what it says that it uses is in the report's context.
struct Blas {
  const char* name;
  void* library;
};
Blas blas_libraries[] = {{"openblas", nullptr}, {"blis", nullptr}};

// Kernels as the library names them, and as the report does.
struct BlasKernels {
  const char* name;
  const char* title;
};
constexpr BlasKernels openblas_kernels[] = {{"SkylakeX", "kernels for 512-bit vectors"},
                                            {"Haswell", "kernels for 256-bit vectors"}};
constexpr BlasKernels blis_kernels[] = {{"skx", "kernels for 512-bit vectors"},
                                        {"haswell", "kernels for 256-bit vectors"}};

const char* best_of(const BlasKernels (&kernels)[2]) {
  return kernels[__builtin_cpu_supports("avx512f") != 0 ? 0 : 1].name;
}

template <class Function>
Function find(void* library, const char* name) {
  return library == nullptr ? nullptr : reinterpret_cast<Function>(dlsym(library, name));
}

void report(const char* name, const void* library, const BlasKernels (&kernels)[2],
            std::string_view in_use) {
  const char* title = library == nullptr ? "missing" : "other kernels";
  for (const BlasKernels& row : kernels) {
    title = in_use == row.name ? row.title : title;
  }
  benchmark::AddCustomContext(name, title);
}

// It reads its variable while it is loaded.
void* load_openblas() {
  setenv("OPENBLAS_CORETYPE", best_of(openblas_kernels), 0);
  void* const library = dlopen("libopenblas.so.0", RTLD_NOW | RTLD_LOCAL);
  const auto in_use = find<const char* (*)()>(library, "openblas_get_corename");
  report("openblas", library, openblas_kernels, in_use != nullptr ? in_use() : "");
  return library;
}

// It reads its variable, a number, when it initialises itself; the last name is "generic".
void* load_blis() {
  void* const library = dlopen("libblis.so.4", RTLD_NOW | RTLD_LOCAL);
  const auto name_of = find<const char* (*)(int)>(library, "bli_arch_string");
  const auto in_use = find<int (*)()>(library, "bli_arch_query_id");
  const auto initialize = find<void (*)()>(library, "bli_init");
  if (name_of == nullptr || in_use == nullptr || initialize == nullptr) {
    report("blis", library, blis_kernels, "");
    return library;
  }
  const std::string wanted = best_of(blis_kernels);
  for (int id = 0; id < 64; ++id) {
    const std::string name = name_of(id);
    if (name == wanted) {
      setenv("BLIS_ARCH_TYPE", std::to_string(id).c_str(), 0);
    }
    if (name == wanted || name == "generic") {
      break;
    }
  }
  initialize();
  report("blis", library, blis_kernels, name_of(in_use()));
  return library;
}

template <class Element>
void multiply_in_loops(int layout, const Operands<Element>& x) {
  const auto n = static_cast<Size>(x.n);
  const bool a_transposed = layout % 2 != 0;
  const bool b_transposed = layout / 2 != 0;
  for (Size j = 0; j < n; ++j) {
    for (Size i = 0; i < n; ++i) {
      Element sum{};
      for (Size l = 0; l < n; ++l) {
        const Element& a = a_transposed ? x.a[l + i * n] : x.a[i + l * n];
        const Element& b = b_transposed ? x.b[j + l * n] : x.b[l + j * n];
        sum = ksomd::matmul::add(sum, ksomd::matmul::multiply(a, b));
      }
      x.p[i + j * n] = sum;
    }
  }
}

const auto& best_kernels() {
  ksomd::FeatureSet features;
  ksomd::read_features(features);
  return ksomd::choose(ksomd::matmul::kernel_variants, features);
}

template <class Element>
Contestant<Element> entry_on(std::string name, typename Type<Element>::Entry entry,
                             const ksomd::matmul::Kernels* kernels) {
  return {std::move(name), [entry, kernels](const Operands<Element>& x) {
            ksomd::matmul::kernels_slot = kernels;
            const auto n = static_cast<Size>(x.n);
            entry(x.a, x.b, x.p, n, n, n, n, n, n);
          }};
}

template <class Element>
std::vector<Contestant<Element>> contestants(int layout, int n) {
  using T = Type<Element>;
  std::vector<Contestant<Element>> all;
  const auto* const best = best_kernels().choice;
  const auto& routines = T::layouts[layout];
  all.push_back(entry_on<Element>("ksomd", routines.entry, best));
  if (std::is_same_v<Element, double>) {
    all.push_back(entry_on<Element>("ksomd_portable", routines.portable, best));
  }
  for (const auto& row : ksomd::matmul::kernel_variants) {
    if (row.choice != best && ksomd::has_features(row.needs)) {
      all.push_back(
          entry_on<Element>(std::string("ksomd_") + row.name, routines.entry, row.choice));
    }
  }
  for (const auto& peer : T::peers) {
    // Some tens of seconds for one product of complex numbers.
    if (n < 2048 || T::flops == 2) {
      all.push_back({peer.name, [layout, call = peer.peer](const Operands<Element>& x) {
                       call(x.a, x.b, x.p, &x.n, &layout);
                     }});
    }
  }
  for (const Blas& blas : blas_libraries) {
    using Gemm = void (*)(const char*, const char*, const int*, const int*, const int*,
                          const Element*, const Element*, const int*, const Element*, const int*,
                          const Element*, Element*, const int*);
    const auto gemm =
        blas.library == nullptr ? nullptr : reinterpret_cast<Gemm>(dlsym(blas.library, T::gemm));
    if (gemm != nullptr) {
      all.push_back({blas.name, [layout, gemm](const Operands<Element>& x) {
                       static constexpr Element zero{};
                       static constexpr Element one = unity<Element>();
                       const int* n = &x.n;
                       gemm(layout % 2 != 0 ? "T" : "N", layout / 2 != 0 ? "T" : "N", n, n, n, &one,
                            x.a, n, x.b, n, &zero, x.p, n);
                     }});
    }
  }
  if (n <= 16) {
    all.push_back({"loop", [layout](const Operands<Element>& x) { multiply_in_loops(layout, x); }});
  }
  return all;
}

// ---- measurement --------------------------------------------------------------------------------

struct Freed {
  void operator()(void* memory) const { std::free(memory); }
};

// Contestants of one entry and extent, and the operands they share.
template <class Element>
class Contest {
 public:
  Contest(int layout, int n) : all(contestants<Element>(layout, n)), n_(n) {}

  std::vector<Contestant<Element>> all;

  // Seconds per call, of each contestant's turns.
  const std::vector<std::vector<double>>& times() {
    if (times_.empty()) {
      allocate();
      check_results();
      take_turns();
    }
    return times_;
  }

  Operands<Element> operands() const { return {n_, a_.get(), b_.get(), p_.get()}; }

 private:
  using Array = std::unique_ptr<Element, Freed>;
  int n_;
  Array a_, b_, p_;
  std::vector<std::vector<double>> times_;

  std::size_t count() const { return static_cast<std::size_t>(n_) * static_cast<std::size_t>(n_); }

  void allocate() {
    std::mt19937 random(1);  // NOLINT: the same numbers in every run
    const auto array = [&] {
      const std::size_t bytes = (count() * sizeof(Element) + 4095) / 4096 * 4096;
      Array memory(static_cast<Element*>(std::aligned_alloc(4096, bytes)));
      for (std::size_t i = 0; i < count(); ++i) {
        const auto value = [&] { return static_cast<float>(random() % 1024) / 1024 - 0.5F; };
        if constexpr (ksomd::matmul::is_complex<Element>) {
          memory.get()[i] = {value(), value()};
        } else {
          memory.get()[i] = value();
        }
      }
      return memory;
    };
    a_ = array();
    b_ = array();
    p_ = array();
  }

  // All compute the same product, or the contest is void.
  void check_results() {
    if (n_ > 512) {
      return;
    }
    std::vector<Element> first;
    for (const Contestant<Element>& contestant : all) {
      contestant.multiply(operands());
      if (first.empty()) {
        first.assign(p_.get(), p_.get() + count());
      }
      for (std::size_t i = 0; i < count(); ++i) {
        if (!(distance(first[i], p_.get()[i]) < 1e-3)) {
          std::fprintf(stderr, "%s computes another product\n", contestant.name.c_str());
          std::exit(1);
        }
      }
    }
  }

  static double distance(const Element& x, const Element& y) {
    if constexpr (ksomd::matmul::is_complex<Element>) {
      return std::hypot(static_cast<double>(x.re - y.re), static_cast<double>(x.im - y.im));
    } else {
      return std::fabs(static_cast<double>(x - y));
    }
  }

  // Turns of about `turn_time`, or one call; no more than `patience` for each, but three turns.
  void take_turns() {
    constexpr double turn_time = 0.002;
    constexpr double patience = 0.25;
    constexpr int turns = 15;
    times_.assign(all.size(), {});
    std::vector<double> spent(all.size());
    std::vector<int> calls(all.size(), 1);
    for (int turn = 0; turn <= turns; ++turn) {
      for (std::size_t i = 0; i < all.size(); ++i) {
        if (spent[i] > patience && turn > 2) {
          continue;
        }
        const double start = thread_time();
        for (int call = 0; call < calls[i]; ++call) {
          all[i].multiply(operands());
        }
        const double time = thread_time() - start;
        spent[i] += time;
        times_[i].push_back(time / calls[i]);
        calls[i] = std::max(1, static_cast<int>(turn_time / times_[i].back()));
      }
    }
    // The first of many was one call with cold caches.
    for (std::vector<double>& times : times_) {
      if (times.size() > 3) {
        times.erase(times.begin());
      }
    }
  }
};

template <class Element>
void register_type() {
  for (int layout = 0; layout < 4; ++layout) {
    for (const int n : {2, 3, 4, 6, 8, 12, 16, 24, 32, 48, 64, 128, 256, 512, 1024, 2048}) {
      const auto contest = std::make_shared<Contest<Element>>(layout, n);
      for (std::size_t i = 0; i < contest->all.size(); ++i) {
        const std::string name = std::string(Type<Element>::layouts[layout].name) + "/" +
                                 std::to_string(n) + "/" + contest->all[i].name;
        // Each repetition reports the next of the turns that the contestants took.
        benchmark::RegisterBenchmark(
            name.c_str(),
            [contest, i, n, turn = std::size_t{0}](benchmark::State& state) mutable {
              const std::vector<double>& times = contest->times()[i];
              const double time = times[turn++ % times.size()];
              for (auto _ : state) {
                state.SetIterationTime(time);
              }
              state.counters["GFLOP/s"] = Type<Element>::flops * n * n * n / time * 1e-9;
            })
            ->UseManualTime()
            ->Iterations(1);
      }
    }
  }
}

// ceiling/r8/512: the best of some turns.
void register_ceilings() {
  for (const Ceiling& ceiling : ceilings) {
    for (const bool is_double : {true, false}) {
      if (!ceiling.available()) {
        continue;
      }
      const std::string name =
          std::string("ceiling/") + (is_double ? "r8/" : "r4/") + std::to_string(ceiling.bits);
      benchmark::RegisterBenchmark(name.c_str(),
                                   [&ceiling, is_double](benchmark::State& state) {
                                     constexpr long steps = 300000;
                                     const auto run = is_double ? ceiling.sums_r8 : ceiling.sums_r4;
                                     double best = 1e9;
                                     for (auto _ : state) {
                                       for (int turn = 0; turn < 5; ++turn) {
                                         const double start = thread_time();
                                         benchmark::DoNotOptimize(run(steps));
                                         best = std::min(best, thread_time() - start);
                                       }
                                       state.SetIterationTime(best);
                                     }
                                     const int lanes = ceiling.bits / (is_double ? 64 : 32);
                                     state.counters["GFLOP/s"] =
                                         2.0 * products_per_step * steps * lanes / best * 1e-9;
                                   })
          ->UseManualTime()
          ->Iterations(1);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  // What counts is measured apart: the library's own loop may be as short as it can.
  std::vector<char*> arguments(argv, argv + argc);
  std::string short_loop = "--benchmark_min_time=0.0001";
  arguments.insert(arguments.begin() + 1, short_loop.data());
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 1;
  }
  benchmark::AddCustomContext("ksomd kernels", best_kernels().name);
  blas_libraries[0].library = load_openblas();
  blas_libraries[1].library = load_blis();
  register_ceilings();
  register_type<float>();
  register_type<double>();
  register_type<ksomd_c4>();
  register_type<ksomd_c8>();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
