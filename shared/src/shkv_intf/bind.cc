// Binds a head to a store's hash functions and to its record allocator. A function's address is
// per process, so the store records an index or a mark, and every head resolves it for itself.
#include "shkv_intf/bind.h"

#include <errno.h>

#include "diag/fail.h"
#include "shkv_hash/hash_bind.h"

// The reshaper's hash argument for one table: what the descriptor says, or the caller's function
// for the old or the new one.
static uint64_t reshape_arg(const md_desc *desc_p, bool old_table, uint64_t old_fn, uint64_t new_fn)
{
    if (desc_p->hashfn == SHKV_USER_HASHFN)
        return old_table ? old_fn : new_fn;
    return (uint64_t)desc_p->hashfn + 1;
}

static int bind_md(uint64_t fn_arg, const md_desc *desc_p, md_rec *rec_p, const char *name, uint32_t *err_p)
{
    return set_hdmd_hash(fn_arg, desc_p->user_hash, desc_p->hashfn, &rec_p->hash_fn, name, err_p);
}

int set_hdmd_hashes(uint32_t flg, uint32_t access_mode, supernode *sn, uint64_t hashfn, uint64_t old_fn,
                    uint64_t new_fn, void *ring_p, shkv_head *head, const char *name, uint32_t *err_p)
{
    bool reshaper = access_mode & SHKV_AM_RESHAPE;
    if (flg & CF_MD1) {
        if (reshaper)
            hashfn = reshape_arg(&sn->md1, flg & MDO1N2, old_fn, new_fn);
        if (!bind_md(hashfn, &sn->md1, &head->md1, name, err_p))
            return fail_err(ring_p, 0x57, access_mode, err_p, EINVAL, "failed with md1 hash (access mode:0x%x)",
                            access_mode);
    }
    if (flg & CF_MD2) {
        if (reshaper)
            hashfn = reshape_arg(&sn->md2, flg & MDN1O2, old_fn, new_fn);
        if (!bind_md(hashfn, &sn->md2, &head->md2, name, err_p))
            return fail_err(ring_p, 0x58, access_mode, err_p, EINVAL, "failed with md2 hash");
    }
    // The argument as it stands after the two above.
    if ((flg & CF_TXN) && !bind_md(hashfn, &sn->md_txn, &head->md_txn, name, err_p))
        return fail_err(ring_p, 0x58, access_mode, err_p, EINVAL, "failed with md_txn hash\n");
    return 1;
}

int set_hdmd_mm(shkv_head *head, supernode *sn, void *ring_p, uint32_t *err_p)
{
    uint32_t mode = sn->conf_flg & CONF_MM_MASK;
    if (mode != CONF_FIXEDMM && mode != CONF_VECTORMM)
        return fail_err(ring_p, 0x59, sn->conf_flg, err_p, ENOMEM, "mem-mgmt mode is not supported");
    head->mm_init = shkv_fixed_mm_init; // it serves both
    head->getnd = mode == CONF_FIXEDMM ? shkv_fixed_getnd : shkv_vector_getnd;
    head->putnd = mode == CONF_FIXEDMM ? shkv_fixed_putnd : shkv_vector_putnd;
    return 1;
}
