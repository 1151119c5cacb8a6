// Records of variable size: chains of 128-byte units over the same header and the same two lists.
// Every unit is alike, so a record is simply the next units of the free list and then never-used
// ones; a freed record is as many units, joined to the hold list by its ends.
//
// getnd stores: free_cnt, free_head, dn_tail, then the units' own words. From the first three on
// the units are on no list: a writer killed later loses them and nothing else.
#include "shkv_hash/mm_vector.h"

#include "diag/log.h"
#include "shkv_hash/sbm.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/word.h"

// All that one getnd carries.
struct vec_take {
    sbm *sbm_p;
    shkv_head *head;
    bool shared_map;
    uint32_t el_cnt;    // units wanted
    uint32_t taken_cnt; // units off the free list
    uint32_t first_off; // 0 until there is one
    uint32_t last_off;
};

static uint32_t units_for(uint32_t size, uint32_t dn_sz)
{
    uint32_t first_sz = dn_sz - VEC_HEAD_SZ, more_sz = dn_sz - 4;
    if (size <= first_sz)
        return 1;
    uint32_t rest_sz = size - first_sz;
    return 1 + rest_sz / more_sz + (rest_sz % more_sz != 0);
}

// Free units, and never-used ones below the reserve.
static int32_t units_left(const sbm *sbm_p)
{
    int32_t temp = (sbm_p->ud_full - sbm_p->dn_tail) / (int32_t)sbm_p->dn_sz + (int32_t)sbm_p->free_cnt;
    return temp > 0 ? temp : 0;
}

static bool short_of(const vec_take *take_p)
{
    int32_t temp = units_left(take_p->sbm_p);
    if ((uint32_t)temp >= take_p->el_cnt)
        return false;
    LOG("%s: no enough memory (el_cnt:%d,temp:%d)", "shkv_vector_getnd", (int)take_p->el_cnt, temp);
    return true;
}

static bool may_grow(const vec_take *take_p)
{
    const sbm *sbm_p = take_p->sbm_p;
    return get32(&take_p->head->sn->auto_rz) && sbm_p->dn_sz + sbm_p->ud_end < shkv_max_db_sz;
}

// Held units are let go early only where the space cannot grow.
static bool make_room(const vec_take *take_p)
{
    if ((uint32_t)units_left(take_p->sbm_p) < take_p->el_cnt && !may_grow(take_p))
        sbm_release_hold(take_p->sbm_p, take_p->head, take_p->shared_map);
    return !short_of(take_p);
}

static udn *unit_at(const vec_take *take_p, uint32_t off)
{
    return off ? (udn *)ud_addr(take_p->head, take_p->sbm_p, off, take_p->shared_map) : nullptr;
}

// A unit that waited on the lists has left the cache, and all of it is about to be written.
static inline void ask_unit(const void *unit_p)
{
    __builtin_prefetch(unit_p, 1);
    __builtin_prefetch((const char *)unit_p + VEC_UNIT_SZ / 2, 1);
}

// The walk ends at the sentinel, which stays. A free_cnt of 0 with units ahead of the sentinel is
// what a killed writer may leave: they are not taken. Each unit is asked for with the one behind it in
// memory, since what was freed together mostly lies in a row; at the end, the one that the next record takes.
static void take_free_units(vec_take *take_p)
{
    sbm *sbm_p = take_p->sbm_p;
    uint32_t n = sbm_p->free_cnt < take_p->el_cnt ? sbm_p->free_cnt : take_p->el_cnt;
    uint32_t dn_off = sbm_p->free_head;
    if (dn_off == sbm_p->free_tail || n == 0)
        return;
    take_p->first_off = dn_off;
    uint32_t i = 0;
    for (; i < n && dn_off && dn_off != sbm_p->free_tail; i++) {
        const udn *unit_p = unit_at(take_p, dn_off);
        ask_unit(unit_p);
        ask_unit((const char *)unit_p + VEC_UNIT_SZ);
        take_p->last_off = dn_off;
        dn_off = get32(&unit_p->unit_next);
    }
    if (dn_off == sbm_p->free_tail) {
        // The expression is printed as it stands.
        // clang-format off
        assert(i==sbm_p->free_cnt);
        // clang-format on
    }
    assert(dn_off != 0);
    ask_unit(unit_at(take_p, dn_off));
    put32(&sbm_p->free_cnt, sbm_p->free_cnt - i);
    put32(&sbm_p->free_head, dn_off);
    take_p->taken_cnt = i;
}

// Units that have no memory are abandoned with the rest of the record: dn_tail has passed them.
static bool take_fresh_units(vec_take *take_p)
{
    sbm *sbm_p = take_p->sbm_p;
    uint32_t left_cnt = take_p->el_cnt - take_p->taken_cnt;
    if (left_cnt == 0)
        return true;
    uint32_t dn_off = (uint32_t)sbm_p->dn_tail;
    sbm_advance(sbm_p, left_cnt * sbm_p->dn_sz);
    assert(sbm_p->dn_tail <= (int)sbm_p->ud_end);
    if (take_p->taken_cnt == 0)
        take_p->first_off = dn_off;
    else
        put32(&unit_at(take_p, take_p->last_off)->unit_next, dn_off);
    for (; left_cnt; left_cnt--) {
        assert(dn_off < sbm_p->ud_end);
        if (!sbm_first_touch(unit_at(take_p, dn_off), dn_off + sbm_p->dn_sz, sbm_p->dn_sz))
            return false;
        take_p->last_off = dn_off;
        dn_off += sbm_p->dn_sz;
    }
    return true;
}

static udn *finish_vector(const vec_take *take_p)
{
    udn *dn_p = unit_at(take_p, take_p->last_off);
    udn *vector_p = unit_at(take_p, take_p->first_off);
    assert(dn_p);
    assert(vector_p);
    put32(&dn_p->unit_next, 0);
    put8(&vector_p->nd_flg, 0);
    put32(&vector_p->md1_next, 0);
    put32(&vector_p->md2_next, 0);
    put32(&((vec_udn *)vector_p)->val_off, 0);
    put32(&((vec_udn *)vector_p)->last_unit, take_p->last_off);
    put16(&vector_p->unit_cnt, (uint16_t)take_p->el_cnt);
    return vector_p;
}

void *shkv_vector_getnd(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off)
{
    vec_take take = {sbm_p, head, is_shared_map(head), 0, 0, 0, 0};
    check_sbm_sanity(sbm_p);
    if (check_sbm_full(sbm_p))
        return nullptr;
    take.el_cnt = units_for(size, sbm_p->dn_sz);
    if (!make_room(&take))
        return nullptr;
    take_free_units(&take);
    if (!take_fresh_units(&take))
        return nullptr;
    udn *vector_p = finish_vector(&take);
    *dn_off = take.first_off;
    check_sbm_sanity(sbm_p);
    sbm_after_get(sbm_p, head, take.shared_map);
    return vector_p;
}

// The units of a record keep their chain on the lists, and nothing marks where it ended.
void shkv_vector_putnd(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off)
{
    bool shared_map = is_shared_map(head);
    check_sbm_sanity(sbm_p);
    const vec_udn *vec_p = (const vec_udn *)node;
    uint32_t first_off = shared_map ? dn_off : (uint32_t)((char *)node - (char *)sbm_p);
    sbm_hold(sbm_p, head, first_off, vec_p->last_unit, vec_p->head.unit_cnt, shared_map);
    if (shared_map)
        check_sbm_sanity(sbm_p);
    sbm_after_put(sbm_p, head, shared_map);
}
