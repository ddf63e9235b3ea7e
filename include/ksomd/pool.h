/* Pools for the block sizes that a program asks for most, a small lock, and aligned allocation.
 *
 * A program that routes malloc, calloc, realloc and free through the pool routines declares first
 * which request sizes are hot. Every request of exactly such a size is served from a pool: one
 * large region of equal blocks, handed out one after the other. Blocks are not reused one by one:
 * when all blocks of a region have been handed out and freed, the region as a whole starts again.
 * Every other request goes to the C library's heap, as do all requests before __i_pool_init.
 *
 * A region holds 300000 blocks for the sizes 40, 48 and 96, and 30000 for every other size. It
 * comes from the heap in one request and is kept until the process ends. At most 50 pools exist;
 * when a request would need one more, the heap serves it.
 *
 * All routines may be called by any number of threads at a time, unless stated otherwise; a block
 * may be freed by another thread than the one that got it. None of them touches the floating-point
 * state. None may be called from a signal handler.
 */
#ifndef KSOMD_POOL_H
#define KSOMD_POOL_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* `kind` of __i_pool_init. Any other value than 0 means KSOMD_POOL_CALLOC. */
enum {
  KSOMD_POOL_MALLOC = 0, /* the sizes of __i_pool_malloc */
  KSOMD_POOL_CALLOC = 1  /* the sizes of __i_pool_calloc: the product of its two arguments */
};

/* Declares the sizes in bytes that pools serve, for one kind. `sizes` ends with 0; no more than its
 * first 50 are used, and if there are so many the 0 may be missing. The array is copied. A later
 * call for a kind replaces its list and leaves the other's alone. Call it before the first request
 * of that kind; changing the list while the program holds blocks of the kind's pools is not
 * supported. While a call replaces a list, the heap may serve other threads' requests for any size
 * of that kind. */
KSOMD_API void __i_pool_init(const size_t* sizes, int kind);

/* A block of `size` bytes; null if the heap is exhausted (errno is ENOMEM then). A pooled block is
 * aligned as its size allows: block i of a region lies i * size bytes after a block from malloc. A
 * size that is not listed, 0 included, is malloc(size). If the region of a new pool is refused, the
 * call returns null and a later request tries again. */
KSOMD_API void* __i_pool_malloc(size_t size);

/* A zeroed block of `count` * `size` bytes, as above. A product beyond 64 bits gives null. */
KSOMD_API void* __i_pool_calloc(size_t count, size_t size);

/* A block of `size` bytes with the contents of `block` up to the lesser of the two sizes; `block`
 * is freed. Null if the heap is exhausted: `block` is then untouched. A block of a pool always
 * moves, to where __i_pool_malloc(size) puts it; any other, or null, is passed to realloc. */
KSOMD_API void* __i_pool_realloc(void* block, size_t size);

/* Frees a block from any of the three routines above, or from the heap; null does nothing. */
KSOMD_API void __i_pool_free(void* block);

/* A lock is an int, 0 while free and 1 while held: a program sets it to 0 once.
 *
 * __fast_lock waits, without giving up the processor, until it holds the lock. It is not fair, and
 * a thread that takes a lock twice waits forever. Later accesses of the caller stay behind it.
 *
 * __fast_unlock frees the lock, whoever holds it. It is a full memory barrier: the caller's earlier
 * stores are visible to every thread before any of its later loads is performed. */
KSOMD_API void __fast_lock(int* lock);
KSOMD_API void __fast_unlock(int* lock);

/* Aligned allocation: the exported names are _mm_malloc and _mm_free. In C and C++ these names
 * belong to inline functions of the compilers' intrinsics headers, with another meaning, and on
 * Windows <stdlib.h> is enough to bring them in; so the exports have a spelling of their own here.
 * Never free a block of one pair with the other.
 *
 * `size` bytes at a multiple of `alignment`, which must be a power of two; alignments below 8 give
 * 8. A size of 0 gives a block of no bytes. Null if the heap is exhausted, or if size + 8 +
 * alignment exceeds 64 bits. Free the block with ksomd_mm_free. */
KSOMD_API void* ksomd_mm_malloc(size_t size, size_t alignment) __asm__("_mm_malloc");

/* Frees a block from ksomd_mm_malloc; null does nothing. */
KSOMD_API void ksomd_mm_free(void* block) __asm__("_mm_free");

KSOMD_END

#endif
