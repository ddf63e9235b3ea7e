// ksomd_probe_registers: the contract stands in register_probe.h.
//
//   rsp + 0    outgoing stack arguments of the call
//       + 64   routine, before, after, width: everything else is in use
//       + 96   rax of the call
//       + 112  xmm6 to xmm15 of the caller (callee-saved on Windows)

        .intel_syntax noprefix
        .text
        .globl ksomd_probe_registers
        .p2align 4
#ifdef _WIN32
        .def ksomd_probe_registers
        .scl 2
        .type 32
        .endef
#define ARGUMENT_1 rcx
#define ARGUMENT_2 rdx
#define ARGUMENT_3 r8
#define ARGUMENT_4 r9d
#else
        .type ksomd_probe_registers, @function
#define ARGUMENT_1 rdi
#define ARGUMENT_2 rsi
#define ARGUMENT_3 rdx
#define ARGUMENT_4 ecx
#endif

#define ROUTINE 64
#define BEFORE 72
#define AFTER 80
#define WIDTH 88
#define RESULT 96
#define SAVED_VECTORS 112
#define FRAME 280

#define MASKS 128
#define MMX 192
#define VECTORS 256

ksomd_probe_registers:
        .irp register, rbp, rbx, r12, r13, r14, r15, rsi, rdi
        push \register
        .endr
        sub rsp, FRAME
        mov [rsp + ROUTINE], ARGUMENT_1
        mov [rsp + BEFORE], ARGUMENT_2
        mov [rsp + AFTER], ARGUMENT_3
        mov [rsp + WIDTH], ARGUMENT_4
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movups [rsp + SAVED_VECTORS + (\n - 6) * 16], xmm\n
        .endr

        mov rax, [rsp + BEFORE]
        cmp dword ptr [rsp + WIDTH], 1
        je 1f
        ja 2f
        .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movups xmm\n, [rax + VECTORS + \n * 64]
        .endr
        jmp 3f
1:      .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        vmovups ymm\n, [rax + VECTORS + \n * 64]
        .endr
        jmp 3f
2:      .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        vmovups zmm\n, [rax + VECTORS + \n * 64]
        .endr
        .irp n, 0, 1, 2, 3, 4, 5, 6, 7
        kmovq k\n, [rax + MASKS + \n * 8]
        .endr
3:      .irp n, 0, 1, 2, 3, 4, 5, 6, 7
        movq mm\n, [rax + MMX + \n * 8]
        .endr
        mov rcx, [rax + 8 * 1]
        mov rdx, [rax + 8 * 2]
        mov rbx, [rax + 8 * 3]
        mov rbp, [rax + 8 * 5]
        mov rsi, [rax + 8 * 6]
        mov rdi, [rax + 8 * 7]
        .irp n, 8, 9, 10, 11, 12, 13, 14, 15
        mov r\n, [rax + 8 * \n]
        .endr
        call [rsp + ROUTINE]

        mov [rsp + RESULT], rax
        mov rax, [rsp + AFTER]
        mov [rax + 8 * 1], rcx
        mov [rax + 8 * 2], rdx
        mov [rax + 8 * 3], rbx
        mov [rax + 8 * 5], rbp
        mov [rax + 8 * 6], rsi
        mov [rax + 8 * 7], rdi
        .irp n, 8, 9, 10, 11, 12, 13, 14, 15
        mov [rax + 8 * \n], r\n
        .endr
        mov rcx, [rsp + RESULT]
        mov [rax], rcx
        .irp n, 0, 1, 2, 3, 4, 5, 6, 7
        movq [rax + MMX + \n * 8], mm\n
        .endr
        emms
        cmp dword ptr [rsp + WIDTH], 1
        je 4f
        ja 5f
        .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movups [rax + VECTORS + \n * 64], xmm\n
        .endr
        jmp 6f
4:      .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        vmovups [rax + VECTORS + \n * 64], ymm\n
        .endr
        vzeroupper
        jmp 6f
5:      .irp n, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        vmovups [rax + VECTORS + \n * 64], zmm\n
        .endr
        .irp n, 0, 1, 2, 3, 4, 5, 6, 7
        kmovq [rax + MASKS + \n * 8], k\n
        .endr
        vzeroupper
6:      .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movups xmm\n, [rsp + SAVED_VECTORS + (\n - 6) * 16]
        .endr
        add rsp, FRAME
        .irp register, rdi, rsi, r15, r14, r13, r12, rbx, rbp
        pop \register
        .endr
        ret

#ifndef _WIN32
        .size ksomd_probe_registers, . - ksomd_probe_registers
        .section .note.GNU-stack, "", @progbits
#endif
