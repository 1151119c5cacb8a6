// The per-process text log. Off by default; a site then costs one load and one branch.
#pragma once
#include <stdarg.h>
#include "shkv.h"

// One line: the prefix that shkv_dbg_unformat chooses, the message, a flush.
void log_line(const char *fmt, ...) __attribute__((cold, noinline, format(printf, 1, 2)));
void log_vline(const char *fmt, va_list args) __attribute__((cold, noinline, format(printf, 1, 0)));

#define LOG(...)                                    \
    do {                                            \
        if (__builtin_expect(shkv_dbg_en != 0, 0))  \
            log_line(__VA_ARGS__);                  \
    } while (0)
