// Keeps a process's mappings in step with what other processes have done to the store. Nothing
// tells a process that an object has grown or that a table was exchanged: each descriptor carries
// a version, each head remembers the one that it has mapped, and every operation compares.
#pragma once
#include "shkv.h"
#include "shkv_intf/word.h"

// Brings one mapping up to date, under obj_sem; nothing to do when it is in step by then. 1, or 0
// with the reason in *err_p. prot is raised where the head may write.
int shkv_remap_mdobj(shkv_head *head, int obj_t, int prot, uint32_t *err_p);

// The slow part: remaps what differs from the snapshot's objects. 0, or an errno-style value.
int remap_stale(shkv_head *head, uint32_t flg, int handle, int prot, void *ring_p)
    __attribute__((cold, noinline));

// The function of a table, which another thread of the handle may bind in this moment.
static inline shkv_hash_fn bound_fn(const md_rec *rec_p)
{
    return __atomic_load_n(&rec_p->hash_fn, __ATOMIC_RELAXED);
}
static inline void bind_fn(md_rec *rec_p, shkv_hash_fn fn)
{
    __atomic_store_n(&rec_p->hash_fn, fn, __ATOMIC_RELAXED);
}

// In step, and bound to a hash function: a table that was being built when the store was opened is
// not.
static inline bool md_in_step(const md_desc *desc_p, const md_rec *rec_p)
{
    return get32(&desc_p->obj_ver) == get32(&rec_p->ver) && bound_fn(rec_p);
}

// A creator's head has no table of UD2 until it needs one.
static inline bool ud_in_step(const ud_desc *desc_p, const ud_map *map_p)
{
    return map_p && get32(&desc_p->obj_ver) == get32(&map_p->ver);
}

// The check on the way into every operation, for the objects in force in the snapshot flg. 0, also
// when a table has changed to a caller's hash function that this handle cannot know: the table's
// hash_fn is null then, and whoever hashes has to look.
static inline int check_hdmd_remap(shkv_head *head, uint32_t flg, int handle, int prot, void *ring_p)
{
    const supernode *sn = head->sn;
    if (__builtin_expect((!(flg & CF_MD1) || md_in_step(&sn->md1, &head->md1)) &&
                         (!(flg & CF_MD2) || md_in_step(&sn->md2, &head->md2)) &&
                         (!(flg & CF_UD1) || ud_in_step(&sn->ud1, head->ud1_map)) &&
                         (!(flg & CF_UD2) || ud_in_step(&sn->ud2, head->ud2_map)), 1))
        return 0;
    return remap_stale(head, flg, handle, prot, ring_p);
}
