// ksomd_probe_registers: the contract stands in register_probe.h.
//
//   rsp + 0    outgoing stack arguments of the call
//       + 64   routine, before, after, width: everything else is in use
//       + 96   rax of the call
//       + 112  xmm6 to xmm15 of the caller (callee-saved on Windows)

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

        .intel_syntax noprefix
        .text
        .globl ksomd_probe_registers
        .p2align 4

// A move between every register of a kind and its place: `load` names the direction.
.macro move load, instruction, kind, at, step, numbers:vararg
        .irp n, \numbers
        .if \load
        \instruction \kind\n, [rax + \at + \n * \step]
        .else
        \instruction [rax + \at + \n * \step], \kind\n
        .endif
        .endr
.endm

.macro move_vectors load
        cmp dword ptr [rsp + WIDTH], 1
        je 1f
        ja 2f
        move \load, movups, xmm, VECTORS, 64, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        jmp 3f
1:      move \load, vmovups, ymm, VECTORS, 64, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        jmp 3f
2:      move \load, vmovups, zmm, VECTORS, 64, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        move \load, vmovups, zmm, VECTORS, 64, 16, 17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31
        move \load, kmovq, k, MASKS, 8, 0, 1, 2, 3, 4, 5, 6, 7
3:      move \load, movq, mm, MMX, 8, 0, 1, 2, 3, 4, 5, 6, 7
.endm

.macro move_general load
        move \load, mov, r, 0, 8, 8, 9, 10, 11, 12, 13, 14, 15
        .set number, 1
        .irp register, cx, dx, bx, sp, bp, si, di
        .ifnc \register, sp
        .if \load
        mov r\register, [rax + 8 * number]
        .else
        mov [rax + 8 * number], r\register
        .endif
        .endif
        .set number, number + 1
        .endr
.endm

ksomd_probe_registers:
        .irp register, rbp, rbx, r12, r13, r14, r15, rsi, rdi
        push \register
        .endr
        sub rsp, FRAME
#ifdef _WIN32
        mov [rsp + ROUTINE], rcx
        mov [rsp + BEFORE], rdx
        mov [rsp + AFTER], r8
        mov [rsp + WIDTH], r9d
#else
        mov [rsp + ROUTINE], rdi
        mov [rsp + BEFORE], rsi
        mov [rsp + AFTER], rdx
        mov [rsp + WIDTH], ecx
#endif
        lea rax, [rsp + SAVED_VECTORS - 6 * 16]
        move 0, movups, xmm, 0, 16, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15

        mov rax, [rsp + BEFORE]
        move_vectors 1
        move_general 1
        call [rsp + ROUTINE]
        mov [rsp + RESULT], rax
        mov rax, [rsp + AFTER]
        move_general 0
        mov rcx, [rsp + RESULT]
        mov [rax], rcx
        move_vectors 0
        emms
        cmp dword ptr [rsp + WIDTH], 1
        jb 1f
        vzeroupper
1:      lea rax, [rsp + SAVED_VECTORS - 6 * 16]
        move 1, movups, xmm, 0, 16, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        add rsp, FRAME
        .irp register, rdi, rsi, r15, r14, r13, r12, rbx, rbp
        pop \register
        .endr
        ret

#ifndef _WIN32
        .section .note.GNU-stack, "", @progbits
#endif
