/* Start-up processor checks, and the end of a program whose processor suits no variant of a
 * routine.
 *
 * A program built for a minimum processor level calls one of these checks once, first thing in
 * its main routine and in its main thread, before any code that needs the level. If the processor
 * has what the level requires, the check sets up the calling thread's MXCSR and returns. If not, it
 * writes a report to standard output (an empty line, the message, an empty line) and ends the
 * process with exit status 1, so registered exit handlers run.
 *
 * The required features are read from the processor once per process. The environment variable
 * ORVEX_ISA_DISABLE, a comma-separated list of lower-case feature names, takes features away.
 */
#ifndef KSOMD_PROCESSOR_H
#define KSOMD_PROCESSOR_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* `flags` of the checks: what to set in MXCSR. Bits are only ever set, never cleared; other bits
 * of `flags` are ignored. */
enum {
  KSOMD_FLUSH_TO_ZERO = 1,      /* MXCSR bit 15: results that would be subnormal become 0 */
  KSOMD_DENORMALS_ARE_ZERO = 2, /* MXCSR bit 6: subnormal operands count as 0; where supported */
  KSOMD_MXCSR_BIT_17 = 4        /* MXCSR bit 17; where supported */
};

/* Level checks, for processors of any vendor. The `new` form takes `flags`; the form without a
 * flags argument is the same with KSOMD_FLUSH_TO_ZERO | KSOMD_DENORMALS_ARE_ZERO.
 *
 *   suffix   requires
 *   (none)   X87, CMOV, MMX, SSE; if one is missing the check returns and does nothing
 *   B, N     X87, CMOV, MMX, SSE, SSE2
 *   P        the B set and SSE3
 *   T        the P set and SSSE3
 *   L        the T set and MOVBE
 *   S        the T set and SSE4_1
 *   H        the S set, SSE4_2 and POPCNT
 *   G        the H set and AVX
 *   I        the G set and F16C
 *   E        the I set, MOVBE, FMA, BMI, LZCNT and AVX2
 *
 * If the level does not guarantee denormals-are-zero or bit 17, the check asks the processor
 * whether it is supported (MXCSR_MASK). Denormals-are-zero is guaranteed from B upward, bit 17 from
 * H.
 *
 * The library also exports dotted names, for generated code that has done a part of the work
 * itself. `NAME.A` is what NAME does on a processor that lacks something: its report, or a return.
 * `NAME` followed by .H, .J, .K, .L, .M, .N, .O, .P, .R, .S or .V is NAME's setting of MXCSR
 * alone. */
KSOMD_API void __orvex_proc_init(void);
KSOMD_API void __orvex_proc_init_B(void);
KSOMD_API void __orvex_proc_init_N(void);
KSOMD_API void __orvex_proc_init_P(void);
KSOMD_API void __orvex_proc_init_T(void);

KSOMD_API void __orvex_new_proc_init(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_B(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_N(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_P(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_T(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_L(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_S(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_H(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_G(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_I(uint32_t flags);
KSOMD_API void __orvex_new_proc_init_E(uint32_t flags);

/* Feature check, for processors whose vendor string is "GenuineOrvex" only: requires every feature
 * of `mask`, bits of word `index` (0 or 1) of the feature set. Shadow-stack support (bit 52 of
 * word 0) is never required. The report names the missing features. */
KSOMD_API void __orvex_new_feature_proc_init_n(int32_t index, uint64_t mask);

/* The feature check on word 0; then, if the processor has SSE, MXCSR is set up as `flags` asks. */
KSOMD_API void __orvex_new_feature_proc_init(int32_t flags, uint64_t mask);

/* Ends the process at once with a breakpoint trap, because no variant of a dispatched routine suits
 * the processor. Writes nothing and runs no exit handlers. */
KSOMD_API KSOMD_NORETURN void __orvex_cpu_dispatch_fail(void);

KSOMD_END

#endif
