// While a rebuild is under way, a record of a bucket that has moved stands in two tables: the one in
// force and the target. Nobody will move it again, so its second membership is kept by hand here.
//
// No reader looks at the target before the flip; the order of the stores is the publish's all the
// same (the record's link, then the one word that leads to it), because the rebuild may go on for
// many adds and every state in between must be one that the flip can put in force.
//
// The target is a sparse object, so its pages are touched under the SIGBUS guard. A page that cannot
// be had ends the rebuild, not the operation: refill_pos 0 makes it pending, its refill bit stays,
// and the next rebuild starts from nothing. The table in force is complete without it.
#include "shkv_intf/rehash.h"

#include <assert.h>

#include "diag/log.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/chain.h"
#include "shkv_intf/record.h"

namespace {

// The table that a rebuild fills, and the link that its chains run through.
struct target {
    shkv_head *head;
    void *ud_base;
    md_rec *rec;
    uint32_t hashsz;
    bool md1;
    bool shared_map;
};

target target_of(shkv_head *head, uint32_t flg, void *ud_base)
{
    bool md1 = !(flg & CF_MD1);
    const md_desc *desc = md1 ? &head->sn->md1 : &head->sn->md2;
    return {head, ud_base, md1 ? &head->md1 : &head->md2, get32(&desc->hashsz), md1, is_shared_map(head)};
}

mdn *bucket_for(const target *to, const udn *udn_p)
{
    uint32_t hash = record_hash(to->rec->hash_fn, to->ud_base, udn_p, to->head, to->shared_map);
    return to->rec->base + bucket_of(hash, to->hashsz);
}

// Stores new_off where old_off stands in the target's chain. A chain that ends without it ends the
// search silently: the record then stays out of the target.
void replace_in_chain(const target *to, mdn *mdn_p, uint32_t old_off, uint32_t new_off)
{
    assert(mdn_p->first_ptr);
    uint32_t *link_p = &mdn_p->first_ptr;
    for (uint32_t off; (off = get32(link_p)) != 0;) {
        if (off == old_off) {
            put32(link_p, new_off);
            return;
        }
        link_p = chain_link_p((udn *)ud_addr(to->head, to->ud_base, off, to->shared_map), to->md1);
    }
}

void add_node(const target *to, udn *new_p, uint32_t new_off, udn *old_p, uint32_t old_off)
{
    mdn *mdn_p = bucket_for(to, new_p);
    uint32_t *own_p = chain_link_p(new_p, to->md1);
    if (!old_p) {
        put32(own_p, get32(&mdn_p->first_ptr));
        put32(&mdn_p->first_ptr, new_off);
        return;
    }
    put32(own_p, get32(chain_link_p(old_p, to->md1)));
    replace_in_chain(to, mdn_p, old_off, new_off);
}

void del_node(const target *to, udn *found_p, uint32_t found_off)
{
    replace_in_chain(to, bucket_for(to, found_p), found_off, get32(chain_link_p(found_p, to->md1)));
}

} // namespace

void shkv_rehash_add_node(shkv_head *head, uint32_t flg, void *ud_base, udn *new_p, uint32_t new_off,
                          udn *old_p, uint32_t old_off)
{
    LOG("%s: called. comm_flg: 0x%x", "shkv_rehash_add_node", flg);
    target to = target_of(head, flg, ud_base);
    if (sigsetjmp(sigbus_jmp, 0) != 0) {
        head->refill_pos = 0;
        return;
    }
    add_node(&to, new_p, new_off, old_p, old_off);
}

void shkv_rehash_del_node(shkv_head *head, uint32_t flg, void *ud_base, udn *found_p, uint32_t found_off)
{
    LOG("%s: called. comm_flg: 0x%x", "shkv_rehash_del_node", flg);
    target to = target_of(head, flg, ud_base);
    if (sigsetjmp(sigbus_jmp, 0) != 0) {
        head->refill_pos = 0;
        return;
    }
    del_node(&to, found_p, found_off);
}
