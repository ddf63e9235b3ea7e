/* Copying, moving, filling and comparing memory.
 *
 * Pointers may have any alignment unless said otherwise; counts are bytes, below 2^63. A routine
 * reads and writes no byte outside the ranges it is given, returns the destination (or the result
 * of a comparison), sets no error and never fails; with a count of 0 it touches no memory. Invalid
 * pointers are the caller's responsibility. All routines may be called by any number of threads at
 * the same time. Where a routine uses non-temporal stores it ends them with a store fence before
 * it returns, unless said otherwise.
 *
 * Several routines change their method at sizes that are derived while the library is loaded: from
 * the cache sizes of a "GenuineOrvex" processor, or the level-2 size of an "AuthenticAMD" one.
 * Their names in this file are:
 *
 *   name                  genuine processor                  any other
 *   largest_cache_size    the largest of the three levels    131072
 *   copy_nt_threshold     half of that                       65536
 *   l1_size               the level-1 size                   16384
 *   rep_movsb_threshold   8192                               8192
 *   avx512_nt_threshold   6 * l1_size                        65536
 *   rep_stosb_threshold   2048                               16384
 */
#ifndef KSOMD_MEMORY_H
#define KSOMD_MEMORY_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* ---- what compiled code calls ---------------------------------------------------------------- */

/* The standard library's memcpy, memmove and memset: the first call chooses a variant for the
 * processor (AVX: the whole AVX2 level is present; generic: x87, CMOV, MMX, SSE and SSE2 are; else
 * the platform's own routine), later calls go straight to it. */
KSOMD_API void* _orvex_fast_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* _orvex_fast_memmove(void* destination, const void* source, size_t count);
KSOMD_API void* _orvex_fast_memset(void* destination, int value, size_t count);

/* -1, 0 or +1: the sign of the first difference, of unsigned bytes in address order. Equal
 * addresses compare equal without being read. Otherwise any byte of both ranges may be read, also
 * behind the first difference. */
KSOMD_API int _orvex_fast_memcmp(const void* first, const void* second, size_t count);

/* ---- generic variants: any x86-64 processor -------------------------------------------------- */

/* Copies above copy_nt_threshold and fills above largest_cache_size use non-temporal stores. A move
 * to a higher address never does if the ranges overlap. */
KSOMD_API void* __orvex_new_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_new_memmove(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_new_memset(void* destination, int value, size_t count);
KSOMD_API void* __orvex_memset(void* destination, int value, size_t count);
/* As _orvex_fast_memcmp, but equal addresses are compared like any others. */
KSOMD_API int __orvex_new_memcmp(const void* first, const void* second, size_t count);

/* ---- variants for processors with wide vectors ----------------------------------------------- */

/* None of these checks the processor. The copies do not support overlapping ranges. They change
 * their method at these counts:
 *
 *   routine                     needs              string instruction     non-temporal
 *   __orvex_avx_rep_memcpy      AVX                >= 3/8 l1_size         >= copy_nt_threshold
 *   __orvex_avx_memmove         AVX2               never                  >= copy_nt_threshold
 *   __orvex_avx_rep_memset      AVX2               >= 15/16 l1_size       never
 *   __orvex_tvr_avx512_memcpy   AVX512F            > rep_movsb_threshold  > avx512_nt_threshold
 *   __orvex_tvr_avx512_memset   AVX512F, AVX512BW  > rep_stosb_threshold  never
 *   __orvex_pxn_avx512f_memcpy  AVX512F            never                  >= copy_nt_threshold
 *   __orvex_pxn_avx512f_memset  AVX512F            never                  >= l1_size / 4
 *   the two rfo forms           AVX512F            never                  never
 *
 * The AVX and pxn routines compare the count that is left once the destination is aligned, the tvr
 * routines the whole count. All but the pxn routines clear the upper halves of the vector registers
 * before they return. */
KSOMD_API void* __orvex_avx_rep_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_avx_memmove(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_avx_rep_memset(void* destination, int value, size_t count);
KSOMD_API void* __orvex_tvr_avx512_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_tvr_avx512_memset(void* destination, int value, size_t count);
KSOMD_API void* __orvex_pxn_avx512f_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_pxn_avx512f_memset(void* destination, int value, size_t count);
KSOMD_API void* __orvex_pxn_avx512f_rfo_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_pxn_avx512f_rfo_memset(void* destination, int value, size_t count);

/* ---- vectorised loops: copy and fill --------------------------------------------------------- */

/* Ranges up to 16384 bytes go through string instructions. For larger ones the routines time one or
 * two loads from the destination: if it is in the cache they use ordinary stores, else non-temporal
 * ones. The copy does not support overlapping ranges. SSE2 is enough. */
KSOMD_API void* _VEC_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* _VEC_memset(void* destination, int value, size_t count);
/* Fills with 0, whatever the second argument is. */
KSOMD_API void* _VEC_memzero(void* destination, int ignored, size_t count);
KSOMD_API void* __orvex_VEC_memcpy(void* destination, const void* source, size_t count);
KSOMD_API void* __orvex_VEC_memset(void* destination, int value, size_t count);
KSOMD_API void* __orvex_VEC_memzero(void* destination, int ignored, size_t count);

/* ---- vectorised loops: streaming stores ------------------------------------------------------ */

/* A loop that produces its output chunk by chunk collects a chunk behind a context and hands it
 * over. Whole aligned lines (64 bytes in the 512-bit forms, 32 in the 256-bit ones) go to the
 * destination by non-temporal stores; the rest waits in the staging line for the next call.
 *
 *     0                64            72            80        88
 *     +----------------+-------------+-------------+---------+--------------------------+
 *     | staging line   | destination | head offset | pending | chunk of the current call|
 *     +----------------+-------------+-------------+---------+--------------------------+
 *      ^ bytes that      ^ where the   ^ offset past ^ bytes
 *        wait for a        next byte     a line, once  that
 *        full line         goes          asked for     wait
 *
 *     struct { __libkso_nt_context context; double chunk[64]; } stream;
 *     stream.context.destination = output;
 *     stream.context.head_offset = (uintptr_t)output % 64;
 *     stream.context.pending = 0;
 *     for (...) {
 *       ... fill stream.chunk ...
 *       __libkso_nontemporal_store(&stream.context, bytes_in_chunk, is_last_chunk);
 *     }
 *
 * Before the first call the caller sets the destination, the head offset (the destination's offset
 * past a line; 0: it is aligned) and a pending count of 0. A call with `final` other than 0 leaves
 * nothing waiting. A chunk of at most 255 bytes (127 in the 256-bit forms) is written at once by
 * ordinary stores, after the bytes that wait. After such a chunk the destination must be on a line
 * boundary again, or the caller must set a new head offset; else the next full line faults.
 *
 * A context belongs to one thread at a time. These routines issue no store fence. The caller issues
 * one before it sets a flag that tells another thread to read what they stored. */
typedef struct __libkso_nt_context {
  unsigned char staging[64]; /* the first `pending` bytes wait */
  void* destination;         /* advanced by every byte written */
  uint64_t head_offset;      /* other than 0: align the destination first; reset to 0 then */
  uint64_t pending;          /* bytes of `staging` that wait */
  /* The chunk follows, at offset 88. */
} __libkso_nt_context;

enum { KSOMD_NT_CHUNK_OFFSET = 88 };

/* Chooses the 512-bit form (AVX-512 F, DQ, CD, BW and VL, ADX and the AVX2 level), the 256-bit form
 * (the AVX2 level), or ordinary stores straight to the destination, on its first call. */
KSOMD_API void __libkso_nontemporal_store(__libkso_nt_context* context, size_t length, int final);
KSOMD_API void __libkso_nontemporal_store_256(__libkso_nt_context* context, size_t length,
                                              int final);
KSOMD_API void __libkso_nontemporal_store_512(__libkso_nt_context* context, size_t length,
                                              int final);

/* With `plain` other than 0 the chunk goes straight to the destination by ordinary stores. The
 * plain path reads neither the staging line nor the pending count: a caller that switches to it
 * while bytes wait loses them. */
KSOMD_API void __libkso_nontemporal_store_dynamic(__libkso_nt_context* context, size_t length,
                                                  int final, int plain);
KSOMD_API void __libkso_nontemporal_store_dynamic_256(__libkso_nt_context* context, size_t length,
                                                      int final, int plain);
KSOMD_API void __libkso_nontemporal_store_dynamic_512(__libkso_nt_context* context, size_t length,
                                                      int final, int plain);

KSOMD_END

#endif
