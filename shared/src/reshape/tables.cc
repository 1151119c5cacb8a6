// Changes of the two tables of a reshape. Stores of one step, in this order:
//   store    the new record whole; its own link; the one word that leads to it in the new table
//            (insert, or in the place of the record of the same key); the old table's link past its
//            record; the records that are left go to the hold list
//   remove   the link past the record in the old table, then in the new one; the hold list
//   move     as store, unless the new table has the key. Over one space the record itself is threaded
//            into the new table through its other link, and only then taken out of the old chain
// Killed between any two, the key stands in both tables or one, and the next store, removal or move
// of that key sets it right; a node that has left a chain and not reached the hold list is lost space.
//
// A chain runs through the link of its own table, for MD2 too: what add stores into md1_next of a
// record that it puts into MD2 during a reshape is followed by nobody.
#include "reshape/tables.h"

#include <errno.h>
#include <string.h>

#include "shkv_intf/chain.h"
#include "shkv_intf/walk.h"
#include "shkv_intf/writer.h"

namespace {

// Where a key stands in one table.
struct place {
    mdn *bucket;
    uint32_t *link_p; // the word that leads to the record; of a missing key: the bucket's first_ptr
    udn *udn_p;       // null for a missing key
};

bool is_md1(const resh_tables *t_p, const resh_side *side)
{
    return side->rec == &t_p->head->md1;
}

char *space_of(const resh_side *side)
{
    return (char *)side->ud->map[0];
}

uint32_t off_of(const resh_side *side, const udn *udn_p)
{
    return (uint32_t)((const char *)udn_p - space_of(side));
}

// The walk reads under the SIGBUS guard every word of the chain that is stored to afterwards.
int find_place(const resh_tables *t_p, const resh_side *side, const shkv_buf *key, place *out_p)
{
    uint32_t hash = side->rec->hash_fn(key->ptr, key->len);
    mdn *bucket = bucket_at(side->rec, bucket_of(hash, get32(&side->desc->hashsz)));
    if (!bucket)
        return ENOMEM;
    udn *prev = nullptr;
    *out_p = {bucket, &bucket->first_ptr, nullptr};
    if (!bucket_find_udn(t_p->head, side->rec->base, bucket, &out_p->udn_p, key->ptr, &key->len, space_of(side),
                         &prev, 0, nullptr, nullptr, nullptr)) {
        out_p->udn_p = nullptr;
        int result = out_of_actual_mem ? ENOMEM : 0;
        out_of_actual_mem = 0;
        return result;
    }
    if (prev)
        out_p->link_p = chain_link_p(prev, is_md1(t_p, side));
    return 0;
}

void give_back(const resh_tables *t_p, const resh_side *side, udn *udn_p)
{
    t_p->head->putnd((sbm *)space_of(side), udn_p, t_p->head, off_of(side, udn_p));
}

// Plain stores: nobody can reach the node yet.
udn *make_record(const resh_tables *t_p, const resh_side *side, const shkv_buf *key, const shkv_buf *value)
{
    uint32_t off = 0;
    udn *udn_p = (udn *)t_p->head->getnd((sbm *)space_of(side), t_p->head, key->len + value->len, &off);
    out_of_actual_mem = 0;
    if (!udn_p)
        return nullptr;
    char *data = (char *)udn_p + UDN_HEAD_SZ;
    memcpy(data, key->ptr, key->len);
    if (value->len)
        memcpy(data + key->len, value->ptr, value->len);
    udn_p->key_sz = (uint16_t)key->len;
    udn_p->val_sz = (uint16_t)value->len;
    shkv_data_checksum(data, key->len + value->len, &udn_p->cksum);
    return udn_p;
}

// Puts a record at the front of its chain, or in the place of the one that stands there.
void link_in(const resh_tables *t_p, const resh_side *side, const place *at_p, udn *udn_p)
{
    bool md1 = is_md1(t_p, side);
    put32(chain_link_p(udn_p, md1), get32(at_p->udn_p ? chain_link_p(at_p->udn_p, md1) : at_p->link_p));
    // Publish. The record and its link are whole. A reader gets the chain with it or without it,
    // and without it the record that it stands for. Pairs with get32 in bucket_find_udn.
    put32(at_p->link_p, off_of(side, udn_p));
}

void unlink(const resh_tables *t_p, const resh_side *side, const place *at_p)
{
    // Publish. A reader that stands on the record goes on by its link into the same rest.
    put32(at_p->link_p, get32(chain_link_p(at_p->udn_p, is_md1(t_p, side))));
}

bool is_record(const resh_side *side, const shkv_buf *key, const shkv_buf *value)
{
    return key->len && UDN_HEAD_SZ + (uint64_t)key->len + value->len <= ((const sbm *)space_of(side))->dn_sz;
}

// Both places of a key. A record that stands in both chains is the rest of a move that was cut
// short: it is taken out of the old one.
int find_both(const resh_tables *t_p, const shkv_buf *key, place *from_p, place *to_p, bool *cut_short_p = nullptr)
{
    int result = find_place(t_p, &t_p->from, key, from_p);
    if (result != 0 || (result = find_place(t_p, &t_p->to, key, to_p)) != 0)
        return result;
    if (t_p->one_space && from_p->udn_p && from_p->udn_p == to_p->udn_p) {
        unlink(t_p, &t_p->from, from_p);
        from_p->udn_p = nullptr;
        if (cut_short_p)
            *cut_short_p = true;
    }
    return 0;
}

void drop(const resh_tables *t_p, const resh_side *side, const place *at_p)
{
    if (!at_p->udn_p)
        return;
    unlink(t_p, side, at_p);
    give_back(t_p, side, at_p->udn_p);
}

int put_record(const resh_tables *t_p, const resh_side *side, const place *at_p, const shkv_buf *key,
               const shkv_buf *value)
{
    if (!is_record(side, key, value))
        return EINVAL;
    udn *udn_p = make_record(t_p, side, key, value);
    if (!udn_p)
        return ENOMEM;
    link_in(t_p, side, at_p, udn_p);
    return 0;
}

bool usable(const resh_side *side)
{
    return side->rec && side->rec->base && side->rec->hash_fn && base_of(side->ud);
}

} // namespace

bool resh_tables_of(resh_tables *out_p, shkv_head *head, uint32_t flg)
{
    *out_p = {};
    if (!(flg & CF_RESHAPE) || !(flg & (MDO1N2 | MDN1O2)))
        return false;
    writer_tables tables;
    tables_of(&tables, head, flg);
    out_p->head = head;
    out_p->one_space = !tables.two_ud;
    out_p->from = {tables.pri.desc, tables.pri.rec, tables.pri.ud};
    out_p->to = {tables.sec.desc, tables.sec.rec, second_ud(&tables)};
    return usable(&out_p->from) && usable(&out_p->to);
}

void *resh_list_space(const resh_tables *t_p)
{
    return t_p->to.ud->map[0];
}

int resh_store(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value)
{
    place from, to;
    int result = find_both(t_p, key, &from, &to);
    if (result != 0 || (result = put_record(t_p, &t_p->to, &to, key, value)) != 0)
        return result;
    drop(t_p, &t_p->from, &from);
    if (to.udn_p)
        give_back(t_p, &t_p->to, to.udn_p);
    return 0;
}

int resh_remove(const resh_tables *t_p, const shkv_buf *key)
{
    place from, to;
    int result = find_both(t_p, key, &from, &to);
    if (result != 0)
        return result;
    drop(t_p, &t_p->from, &from);
    drop(t_p, &t_p->to, &to);
    return from.udn_p || to.udn_p ? 0 : ENOENT;
}

int resh_move(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value)
{
    place from, to;
    bool cut_short = false;
    int result = find_both(t_p, key, &from, &to, &cut_short);
    if (result != 0 || cut_short)
        return result;
    if (!from.udn_p)
        return ENOENT;
    bool rethread = t_p->one_space && !to.udn_p;
    if (rethread)
        link_in(t_p, &t_p->to, &to, from.udn_p);
    else if (!to.udn_p && (result = put_record(t_p, &t_p->to, &to, key, value)) != 0)
        return result;
    unlink(t_p, &t_p->from, &from);
    if (!rethread)
        give_back(t_p, &t_p->from, from.udn_p);
    return 0;
}

// Over one space a record of the new table is threaded into the old one as it stands. A record that
// the old table has instead is the older one.
static int restore_record(const resh_tables *t_p, udn *udn_p)
{
    shkv_buf key = {(char *)udn_p + UDN_HEAD_SZ, udn_p->key_sz};
    shkv_buf value = {(char *)udn_p + UDN_HEAD_SZ + udn_p->key_sz, udn_p->val_sz};
    if (!t_p->one_space)
        return resh_restore(t_p, &key, &value);
    place at;
    int result = find_place(t_p, &t_p->from, &key, &at);
    if (result != 0 || at.udn_p == udn_p)
        return result;
    link_in(t_p, &t_p->from, &at, udn_p);
    if (at.udn_p)
        give_back(t_p, &t_p->from, at.udn_p);
    return 0;
}

int resh_restore_all(const resh_tables *t_p)
{
    uint32_t hashsz = get32(&t_p->to.desc->hashsz);
    for (uint32_t i = 0; i < hashsz; i++) {
        const mdn *bucket = bucket_at(t_p->to.rec, i);
        if (!bucket)
            return ENOMEM;
        for (uint32_t off = get32(&bucket->first_ptr); off;) {
            udn *udn_p = (udn *)(space_of(&t_p->to) + off);
            off = get32(chain_link_p(udn_p, is_md1(t_p, &t_p->to)));
            int result = restore_record(t_p, udn_p);
            if (result != 0)
                return result;
        }
    }
    return 0;
}

// The record that makes way goes to the hold list, unless the new table still leads to it.
int resh_restore(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value)
{
    place at, other;
    int result = find_place(t_p, &t_p->from, key, &at);
    if (result != 0 || (result = find_place(t_p, &t_p->to, key, &other)) != 0 ||
        (result = put_record(t_p, &t_p->from, &at, key, value)) != 0)
        return result;
    if (at.udn_p && !(t_p->one_space && at.udn_p == other.udn_p))
        give_back(t_p, &t_p->from, at.udn_p);
    return 0;
}

int resh_restore_removal(const resh_tables *t_p, const shkv_buf *key)
{
    place at, other;
    int result = find_place(t_p, &t_p->from, key, &at);
    if (result != 0 || !at.udn_p || (result = find_place(t_p, &t_p->to, key, &other)) != 0)
        return result;
    unlink(t_p, &t_p->from, &at);
    if (!(t_p->one_space && at.udn_p == other.udn_p))
        give_back(t_p, &t_p->from, at.udn_p);
    return 0;
}
