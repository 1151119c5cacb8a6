// Mappings of tables and record spaces that are exchanged under the threads of this process.
//
// A handle may be used by several threads, and a thread that reads takes no lock: while one of them
// follows a growth, others may stand on what was mapped before. So the new mapping is made beside
// the old one, address and size are exchanged in an order that a reader can check, and the old
// mapping goes only after a time in which whoever stood on it has gone on.
#pragma once
#include <stddef.h>
#include "shkv.h"
#include "shkv_intf/word.h"

#define STAND_MS 1000u // how long a thread may stand on what was replaced; a reshape waits as long

// Maps sz bytes of an object from byte at on; MAP_FAILED with errno. Where its mount leaves huge pages to
// those who ask (huge=advise), this asks: what is touched first then costs a page fault for 2 MB, not 4 KB.
void *map_object(int fd, uint32_t sz, int prot, uint32_t at);

// Exchanges what *base_pp and *size_p say for sz bytes of fd. Without room for both mappings the old
// one goes first. False with errno when there is no mapping at all now: null and 0. One thread at a
// time for one address: obj_sem sees to it, and for MD_TXN there is but the writer.
bool mapping_replace(shkv_head *head, void **base_pp, uint32_t *size_p, int fd, uint32_t sz, int prot);

// Leaves null and 0 in its place.
void mapping_give_up(shkv_head *head, void **base_pp, uint32_t *size_p);

// The same for a table whose object is about to be cut, MD_TXN: who stands on it finds empty buckets
// there and not a fault. And back to a mapping of fd at the same address, if the last one was of this
// size and still waits: thousands of transactions a second would else have the other old mappings out
// before their time.
void mapping_blank(shkv_head *head, void **base_pp, uint32_t *size_p);
bool mapping_unblank(const shkv_head *head, void **base_pp, uint32_t *size_p, int fd, uint32_t sz, int prot);

// Over a fork: the list of old mappings is held still.
void mapping_hold();
void mapping_let_go();

// Unmaps what still waits, at the end of a handle.
void mapping_drop_old(const shkv_head *head);

// An address and a size that it has at least, though another thread may exchange them meanwhile: a
// larger size is stored behind its address, a smaller one ahead of it, where the second look meets
// it. Null without a mapping.
static inline void *mapping_load(void *const *base_pp, const uint32_t *size_p, uint32_t *size_out)
{
    *size_out = get32(size_p);
    void *base_p = __atomic_load_n(base_pp, __ATOMIC_ACQUIRE);
    return *size_out != 0 && get32(size_p) >= *size_out ? base_p : nullptr;
}

static inline mdn *md_mapped(const md_rec *rec, uint32_t *size_out)
{
    return (mdn *)mapping_load((void *const *)&rec->base, &rec->mapped_sz, size_out);
}

// Its first mapping; of a space in chunks size_out tells how far all of them reach.
static inline char *ud_mapped(const ud_map *ud, uint32_t *size_out)
{
    return (char *)mapping_load(&ud->map[0], &ud->mapped_sz, size_out);
}
