// Finds out at load whether GUARD_ARM stores what the C library's jump will read.
#include "shkv_intf/guard.h"

#include <stdint.h>

bool guard_quick;

#if defined(__x86_64__) && defined(__GLIBC__)

// The library hides what it saves of rsp and of the way back behind the thread's pointer guard.
// Words 6 and 7 of the buffer, and the word behind the saved registers, 0 for no signal mask.
static __attribute__((noinline)) bool stored_as_expected(const char *self_p)
{
    sigjmp_buf buf;
    if (sigsetjmp(buf, 0) != 0)
        return false;
    uint64_t stack, secret, shadow = 0;
    asm volatile("movq %%rsp, %0\n\tmovq %%fs:0x30, %1\n\trdsspq %2" : "=r"(stack), "=r"(secret), "+r"(shadow));
    const uint64_t *word_p = (const uint64_t *)(const void *)buf;
    uint64_t sp = (word_p[6] >> 17 | word_p[6] << 47) ^ secret,
             pc = (word_p[7] >> 17 | word_p[7] << 47) ^ secret;
    // With a shadow stack the jump would want its pointer, too.
    return shadow == 0 && sp == stack && pc - (uint64_t)self_p < 4096 && (uint32_t)word_p[8] == 0;
}

__attribute__((constructor)) static void find_out()
{
    guard_quick = stored_as_expected((const char *)(const void *)&stored_as_expected);
}

#endif
