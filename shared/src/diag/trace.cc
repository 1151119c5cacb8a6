// The trace ring of a store: fixed 16-byte records in shared memory, written by all its processes.
//
// A record is a few stores under the ring's own robust mutex: no system call, no formatting, no
// allocation, no other lock, so an event can be written with any lock of the store held. The
// stores of one event: the record or records, then index. A writer that dies in between leaves
// index where it was; the next writer makes the mutex usable and overwrites the half record.
// Stamps are taken before the lock, so neighbours need not be in order of time.
#include "diag/trace.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>

#include "diag/timer.h"
#include "shkv_intf/kmutex.h"
#include "shkv_intf/word.h"

#define TRACE_MIN_SZ 96
#define TRACE_STR_MAX 12u

static trace_rec *slot_p(trace_ring *ring_p, uint16_t slot)
{
    return (trace_rec *)(ring_p + 1) + slot;
}

// Slots of a ring. A store's is one page long, whatever somebody has stored into its count.
static uint16_t slots_of(const trace_ring *ring_p)
{
    const uint16_t PAGE_SLOTS = (uint16_t)((SHKV_PAGE_SIZE - sizeof(trace_ring)) / sizeof(trace_rec));
    uint16_t cnt = get16(&ring_p->count);
    return cnt < PAGE_SLOTS ? cnt : PAGE_SLOTS;
}

// Where the next record goes. index is another process's store: beyond count means slot 0.
static uint16_t current_slot(const trace_ring *ring_p, uint16_t cnt)
{
    uint16_t slot = get16(&ring_p->index);
    return slot < cnt ? slot : 0;
}

static uint16_t slot_after(uint16_t slot, uint16_t cnt)
{
    return slot + 1 < cnt ? slot + 1 : 0;
}

static bool ring_take(trace_ring *ring_p)
{
    return (get16(&ring_p->flags) & TRACE_LOCKED) && kmutex_lock(&ring_p->mutex) == 0;
}

// Publish. The records are stored above; a later writer's first slot is the one behind them.
static void ring_give(trace_ring *ring_p, uint16_t next_slot, bool locked)
{
    put16(&ring_p->index, next_slot);
    if (locked)
        pthread_mutex_unlock(&ring_p->mutex);
}

void trace_one(void *ring, uint32_t event, uint32_t arg)
{
    trace_ring *ring_p = (trace_ring *)ring;
    if (!ring_p)
        return;
    uint64_t now = cycles();
    bool locked = ring_take(ring_p);
    uint16_t cnt = slots_of(ring_p), slot = current_slot(ring_p, cnt);
    *slot_p(ring_p, slot) = {TRACE_ONE | event, arg, now};
    ring_give(ring_p, slot_after(slot, cnt), locked);
}

void trace_pair(void *ring, uint32_t event, uint32_t arg, uint32_t arg2, uint32_t word3)
{
    trace_ring *ring_p = (trace_ring *)ring;
    if (!ring_p)
        return;
    uint64_t now = cycles();
    bool locked = ring_take(ring_p);
    uint16_t cnt = slots_of(ring_p), slot = current_slot(ring_p, cnt);
    *slot_p(ring_p, slot) = {TRACE_PAIR1 | event, arg, now};
    slot = slot_after(slot, cnt);
    *slot_p(ring_p, slot) = {TRACE_PAIR2 | event, arg2, word3}; // no time: word3, then zero
    ring_give(ring_p, slot_after(slot, cnt), locked);
}

// Keeps the last 12 bytes: the end of a name is the telling part. A shorter text gets one NUL, and
// what lay behind it in the slot stays. id is not masked: below 0x1000000 by contract.
void shtrace_str(void *buf, uint32_t id, uint32_t arg, const char *str)
{
    trace_ring *ring_p = (trace_ring *)buf;
    if (!ring_p)
        return;
    uint64_t now = cycles();
    size_t len = strlen(str);
    if (len > TRACE_STR_MAX) {
        str += len - TRACE_STR_MAX;
        len = TRACE_STR_MAX;
    }
    bool locked = ring_take(ring_p);
    uint16_t cnt = get16(&ring_p->count), slot = current_slot(ring_p, cnt); // of any length
    *slot_p(ring_p, slot) = {id | TRACE_STR1, arg, now};
    slot = slot_after(slot, cnt);
    trace_rec *rec_p = slot_p(ring_p, slot);
    rec_p->code = id | TRACE_STR2;
    memcpy((char *)rec_p + offsetof(trace_rec, arg), str, len < TRACE_STR_MAX ? len + 1 : len);
    ring_give(ring_p, slot_after(slot, cnt), locked);
}

int shtrace_init(void *buf, int size, int locked)
{
    if (!buf) {
        errno = EINVAL;
        return 0;
    }
    if (size < TRACE_MIN_SZ) {
        fprintf(stderr, "too small buffer size for traces. Should be at least %d\n", TRACE_MIN_SZ);
        errno = EINVAL;
        return 0;
    }
    trace_ring *ring_p = (trace_ring *)buf;
    memset(buf, 0, (size_t)size);
    ring_p->count = (uint16_t)(((size_t)size - sizeof *ring_p) >> 4);
    ring_p->rec_sz = sizeof(trace_rec);
    // Only -1 counts as a failure here, and a positive error number does not. Intended.
    if (locked && kmutex_init(&ring_p->mutex) == -1) {
        fprintf(stderr, "failed to init the semaphore for shtrace\n");
        return 0;
    }
    // Behind the mutex: who opens a store that is being made finds it incomplete, and says so in this ring. One
    // that locked half a mutex would leave it locked for good.
    put16(&ring_p->flags, (uint16_t)(locked ? 1 | TRACE_LOCKED : 1));
    gettimeofday(&ring_p->start_tv, nullptr);
    ring_p->start_tsc = cycles();
    put32(&ring_p->magic, TRACE_MAGIC); // all else is stored above
    return 1;
}

void shtrace_fini(void *buf)
{
    trace_ring *ring_p = (trace_ring *)buf;
    if (get32(&ring_p->magic) != TRACE_MAGIC)
        return;
    if (ring_p->flags & TRACE_LOCKED)
        pthread_mutex_destroy(&ring_p->mutex);
    put32(&ring_p->magic, 0);
}

void *shkv_get_trbuf(void *supernode_p)
{
    return (char *)supernode_p + SHKV_PAGE_SIZE;
}

// Kept for programs that call it; the ring is always on.
int shkv_enable_info_trace(void)
{
    return 0;
}
