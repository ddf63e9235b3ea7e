// The operating system as the library calls it: on the host, the few types and calls that the
// library needs, implemented on Linux (libunwind, the ELF loader's list of modules, signals).
// Names, values and layouts are those of the Windows headers.
#pragma once

#include <cstddef>
#include <cstdint>

using DWORD = std::uint32_t;
using LCID = DWORD;
using HANDLE = void*;
using HMODULE = void*;

inline constexpr DWORD FORMAT_MESSAGE_ALLOCATE_BUFFER = 0x100;
inline constexpr DWORD FORMAT_MESSAGE_FROM_HMODULE = 0x800;

// There is no message catalogue on the host, unless a test supplies one.
LCID GetThreadLocale();
HMODULE LoadLibraryExA(const char* name, HANDLE reserved, DWORD flags);
DWORD FormatMessageA(DWORD flags, HMODULE source, DWORD identifier, DWORD language, char* buffer,
                     DWORD size, void* arguments);
void* LocalFree(void* memory);

// ---- stacks, modules and memory -----------------------------------------------------------------

#define WINAPI

using BOOL = int;
using WORD = std::uint16_t;
using DWORD64 = std::uint64_t;
using FARPROC = void*;

struct alignas(16) CONTEXT {
  DWORD64 P1Home, P2Home, P3Home, P4Home, P5Home, P6Home;
  DWORD ContextFlags, MxCsr;
  WORD SegCs, SegDs, SegEs, SegFs, SegGs, SegSs;
  DWORD EFlags;
  DWORD64 Dr0, Dr1, Dr2, Dr3, Dr6, Dr7;
  DWORD64 Rax, Rcx, Rdx, Rbx, Rsp, Rbp, Rsi, Rdi, R8, R9, R10, R11, R12, R13, R14, R15, Rip;
  unsigned char FltSave[512];
  unsigned char VectorRegister[26][16];
  DWORD64 VectorControl, DebugControl;
  DWORD64 LastBranchToRip, LastBranchFromRip, LastExceptionToRip, LastExceptionFromRip;
};
static_assert(sizeof(CONTEXT) == 1232 && offsetof(CONTEXT, Rip) == 248);

enum ADDRESS_MODE : std::uint32_t { AddrMode1616, AddrMode1632, AddrModeReal, AddrModeFlat };

struct ADDRESS64 {
  DWORD64 Offset;
  WORD Segment;
  ADDRESS_MODE Mode;
};

struct STACKFRAME64 {
  ADDRESS64 AddrPC, AddrReturn, AddrFrame, AddrStack, AddrBStore;
  void* FuncTableEntry;
  DWORD64 Params[4];
  BOOL Far, Virtual;
  DWORD64 Reserved[3];
  unsigned char KdHelp[112];
};
static_assert(sizeof(STACKFRAME64) == 264);

struct MEMORY_BASIC_INFORMATION {
  void* BaseAddress;
  void* AllocationBase;
  DWORD AllocationProtect;
  std::size_t RegionSize;
  DWORD State, Protect, Type;
};
static_assert(sizeof(MEMORY_BASIC_INFORMATION) == 48);

inline constexpr DWORD IMAGE_FILE_MACHINE_AMD64 = 0x8664;
inline constexpr DWORD MEM_COMMIT = 0x1000;
inline constexpr DWORD MEM_FREE = 0x10000;
inline constexpr DWORD PAGE_NOACCESS = 0x01;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_EXECUTE = 0x10;
inline constexpr DWORD PAGE_EXECUTE_READ = 0x20;
inline constexpr DWORD PAGE_EXECUTE_READWRITE = 0x40;
inline constexpr DWORD PAGE_EXECUTE_WRITECOPY = 0x80;
inline constexpr DWORD PAGE_GUARD = 0x100;
inline constexpr DWORD PROCESS_VM_READ = 0x10;
inline constexpr DWORD PROCESS_QUERY_INFORMATION = 0x400;
inline constexpr DWORD ERROR_INVALID_ADDRESS = 487;

DWORD GetLastError();
void SetLastError(DWORD code);

HANDLE GetCurrentProcess();
HANDLE GetCurrentThread();
DWORD GetCurrentProcessId();
HANDLE OpenProcess(DWORD access, BOOL inherit, DWORD identifier);
BOOL CloseHandle(HANDLE handle);

// The only module is "NTDLL.DLL", and its only routine is RtlCaptureContext. The names are not
// looked at.
BOOL GetModuleHandleExA(DWORD flags, const char* name, HMODULE* module);
FARPROC GetProcAddress(HMODULE module, const char* name);

// Stores the registers as they are in the caller after this has returned.
void RtlCaptureContext(CONTEXT* context);

// A region is a segment of an ELF module, or else a mapping of the process as /proc/self/maps lists
// it. Its allocation is the ELF module that holds it, or else the region itself.
std::size_t VirtualQuery(const void* address, MEMORY_BASIC_INFORMATION* region, std::size_t size);

// Writes the path of the ELF module whose first byte is at `module`.
DWORD K32GetModuleFileNameExA(HANDLE process, HMODULE module, char* path, DWORD size);

BOOL SymInitialize(HANDLE process, const char* search_path, BOOL invade);
BOOL SymCleanup(HANDLE process);

// The first call describes the frame that `context` is in. Each later call moves `context` to the
// caller and describes that frame. False if there is no such frame. The last four arguments are
// ignored.
BOOL StackWalk64(DWORD machine, HANDLE process, HANDLE thread, STACKFRAME64* frame,
                 CONTEXT* context, void* read_memory, void* function_table, void* module_base,
                 void* translate);

namespace ksomd {

namespace host {

// A message catalogue that a test supplies before the first message is asked for.
struct Catalogue {
  LCID locale;
  // Whether `name` is the file that holds the catalogue.
  bool (*holds)(const char* name);
  // The text of a message in US English, or null.
  const char* (*text)(DWORD identifier);
};
extern const Catalogue* catalogue;

}  // namespace host
}  // namespace ksomd
