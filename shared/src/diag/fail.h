// The failure exit, one statement: first the line, then the event, then the value.
// Event 0 writes no event, a null ring none either, a null format no line.
#pragma once
#include "shkv.h"

int fail(void *ring_p, uint32_t event, uint32_t arg, int value, const char *fmt, ...)
    __attribute__((cold, noinline, format(printf, 5, 6)));

// The same with a pair of records: arg in the first, arg2 in the second.
int fail_pair(void *ring_p, uint32_t event, uint32_t arg, uint32_t arg2, int value, const char *fmt, ...)
    __attribute__((cold, noinline, format(printf, 6, 7)));

// Stores value in *err_p (when err_p is not null) and returns 0: the exit of functions whose
// result is 1 or a handle.
int fail_err(void *ring_p, uint32_t event, uint32_t arg, uint32_t *err_p, uint32_t value, const char *fmt, ...)
    __attribute__((cold, noinline, format(printf, 6, 7)));
