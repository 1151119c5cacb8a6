// String and memory helpers with results of their own for null pointers and for overlap.
#include "diag/str.h"

#include <string.h>

enum { STR_DONE = 0, STR_NULL = 400, STR_OVERLAP = 404 };

// At most n bytes and always a NUL: dst holds n + 1. Overlap ends the copy only when it really
// runs into the other buffer, so a short string close to its destination passes.
int shkv_sstrncpy(char *dst, const char *src, uint32_t n)
{
    if (!src || !dst)
        return STR_NULL;
    if (n == 0)
        return STR_DONE;
    if (dst == src)
        return STR_OVERLAP;
    bool above = (uintptr_t)dst > (uintptr_t)src;
    for (uint32_t i = 0; i < n; i++) {
        if (i && (above ? src + i == dst : dst + i == src))
            return STR_OVERLAP;
        if ((dst[i] = src[i]) == 0)
            return STR_DONE;
    }
    dst[n] = 0;
    return STR_DONE;
}

uint32_t shkv_sstrlen(const char *s)
{
    return s ? (uint32_t)strlen(s) : 0;
}

// The verdict is in *out; the result says only whether there is one.
int shkv_smemcmp(const void *a, const void *b, uint32_t n, int *out)
{
    if (!out)
        return STR_NULL;
    if (!a || !b) {
        *out = -1;
        return STR_NULL;
    }
    int order = n && a != b ? memcmp(a, b, n) : 0;
    *out = order < 0 ? -1 : order > 0;
    return STR_DONE;
}
