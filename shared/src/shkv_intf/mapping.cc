// Exchanges mappings under the threads of this process. The stores: a smaller size, the address, a
// larger size. Then the old mapping waits; it is unmapped by a later exchange of the same handle, by
// its end, or when memory for mappings runs out.
#include "shkv_intf/mapping.h"

#include <sys/mman.h>

#include "diag/timer.h"
#include "shkv_intf/head.h"

// More than a handle replaces in the time of the wait: a space doubles, and can do so 20 times.
#define OLD_MAX 32

#define HUGE_PAGE_SZ (2u << 20)

void *map_object(int fd, uint32_t sz, int prot, uint32_t at)
{
    void *base_p = mmap(nullptr, sz, prot, MAP_SHARED, fd, at);
    if (base_p != MAP_FAILED && sz >= HUGE_PAGE_SZ)
        madvise(base_p, sz, MADV_HUGEPAGE); // a refusal changes nothing
    return base_p;
}

struct old_mapping {
    void *base_p; // null: a free place
    void *const *of_pp; // where its address stood
    uint32_t sz;
    uint64_t tsc; // when it was replaced
};

static old_mapping old_mappings[HEADS][OLD_MAX];
static pthread_mutex_t old_mutex = PTHREAD_MUTEX_INITIALIZER; // nothing is taken under it

void mapping_hold()
{
    pthread_mutex_lock(&old_mutex);
}

void mapping_let_go()
{
    pthread_mutex_unlock(&old_mutex);
}

static void drop(old_mapping *old_p)
{
    munmap(old_p->base_p, old_p->sz);
    old_p->base_p = nullptr;
}

void mapping_drop_old(const shkv_head *head)
{
    int handle = handle_of(head);
    if (!handle)
        return;
    pthread_mutex_lock(&old_mutex);
    for (old_mapping &old : old_mappings[handle - 1])
        if (old.base_p)
            drop(&old);
    pthread_mutex_unlock(&old_mutex);
}

// A free place, or that of the oldest.
static void let_wait_locked(old_mapping *olds, void *base_p, void *const *of_pp, uint32_t sz)
{
    old_mapping *place_p = olds;
    uint64_t now = cycles();
    for (old_mapping *old_p = olds; old_p < olds + OLD_MAX; old_p++) {
        if (old_p->base_p && timer_diff_cycle_in_msec(now, old_p->tsc) > STAND_MS)
            drop(old_p);
        if (place_p->base_p && (!old_p->base_p || old_p->tsc < place_p->tsc))
            place_p = old_p;
    }
    if (place_p->base_p)
        drop(place_p);
    *place_p = {base_p, of_pp, sz, now};
}

// A head that is not in the table yet, or no more, is looked at by one thread alone. The view that was made
// of the mapping goes with it: that its versions have passed is not left to the bytes of the store to say.
static void let_wait(const shkv_head *head, void *base_p, void *const *of_pp, uint32_t sz)
{
    int handle = handle_of(head);
    if (!base_p || base_p == MAP_FAILED)
        return;
    if (!handle) {
        munmap(base_p, sz);
        return;
    }
    forget_view(head);
    pthread_mutex_lock(&old_mutex);
    let_wait_locked(old_mappings[handle - 1], base_p, of_pp, sz);
    pthread_mutex_unlock(&old_mutex);
}

static void store_pair(void **base_pp, uint32_t *size_p, void *base_p, uint32_t sz)
{
    if (sz < *size_p)
        put32(size_p, sz);
    __atomic_store_n(base_pp, base_p, __ATOMIC_RELEASE);
    put32(size_p, sz);
}

void mapping_give_up(shkv_head *head, void **base_pp, uint32_t *size_p)
{
    void *old_p = *base_pp;
    uint32_t old_sz = *size_p;
    store_pair(base_pp, size_p, nullptr, 0);
    let_wait(head, old_p, base_pp, old_sz);
}

void mapping_blank(shkv_head *head, void **base_pp, uint32_t *size_p)
{
    if (*base_pp && *base_pp != MAP_FAILED)
        mmap(*base_pp, *size_p, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    mapping_give_up(head, base_pp, size_p);
}

static void *take_back(const shkv_head *head, void *const *of_pp, uint32_t sz)
{
    int handle = handle_of(head);
    void *base_p = nullptr;
    pthread_mutex_lock(&old_mutex);
    for (old_mapping &old : old_mappings[handle ? handle - 1 : 0])
        if (handle && !base_p && old.base_p && old.of_pp == of_pp && old.sz == sz) {
            base_p = old.base_p;
            old.base_p = nullptr;
        }
    pthread_mutex_unlock(&old_mutex);
    return base_p;
}

bool mapping_unblank(const shkv_head *head, void **base_pp, uint32_t *size_p, int fd, uint32_t sz, int prot)
{
    void *base_p = take_back(head, base_pp, sz);
    if (!base_p)
        return false;
    if (mmap(base_p, sz, prot, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
        let_wait(head, base_p, base_pp, sz);
        return false;
    }
    store_pair(base_pp, size_p, base_p, sz);
    return true;
}

bool mapping_replace(shkv_head *head, void **base_pp, uint32_t *size_p, int fd, uint32_t sz, int prot)
{
    void *base_p = map_object(fd, sz, prot, 0);
    if (base_p == MAP_FAILED) {
        mapping_give_up(head, base_pp, size_p);
        mapping_drop_old(head);
        if ((base_p = map_object(fd, sz, prot, 0)) == MAP_FAILED)
            return false;
    }
    void *old_p = *base_pp;
    uint32_t old_sz = *size_p;
    store_pair(base_pp, size_p, base_p, sz);
    let_wait(head, old_p, base_pp, old_sz);
    return true;
}
