// The SIGBUS guard on a reader's path. A shared object is a sparse file: a page that the system
// cannot supply, or one that was cut off, faults at the first touch, and the handler jumps to the
// place that was armed last in this process.
//
// A function that arms the guard is small, and what follows its label looks only at globals and at
// volatile locals of its outermost block: registers are lost, and the rest of the stack is that of
// the fault. The armed place dies with the function, so all guarded loads lie inside it.
#pragma once
#include "shkv.h"

// Arms the guard; a fault goes to label.
#define GUARD(label)                                    \
    do {                                                \
        if (__builtin_expect(guard_quick, 1))           \
            GUARD_ARM(label);                           \
        else if (sigsetjmp(sigbus_jmp, 0) != 0)         \
            goto label;                                 \
    } while (0)

// Stands between the last guarded call and the return: without it that call could be made in place
// of the return, when the frame to come back to is gone.
#define GUARD_HELD() asm volatile("" : : : "memory")

// GUARD without a call: stores what the C library's sigsetjmp would, with the label to come back
// to. Only while guard_quick is true: it is found out at load that the library's own jump reads its
// buffer this way.
//
// Nothing lives on in a register, but for the stack and frame pointers, which come back as they
// were: the function gives its caller's registers back from where it saved them.
extern bool guard_quick;

#if defined(__clang__) // keeps the base of a frame in rbx at times, whatever is clobbered
#define GUARD_KEEP_BASE "movq %%rbx, (%%rdi)\n\t"
#else
#define GUARD_KEEP_BASE
#endif

#if defined(__x86_64__) && defined(__GLIBC__)
#define GUARD_ARM(label)                                                                               \
    asm goto(GUARD_KEEP_BASE                                                                           \
             "movq %%fs:0x30, %%rdx\n\t"                                                               \
             "leaq %l[" #label "](%%rip), %%rax\n\t"                                                   \
             "movq %%rsp, %%rcx\n\t"                                                                   \
             "movq %%rbp, %%rsi\n\t"                                                                   \
             "xorq %%rdx, %%rax\n\t"                                                                   \
             "xorq %%rdx, %%rcx\n\t"                                                                   \
             "xorq %%rdx, %%rsi\n\t"                                                                   \
             "rolq $17, %%rax\n\t"                                                                     \
             "rolq $17, %%rcx\n\t"                                                                     \
             "rolq $17, %%rsi\n\t"                                                                     \
             "movq %%rsi, 8(%%rdi)\n\t"                                                                \
             "movq %%rcx, 48(%%rdi)\n\t"                                                               \
             "movq %%rax, 56(%%rdi)\n\t"                                                               \
             "movl $0, 64(%%rdi)"                                                                      \
             :                                                                                         \
             : "D"(sigbus_jmp)                                                                         \
             : "rax", "rcx", "rdx", "rsi", "rbx", "r8", "r9", "r10", "r11", "r12", "r13", "r14",       \
               "r15", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9",  \
               "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15", "cc", "memory"                    \
             : label)
#else // never armed this way: guard_quick stays false
#define GUARD_ARM(label) \
    do {                 \
        if (!guard_quick) \
            goto label;  \
    } while (0)
#endif
