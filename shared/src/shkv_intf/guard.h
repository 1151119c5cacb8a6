// The SIGBUS guard on a reader's path. A shared object is a sparse file: a page that the system
// cannot supply, or one that was cut off, faults at the first touch, and the handler jumps to the
// place that was armed last in this process.
//
// A function that arms the guard is small, and what it does after coming back looks only at its
// parameters, at memory behind them and at globals: registers and spilled locals are those of the
// moment of arming. The armed place dies with the function, so all guarded loads lie inside it.
#pragma once
#include "shkv.h"

// False when armed, true when a fault has come back here.
#define GUARD_FAULTED() (sigsetjmp(sigbus_jmp, 0) != 0)

// The same without a call, where every nanosecond counts: stores what the C library's sigsetjmp
// would, with a label to come back to. Only while guard_quick is true: it is found out at load that
// the library's own jump reads its buffer this way.
//
// Nothing lives on in a register, but for the stack and frame pointers, which come back as they
// were: the function gives its caller's registers back from where it saved them. But the rest of the
// stack is that of the fault: the label may use only volatile locals of the function's outermost
// block, which nothing else is laid over.
extern bool guard_quick;

#if defined(__x86_64__) && defined(__GLIBC__)
#define GUARD_ARM(label)                                                                               \
    asm goto("movq %%fs:0x30, %%rdx\n\t"                                                               \
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
