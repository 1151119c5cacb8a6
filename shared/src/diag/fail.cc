// The failure exit: the line, the event, the value, in this order, so that a reader of the ring
// finds the text of an event in the log.
#include "diag/fail.h"

#include "diag/log.h"
#include "diag/trace.h"

#define LOG_ARGS(fmt)                  \
    do {                               \
        if (shkv_dbg_en && fmt) {      \
            va_list args;              \
            va_start(args, fmt);       \
            log_vline(fmt, args);      \
            va_end(args);              \
        }                              \
    } while (0)

int fail(void *ring_p, uint32_t event, uint32_t arg, int value, const char *fmt, ...)
{
    LOG_ARGS(fmt);
    if (event)
        trace_one(ring_p, event, arg);
    return value;
}

int fail_pair(void *ring_p, uint32_t event, uint32_t arg, uint32_t arg2, int value, const char *fmt, ...)
{
    LOG_ARGS(fmt);
    if (event)
        trace_pair(ring_p, event, arg, arg2, 0);
    return value;
}

int fail_err(void *ring_p, uint32_t event, uint32_t arg, uint32_t *err_p, uint32_t value, const char *fmt, ...)
{
    LOG_ARGS(fmt);
    if (event)
        trace_one(ring_p, event, arg);
    if (err_p)
        *err_p = value;
    return 0;
}
