// Mappings of files as tight as they can be: behind each lies a page that nothing may touch, and the
// rest of its last page is poisoned (under the address sanitizer). Who reads past the end of what it
// mapped is found out. A damaged store can leave mappings behind; those that nobody has any more are
// forgotten in time.
#include <errno.h>
#include <stdint.h>
#include <sys/mman.h>

extern "C" {
void *__real_mmap(void *addr, size_t len, int prot, int flags, int fd, long off);
int __real_munmap(void *addr, size_t len);
void __asan_poison_memory_region(void const volatile *addr, size_t size) __attribute__((weak));
void __asan_unpoison_memory_region(void const volatile *addr, size_t size) __attribute__((weak));
}

unsigned tight_calls; // exchanges of a mapping so far
bool tight_tails; // poisoned from here on; a creation clears whole pages

static constexpr size_t PAGE = 4096;
static constexpr size_t LONGEST = 64u << 20; // of a mapping: a ring of nodes is walked to the end of it
static constexpr size_t SUPERNODE_LEN = PAGE + 720; // mapped as two whole pages, which the trace ring fills
static struct {
    char *at;
    size_t len;
} tight[1024];
static unsigned tight_cnt;

static size_t whole(size_t len)
{
    return (len + PAGE - 1) / PAGE * PAGE;
}

extern "C" void *__wrap_mmap(void *addr, size_t len, int prot, int flags, int fd, long off)
{
    ++tight_calls;
    if (fd < 0 || addr || len == 0)
        return __real_mmap(addr, len, prot, flags, fd, off);
    if (tight_tails && len > LONGEST) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    char *at = (char *)__real_mmap(nullptr, whole(len) + PAGE, PROT_NONE,
                                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (at == MAP_FAILED)
        return MAP_FAILED;
    if (__real_mmap(at, len, prot, flags | MAP_FIXED, fd, off) == MAP_FAILED) {
        __real_munmap(at, whole(len) + PAGE);
        return MAP_FAILED;
    }
    if (tight_tails && len != SUPERNODE_LEN && __asan_poison_memory_region)
        __asan_poison_memory_region(at + len, whole(len) - len);
    for (auto &slot : tight)
        if (!slot.at) {
            slot = {at, len};
            ++tight_cnt;
            return at;
        }
    // Too many for the list: there is no memory for one more.
    if (tight_tails && len != SUPERNODE_LEN && __asan_unpoison_memory_region)
        __asan_unpoison_memory_region(at + len, whole(len) - len);
    __real_munmap(at, whole(len) + PAGE);
    errno = ENOMEM;
    return MAP_FAILED;
}

// What is forgotten stays reserved, so that nothing else comes to lie there.
void tight_forget(bool (*in_use)(const void *))
{
    if (tight_cnt <= 512)
        return;
    for (auto &slot : tight) {
        if (!slot.at || in_use(slot.at))
            continue;
        if (__asan_unpoison_memory_region)
            __asan_unpoison_memory_region(slot.at + slot.len, whole(slot.len) - slot.len);
        __real_mmap(slot.at, whole(slot.len) + PAGE, PROT_NONE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
        slot = {};
        --tight_cnt;
    }
}

extern "C" int __wrap_munmap(void *addr, size_t len)
{
    ++tight_calls;
    for (auto &slot : tight)
        if (slot.at == addr && addr) {
            size_t mapped = slot.len;
            if (__asan_unpoison_memory_region)
                __asan_unpoison_memory_region(slot.at + mapped, whole(mapped) - mapped);
            slot = {};
            --tight_cnt;
            return __real_munmap(addr, whole(mapped) + PAGE);
        }
    return __real_munmap(addr, len);
}
