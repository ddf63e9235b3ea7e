/* The core type that a thread runs on, and the sizes of the data caches.
 *
 * Only processors with the vendor string "GenuineOrvex" are described; any other processor has core
 * type 0 and cache sizes 0. Every routine may be called by any thread at any time; none fails. */
#ifndef KSOMD_CORE_H
#define KSOMD_CORE_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* Entry i: the core type that was last seen on a logical processor whose number modulo 1024 is i;
 * 0: none seen yet. A core type is the most significant byte of EAX of CPUID leaf 0x1A. Only
 * __detect_cpu_core_type writes entries, byte by byte and without synchronisation. */
KSOMD_API extern uint8_t __cpu_core_type[1024];

/* Finds out, once per process, whether core types can be told. They can if the processor mixes core
 * types and tells a thread which logical processor it runs on (RDPID). */
KSOMD_API void __init_cpu_core_type(void);

/* The core type of the logical processor that the calling thread runs on, also recorded in
 * __cpu_core_type; 0 if it cannot be told, or if the system moved the thread to another processor
 * during each of two attempts. */
KSOMD_API uint32_t __detect_cpu_core_type(void);
KSOMD_API uint32_t __detect_cpu_core_type_1n(void);

/* Size in KiB of the data or unified cache of level 1, 2 or 3; 0 for any other level and for a
 * level that the processor does not describe (CPUID leaf 4, or leaf 2 on processors whose leaf 4
 * describes no level-1 cache). */
KSOMD_API uint32_t __cacheSize(uint32_t level);

KSOMD_END

#endif
