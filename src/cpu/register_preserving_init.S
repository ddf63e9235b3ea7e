// The two entries that fill the feature sets. Dispatching code calls them while its caller's
// arguments are still in registers, so they preserve every argument and scratch register: the
// general ones on the stack, the vector and mask registers at full width in an XSAVE image, or in
// an FXSAVE image if the system does not enable XSAVE.
//
//   rbp ->  saved registers, the return address above them
//   rbp-8   components saved by XSAVE; 0: FXSAVE
//           (alignment)
//           register image, aligned to 64
//   rsp ->  64 bytes: outgoing stack arguments of the call

// The components that a called C routine may change: x87, SSE, AVX, mask registers, both parts of
// the 512-bit state, and the APX registers. The tile state is left out: the detection does not
// touch it, and its image alone is 8 KiB.
#define PRESERVED_COMPONENTS 0x800E7
#define LAST_COMPONENT 19
#define LEGACY_IMAGE_SIZE 576   // legacy region and XSAVE header
#define XSAVE_HEADER 512
#define PAGE_SIZE 4096

#ifdef _WIN32
#define FIRST_ARGUMENT ecx
#else
#define FIRST_ARGUMENT edi
#endif

        .intel_syntax noprefix
        .text

.macro save_callee_saved register
        push \register
#ifdef _WIN32
        .seh_pushreg \register
#else
        .cfi_adjust_cfa_offset 8
        .cfi_rel_offset \register, 0
#endif
.endm

.macro save_scratch register
        push \register
#ifdef _WIN32
        .seh_stackalloc 8
#else
        .cfi_adjust_cfa_offset 8
#endif
.endm

// Saves the general registers and then sets up the frame pointer.
.macro save_general_registers
        .irp register, rbp, rbx, rsi, rdi
        save_callee_saved \register
        .endr
        .irp register, rcx, rdx, r8, r9, r10, r11
        save_scratch \register
        .endr
        mov rbp, rsp
#ifdef _WIN32
        .seh_setframe rbp, 0
        .seh_endprologue
#else
        .cfi_def_cfa_register rbp
#endif
.endm

.macro restore_general_registers
        mov rsp, rbp
        .irp register, r11, r10, r9, r8, rdx, rcx, rdi, rsi, rbx, rbp
        pop \register
        .endr
.endm

// Sets esi to the components to save, or to 0 if the system does not enable XSAVE, and edi to the
// size of the image.
.macro choose_components
        mov eax, 1
        cpuid
        xor esi, esi
        mov edi, LEGACY_IMAGE_SIZE
        bt ecx, 27
        jnc 3f
        xor ecx, ecx
        xgetbv
        mov esi, eax
        and esi, PRESERVED_COMPONENTS
        mov r8d, 2
1:      bt esi, r8d
        jnc 2f
        mov eax, 0xD
        mov ecx, r8d
        cpuid
        add eax, ebx
        cmp edi, eax
        cmovb edi, eax
2:      inc r8d
        cmp r8d, LAST_COMPONENT
        jbe 1b
3:
.endm

// Takes edi bytes of stack, aligned to 64, and 64 bytes more for the call. Touches every page on
// the way down, because the system extends a stack by one page at a time.
.macro take_stack
1:      cmp edi, PAGE_SIZE
        jb 2f
        sub rsp, PAGE_SIZE
        or qword ptr [rsp], 0
        sub edi, PAGE_SIZE
        jmp 1b
2:      sub rsp, rdi
        and rsp, -64
        sub rsp, 64
.endm

.macro save_components
        test esi, esi
        jz 1f
        xor edx, edx
        .irp offset, 0, 8, 16, 24, 32, 40, 48, 56
        mov qword ptr [rsp + 64 + XSAVE_HEADER + \offset], rdx
        .endr
        mov eax, esi
        xsave64 [rsp + 64]
        jmp 2f
1:      fxsave64 [rsp + 64]
2:
.endm

.macro restore_components
        mov eax, dword ptr [rbp - 8]
        test eax, eax
        jz 1f
        xor edx, edx
        xrstor64 [rsp + 64]
        jmp 2f
1:      fxrstor64 [rsp + 64]
2:
.endm

.macro fill_entry name, check_vendor
        .globl \name
        .p2align 4
#ifdef _WIN32
        .def \name
        .scl 2
        .type 32
        .endef
        .seh_proc \name
\name:
#else
        .hidden \name
        .type \name, @function
\name:
        .cfi_startproc
#endif
        save_general_registers
        choose_components
        push rsi
        take_stack
        save_components
        mov FIRST_ARGUMENT, \check_vendor
        call __orvex_cpu_features_detect
        mov ebx, eax
        restore_components
        mov eax, ebx
        restore_general_registers
#ifdef _WIN32
        ret
        .seh_endproc
#else
        .cfi_def_cfa rsp, 8
        ret
        .cfi_endproc
        .size \name, . - \name
#endif
.endm

        fill_entry __orvex_cpu_features_init, 0
        fill_entry __orvex_cpu_features_init_vendor, 1

#ifndef _WIN32
        .section .note.GNU-stack, "", @progbits
#endif
