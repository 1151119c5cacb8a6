// The interim list: what the writer does while a reshape moves the tables.
//
// A singly linked list of nodes from intrm_head to intrm_tail. Writers append and whoever replays
// takes off the front, both under wr_ksem; readers walk it with no lock. It always has a last node,
// because the next put links behind it: an empty list is one dead node.
//
// Put, in this order: the whole node, its kind last; the link of the node at intrm_tail (the
// publish: the write is readable and ordered behind all earlier ones); intrm_tail. A writer that
// dies between the last two has left the tail one node short, and the next one under the lock
// brings it up (settle_tail).
//
// Pop, in this order: the tables hold what the record says (the caller's part); intrm_head moves on;
// the node goes to the hold list, which clears its kind. The last node is marked dead in its place.
//
// A reader believes a node only while the node ahead of it is still on the list: nodes leave from
// the front alone, so this one has then kept its place and its bytes while they were read. Otherwise
// it starts again at the front. It overtakes the pops at once, since a pop costs a table's update.
#include "reshape/interim.h"

#include <errno.h>
#include <string.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "shkv_intf/addr.h"

namespace {

constexpr uint32_t RESTARTS = 1000; // of one lookup; only a damaged list comes near it

uint32_t off_of(const void *ud, const void *node_p)
{
    return (uint32_t)((const char *)node_p - (const char *)ud);
}

void settle_tail(void *ud)
{
    sbm *sbm_p = (sbm *)ud;
    uint32_t next;
    while ((next = get32(&intrm_at(ud, get32(&sbm_p->intrm_tail))->intrm_next)) != 0)
        put32(&sbm_p->intrm_tail, next);
}

bool fits(const sbm *sbm_p, const shkv_buf *key, const shkv_buf *value)
{
    uint64_t sz = UDN_HEAD_SZ + (uint64_t)key->len + (value ? value->len : 0);
    return sz <= sbm_p->dn_sz && key->len <= UINT16_MAX && (!value || value->len <= UINT16_MAX);
}

void fill_node(intrm_rec *rec, const shkv_buf *key, const shkv_buf *value)
{
    char *data = (char *)rec + UDN_HEAD_SZ;
    memcpy(data, key->ptr, key->len);
    rec->key_sz = (uint16_t)key->len;
    rec->val_sz = 0;
    rec->cksum = 0;
    if (!value)
        return;
    if (value->ptr)
        memcpy(data + key->len, value->ptr, value->len);
    rec->val_sz = (uint16_t)value->len;
    shkv_data_checksum(data, key->len + value->len, &rec->cksum);
}

void link_node(void *ud, intrm_rec *rec)
{
    sbm *sbm_p = (sbm *)ud;
    settle_tail(ud);
    // Publish. The node is whole, its kind included. A lookup finds the write from here on; the
    // records ahead of it for the same key no longer rule. Pairs with get32 in the walk below.
    put32(&intrm_at(ud, get32(&sbm_p->intrm_tail))->intrm_next, off_of(ud, rec));
    put32(&rec->intrm_next, 0);
    put32(&sbm_p->intrm_tail, off_of(ud, rec));
}

// One walk: the newest record of the key. False when a node left the list under it.
struct list_walk {
    void *ud;
    const shkv_buf *key;
    uint32_t limit;    // bytes mapped
    uint32_t last_off; // no node starts beyond it
    uint32_t max_cnt;  // nor are there more of them
    udn *found;
};

bool matches(const list_walk *walk_p, const intrm_rec *rec, uint32_t kind)
{
    const shkv_buf *key = walk_p->key;
    return kind != INTRM_DEAD && get16(&rec->key_sz) == key->len &&
           memcmp((const char *)rec + UDN_HEAD_SZ, key->ptr, key->len) == 0;
}

bool walk_list(list_walk *walk_p)
{
    uint32_t *link_p = &((sbm *)walk_p->ud)->intrm_head;
    const intrm_rec *ahead = nullptr;
    uint32_t cnt = 0;
    walk_p->found = nullptr;
    for (uint32_t off; (off = get32(link_p)) != 0;) {
        if (off > walk_p->last_off || cnt++ > walk_p->max_cnt)
            return false;
        intrm_rec *rec = intrm_at(walk_p->ud, off);
        uint32_t kind = get32(&rec->intrm_op);
        bool match = intrm_listed(kind) && matches(walk_p, rec, kind);
        uint32_t *next_p = &rec->intrm_next;
        uint32_t next = get32(next_p);
        // Behind all of the reads above: is it still on the list, and where it was?
        if (!intrm_listed(get32(&rec->intrm_op)) || get32(link_p) != off ||
            (ahead && !intrm_listed(get32(&ahead->intrm_op))))
            return false;
        if (match)
            walk_p->found = (udn *)rec;
        if (!next)
            return true;
        link_p = next_p;
        ahead = rec;
    }
    return true;
}

// False when there is no list, or none that has room for the key. A damaged size may leave less than a header.
bool bound_walk(list_walk *walk_p)
{
    const sbm *sbm_p = (const sbm *)walk_p->ud;
    if (walk_p->limit < sizeof(sbm) || !get32(&sbm_p->intrm_head))
        return false;
    uint32_t end = get32(&sbm_p->ud_end), dn_sz = get32(&sbm_p->dn_sz);
    if (end > walk_p->limit) // a damaged header, or a growth that this mapping has not followed
        end = walk_p->limit;
    if (walk_p->key->len + UDN_HEAD_SZ > dn_sz || end < dn_sz)
        return false;
    walk_p->last_off = end - dn_sz;
    walk_p->max_cnt = end / dn_sz;
    return true;
}

// The list lies in an object that a reshape which is given up cuts, one second later: its header too.
bool walk_guarded(list_walk *walk_p)
{
    walk_p->found = nullptr;
    if (sigsetjmp(sigbus_jmp, 0) != 0) {
        walk_p->found = nullptr;
        return true;
    }
    return !bound_walk(walk_p) || walk_list(walk_p);
}

} // namespace

bool interim_empty(void *ud)
{
    return !interim_oldest(ud);
}

intrm_rec *interim_oldest(void *ud)
{
    sbm *sbm_p = (sbm *)ud;
    uint32_t off = get32(&sbm_p->intrm_head);
    if (!off)
        return nullptr;
    settle_tail(ud);
    intrm_rec *rec = intrm_at(ud, off);
    bool dead_alone = off == get32(&sbm_p->intrm_tail) && get32(&rec->intrm_op) == INTRM_DEAD;
    return dead_alone ? nullptr : rec;
}

void interim_pop(shkv_head *head, void *ud)
{
    sbm *sbm_p = (sbm *)ud;
    uint32_t off = get32(&sbm_p->intrm_head);
    intrm_rec *rec = intrm_at(ud, off);
    if (off == get32(&sbm_p->intrm_tail)) {
        // The next put links behind it, so it stays. A reader that has it in hand sees the kind and
        // goes to the tables, which hold what it said.
        put32(&rec->intrm_op, INTRM_DEAD);
        return;
    }
    // Publish. The tables hold what the record says: a reader finds it here or there. One that
    // stands on the node goes on by its link, which stays until the node is handed out anew.
    put32(&sbm_p->intrm_head, get32(&rec->intrm_next));
    head->putnd(sbm_p, rec, head, off);
}

void interim_discard(shkv_head *head, void *ud)
{
    while (interim_oldest(ud))
        interim_pop(head, ud);
}

void shkv_interimlst_init(shkv_head *head, void *ud)
{
    sbm *sbm_p = (sbm *)ud;
    if (!is_fixed(head->sn)) {
        LOG("interimlist, mem-mgmt mode is not supported");
        return;
    }
    uint32_t off = 0;
    intrm_rec *rec = (intrm_rec *)head->getnd(sbm_p, head, 0, &off);
    out_of_actual_mem = 0;
    if (!rec)
        return; // no room for a single node: the space stays without a list
    put32(&rec->intrm_next, 0);
    put32(&rec->intrm_op, INTRM_DEAD);
    put32(&sbm_p->intrm_tail, off_of(ud, rec));
    put32(&sbm_p->intrm_head, off_of(ud, rec)); // last: readers and replay go by it
}

// The operation is judged before the node is taken, so that a wrong one costs no space.
int shkv_interimlst_put(shkv_head *head, void *ud, const shkv_buf *key, const shkv_buf *value, uint32_t op)
{
    sbm *sbm_p = (sbm *)ud;
    if (op != INTRM_ADD)
        value = nullptr; // a delete has none
    if (!key || !fits(sbm_p, key, value))
        return fail(nullptr, 0, 0, EINVAL, "intrm_put, has bad key buffer ");
    if (op != INTRM_ADD && op != INTRM_DEL)
        return fail(nullptr, 0, 0, EINVAL, "intrm_put,  unknown operation for interim list");
    if (!is_fixed(head->sn))
        return fail(nullptr, 0, 0, ENOMEM, "interimlst_put,mem-mgmt mode is not supported");
    if (!get32(&sbm_p->intrm_head))
        shkv_interimlst_init(head, ud); // a reshape without a new record space: a list on first need
    uint32_t off = 0;
    intrm_rec *rec = get32(&sbm_p->intrm_head) ? (intrm_rec *)head->getnd(sbm_p, head, 0, &off) : nullptr;
    out_of_actual_mem = 0;
    if (!rec)
        return fail(nullptr, 0, 0, ENOMEM, "intrm_put, out of memory ");
    fill_node(rec, key, value);
    put32(&rec->intrm_op, op & 0xffff);
    link_node(ud, rec);
    return 0;
}

udn *shkv_interimlst_lookup(supernode *sn, const shkv_buf *key, void *ud)
{
    return interim_find(sn, key, ud, UINT32_MAX);
}

udn *interim_find(supernode *sn, const shkv_buf *key, void *ud, uint32_t limit)
{
    if (!is_fixed(sn)) {
        LOG("interimlist, mem-mgmt mode is not supported");
        return nullptr;
    }
    list_walk walk = {ud, key, limit, 0, 0, nullptr};
    for (uint32_t tries = 0; tries < RESTARTS; tries++)
        if (walk_guarded(&walk))
            return walk.found;
    return nullptr;
}
