// ksomd_quad_call: the contract stands in quad_call.h.
//
//   rsp + 0    outgoing stack arguments of the call: the callee's own 32 bytes on Windows,
//       + 32   and the fifth argument
//       + 40   the Call
//       + 48   xmm6 to xmm15 of the caller (callee-saved on Windows)

        .intel_syntax noprefix
#ifdef _WIN32
        .section .rdata, "dr"
#else
        .section .rodata
#endif
        .p2align 4
seed:   .quad 0x0123456789ABCDEF, 0xFEDCBA9876543210

        .text
        .globl ksomd_quad_call
        .p2align 4
#ifdef _WIN32
        .def ksomd_quad_call
        .scl 2
        .type 32
        .endef
#define CALL rcx
#else
        .type ksomd_quad_call, @function
#define CALL rdi
#endif

#define ROUTINE 0
#define INTEGERS 8
#define VECTORS 48
#define INTEGER_RESULT 64
#define VECTOR_RESULT 72
#define PRESERVED 80
#define FRAME 216

ksomd_quad_call:
        .irp register, rbp, rbx, r12, r13, r14, r15, rsi, rdi
        push \register
        .endr
        sub rsp, FRAME
        mov [rsp + 40], CALL
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movups [rsp + 48 + (\n - 6) * 16], xmm\n
        movaps xmm\n, [rip + seed]
        .endr
        mov rax, CALL
        .irp register, rbp, rbx, r12, r13, r14, r15, rsi, rdi
        mov \register, [rip + seed]
        .endr
        movq xmm0, [rax + VECTORS]
        movq xmm1, [rax + VECTORS + 8]
#ifdef _WIN32
        mov rcx, [rax + INTEGERS + 32]
        mov [rsp + 32], rcx
        mov rcx, [rax + INTEGERS]
        mov rdx, [rax + INTEGERS + 8]
        mov r8, [rax + INTEGERS + 16]
        mov r9, [rax + INTEGERS + 24]
#else
        mov rdi, [rax + INTEGERS]
        mov rsi, [rax + INTEGERS + 8]
        mov rdx, [rax + INTEGERS + 16]
        mov rcx, [rax + INTEGERS + 24]
        mov r8, [rax + INTEGERS + 32]
#endif
        call [rax + ROUTINE]

        mov r9, [rsp + 40]
        mov [r9 + INTEGER_RESULT], rax
        movq [r9 + VECTOR_RESULT], xmm0
        xor eax, eax
        mov rcx, [rip + seed]
        .irp register, rbp, rbx, r12, r13, r14, r15
        cmp \register, rcx
        jne 1f
        .endr
#ifdef _WIN32
        cmp rsi, rcx
        jne 1f
        cmp rdi, rcx
        jne 1f
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        pcmpeqb xmm\n, [rip + seed]
        pmovmskb edx, xmm\n
        cmp edx, 0xFFFF
        jne 1f
        .endr
#endif
        mov eax, 1
1:      mov [r9 + PRESERVED], rax
        .irp n, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15
        movups xmm\n, [rsp + 48 + (\n - 6) * 16]
        .endr
        add rsp, FRAME
        .irp register, rdi, rsi, r15, r14, r13, r12, rbx, rbp
        pop \register
        .endr
        ret

#ifndef _WIN32
        .size ksomd_quad_call, . - ksomd_quad_call
        .section .note.GNU-stack, "", @progbits
#endif
