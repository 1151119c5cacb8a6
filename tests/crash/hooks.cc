// The library under exploration is compiled with the compiler's instrumentation for a thread
// checker, which calls a function before every load and store. These are those functions: they
// count the stores that go to shared mappings, and the calls that change an object in the file
// system. A process that ends at step N has made the first N - 1 of them and nothing else, which
// is just what a killed writer leaves: shared memory forgets no store.
#include "crash/hooks.h"

#include <fcntl.h>
#include <stdarg.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

struct range {
    uintptr_t from, to;
};
range shared_ranges[256];
int range_cnt;
bool armed;
uint64_t kill_at, steps;

void step_if(bool counts)
{
    if (armed && counts && ++steps == kill_at)
        _exit(EXIT_KILLED);
}

void stored(const void *addr)
{
    uintptr_t at = (uintptr_t)addr;
    for (int i = 0; armed && i < range_cnt; ++i)
        if (at >= shared_ranges[i].from && at < shared_ranges[i].to)
            return step_if(true);
}

// A long copy is cut in two, so that a half-written record is a state too.
template <typename F> void *in_halves(void *dst, size_t len, F part)
{
    size_t half = len / 2;
    stored(dst);
    part(0, half);
    if (len > 8)
        stored(dst);
    part(half, len - half);
    return dst;
}

} // namespace

void hooks_arm(uint64_t at)
{
    kill_at = at;
    steps = 0;
    armed = true;
}

extern "C" {

#define QUIET(name, ...) \
    void name(__VA_ARGS__) {}
QUIET(__tsan_init)
QUIET(__tsan_func_entry, void *)
QUIET(__tsan_func_exit)
#define SIZED(size)                      \
    QUIET(__tsan_read##size, void *)     \
    void __tsan_write##size(void *addr)  \
    {                                    \
        stored(addr);                    \
    }
SIZED(1)
SIZED(2)
SIZED(4)
SIZED(8)
SIZED(16)
QUIET(__tsan_read_range, void *, unsigned long)
void __tsan_write_range(void *addr, unsigned long)
{
    stored(addr);
}

// Those that the library uses; another one would not link.
#define ATOMIC(bits, type)                                               \
    type __tsan_atomic##bits##_load(const volatile type *addr, int)      \
    {                                                                    \
        return __atomic_load_n(addr, __ATOMIC_ACQUIRE);                  \
    }                                                                    \
    void __tsan_atomic##bits##_store(volatile type *addr, type val, int) \
    {                                                                    \
        stored(const_cast<type *>(addr));                                \
        __atomic_store_n(addr, val, __ATOMIC_RELEASE);                   \
    }
ATOMIC(8, uint8_t)
ATOMIC(16, uint16_t)
ATOMIC(32, uint32_t)
ATOMIC(64, uint64_t)
uint32_t __tsan_atomic32_exchange(volatile uint32_t *addr, uint32_t val, int)
{
    stored(const_cast<uint32_t *>(addr));
    return __atomic_exchange_n(addr, val, __ATOMIC_ACQ_REL);
}
int __tsan_atomic32_compare_exchange_strong(volatile uint32_t *addr, uint32_t *old_p, uint32_t val, int, int)
{
    stored(const_cast<uint32_t *>(addr));
    return __atomic_compare_exchange_n(addr, old_p, val, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}
void __tsan_atomic_thread_fence(int) {}
void __tsan_atomic_signal_fence(int) {}

// The linker sends the library's own calls here (--wrap).
void *__real_memcpy(void *, const void *, size_t);
void *__real_memset(void *, int, size_t);
void *__real_mmap(void *, size_t, int, int, int, off_t);
int __real_munmap(void *, size_t);
int __real_ftruncate(int, off_t);

void *__wrap_memcpy(void *dst, const void *src, size_t len)
{
    return in_halves(dst, len, [&](size_t at, size_t part) {
        __real_memcpy((char *)dst + at, (const char *)src + at, part);
    });
}

void *__wrap_memset(void *dst, int byte, size_t len)
{
    return in_halves(dst, len, [&](size_t at, size_t part) { __real_memset((char *)dst + at, byte, part); });
}

void *__wrap_mmap(void *hint, size_t len, int prot, int flags, int fd, off_t off)
{
    void *base = __real_mmap(hint, len, prot, flags, fd, off);
    if (base != MAP_FAILED && (flags & MAP_SHARED) && range_cnt < 256)
        shared_ranges[range_cnt++] = {(uintptr_t)base, (uintptr_t)base + len};
    return base;
}

int __wrap_munmap(void *base, size_t len)
{
    for (int i = 0; i < range_cnt; ++i)
        if (shared_ranges[i].from == (uintptr_t)base) {
            shared_ranges[i] = shared_ranges[--range_cnt];
            break;
        }
    return __real_munmap(base, len);
}


// A length, and making and removing a name.
int __real_unlink(const char *);
int __wrap_unlink(const char *path)
{
    return step_if(true), __real_unlink(path);
}
int __wrap_ftruncate(int fd, off_t len)
{
    return step_if(true), __real_ftruncate(fd, len);
}
int __real_open(const char *, int, ...);
int __wrap_open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    unsigned mode = va_arg(args, unsigned);
    va_end(args);
    return step_if(flags & O_CREAT), __real_open(path, flags, mode);
}
}
