/* Traceback: who called whom, in words.
 *
 * A walk steps through the frames of the calling thread's stack and hands each to a callback. A
 * lookup maps a code address to a routine, a source file and a line, by the trace section of the
 * module that holds it. A dump puts the two together: a text for people, in the caller's buffer,
 * one line or one paragraph a frame.
 *
 * Frames and contexts are the platform's own records. On Windows they are STACKFRAME64 (264 bytes)
 * and the x64 CONTEXT (1232 bytes) of the system's headers. On Linux they have the same layout,
 * with zeros in the fields that do not exist there.
 *
 * None of these routines uses the heap or ends the process, so a fault handler may call them. They
 * share one error text and the system's symbol handler, so only one thread at a time may call
 * them. */
#ifndef KSOMD_TRACEBACK_H
#define KSOMD_TRACEBACK_H

#include <ksomd/api.h>

KSOMD_BEGIN

/* How a walk ended. */
enum {
  KSOMD_WALK_DONE = 0,              /* the callback stopped it, or the last frame was reached */
  KSOMD_WALK_NO_SYMBOL_HANDLER = 1, /* the system's symbol handler did not start */
  KSOMD_WALK_NO_SYSTEM_MODULE = 2,  /* NTDLL.DLL was not found */
  KSOMD_WALK_NO_CAPTURE = 3,        /* it has no RtlCaptureContext */
  KSOMD_WALK_FAILED = 4,            /* the system's stack walker failed */
  KSOMD_WALK_EXCEPTION = 6,         /* the walker or the callback raised an exception */
  KSOMD_WALK_OVERFLOW = 7           /* the callback said that its output is full */
};

/* What a callback returns; anything else: go on. */
enum {
  KSOMD_FRAME_STOP = -1,    /* end the walk with KSOMD_WALK_DONE */
  KSOMD_FRAME_OVERFLOW = -2 /* end the walk with KSOMD_WALK_OVERFLOW */
};

/* Called for every frame, innermost first. `frame` is a STACKFRAME64 that lives until the callback
 * returns; `user` is what the caller of the walk gave; `skip` is 1 for the leading frames that
 * belong to the walk itself and 0 afterwards. */
typedef int32_t (*ksomd_frame_callback)(const void* frame, void* user, int32_t skip);

/* Walks the stack of the calling thread. The result is a KSOMD_WALK_ value, and
 * tbk_geterrorstring() then says the same in words.
 *
 * `context` is a CONTEXT to start from, such as that of a fault; it is copied, and no frame is
 * marked to be skipped. If it is null, the walk starts at the walk routine itself. Then the leading
 * `skip` frames are marked if `direct` is not 0, else the leading five.
 *
 * The walk ends with the frame that has no return address, after that frame was handed over. An
 * exception inside the callback or the system's walker (on Linux: SIGSEGV, SIGBUS, SIGFPE, SIGILL
 * or SIGTRAP on this thread) ends the walk and does not reach the caller. The handlers that were
 * there before are in place again when the walk returns. On Windows all of this holds for C++
 * exceptions too; on Linux a callback must not let one out. */
KSOMD_API uint32_t tbk_trace_stack_impl(const void* context, void* user,
                                        ksomd_frame_callback callback, uint32_t direct,
                                        uint32_t skip);

/* tbk_trace_stack_impl with `skip` 2: the walk routine and this one are skipped. */
KSOMD_API uint32_t tbk_trace_stack(const void* context, void* user, ksomd_frame_callback callback,
                                   uint32_t direct);

/* The program counter and the return address of a frame. tbk_getFramePtr always returns 0. */
KSOMD_API uint64_t tbk_getPC(const void* frame);
KSOMD_API uint64_t tbk_getRetAddr(const void* frame);
KSOMD_API uint64_t tbk_getFramePtr(const void* frame);

/* The text that goes with the latest walk's result, "No error" for 0 and 7; never null, at most 99
 * characters. It changes when the next walk begins. */
KSOMD_API const char* tbk_geterrorstring(void);

/* Writes the name of the module whose image holds `address`, with its extension and without its
 * directory, truncated to size - 1 characters and terminated. Name and extension are truncated to
 * 255 characters each. The text is empty if no module holds the address. If `base` is not null,
 * *base becomes 0. */
KSOMD_API void tbk_getModuleName(uint64_t address, char* name, uint32_t size, uint64_t* base);

/* What a lookup finds: three terminated texts. Names longer than 259 bytes are truncated. */
struct ksomd_pc_info {
  char routine[260]; /* as recorded by the compiler */
  char file[260];    /* as recorded, with or without directory */
  char line[260];    /* decimal */
};

/* Looks `pc` up in the trace section of its module. The result is always 0; if there is no trace
 * section, none of its blocks describes `pc`, or the bytes of the section make no sense, all three
 * texts are "Unknown".
 *
 * `bias` (null counts as 0) is for sections that hold addresses relative to a load address: blocks
 * whose recorded start address lies below it are moved up by it. It does not change where the
 * section is read. `module` is not used. Safe on several threads at once. */
KSOMD_API uint32_t tbk_get_pc_info_pie(struct ksomd_pc_info* info, uint64_t pc,
                                       const uint64_t* bias, const char* module);
KSOMD_API uint32_t tbk_get_pc_info(struct ksomd_pc_info* info, uint64_t pc, uint64_t bias,
                                   const char* module);

/* Writes a stack dump to `buffer`, which holds a terminated text, normally an empty one: the dump
 * starts at the buffer's start, and what follows it (an error text, the overflow notice) is
 * appended. Never more than `size` bytes are written, terminator included.
 *
 *   brief != 0   a table, one line a frame: image, program counter, routine, line, source file
 *   brief == 0   a paragraph a frame, with the frame's addresses and parameters too
 *
 * `context`, `direct` and `skip` are those of tbk_trace_stack_impl; skipped frames are not shown.
 *
 * Result: the number of characters of the dump, at most `size`. A dump that does not fit is
 * truncated, and ends with "Stack trace buffer overflow; further frames not shown." and a line
 * feed; a buffer of 57 bytes or less holds nothing but that notice, and the result is then 57. With
 * a null buffer nothing is written; the result is the size of a buffer that holds the whole dump.
 */
KSOMD_API uint64_t tbk_string_stack_signal_impl(const void* context, char* buffer, uint64_t size,
                                                uint32_t brief, uint32_t direct, uint32_t skip);

/* tbk_string_stack_signal_impl with `skip` 3: with `direct` 1 the dump starts at the caller. */
KSOMD_API uint64_t tbk_string_stack_signal(const void* context, char* buffer, uint64_t size,
                                           uint32_t brief, uint32_t direct);

KSOMD_END

#endif
