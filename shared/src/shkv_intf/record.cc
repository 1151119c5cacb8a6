// The payload of records. A fixed record is its head, the key and right behind it the value, in one
// node. A vector record is a chain of units that hold one stream, the key and then the value.
//
// A writer reads and writes records that nobody else changes. A reader may stand on one whose units
// are handed out again under it: each offset is read once and checked before it is followed, so the
// worst that it meets is another record's bytes, which the checksum and the walk's last look tell.
#include "shkv_intf/record.h"

#include <errno.h>
#include <string.h>
#include "diag/fail.h"
#include "shkv_hash/checksum.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/word.h"

#define UNIT_LINK_SZ 4u // unit_next, ahead of the payload of a further unit
#define UNIT_ROOM (VEC_UNIT_SZ - UNIT_LINK_SZ)

// Nodes start at a multiple of the unit size, so the units do, too.
static_assert(sizeof(sbm) % VEC_UNIT_SZ == 0);

// ud_end lies at most a unit below the end of the mapping, so the header, a line that the writer
// keeps busy, is looked at only for the last two units.
bool dv_unit_ok(const void *ud_base, uint32_t unit_off, uint32_t limit, bool shared_map)
{
    if (limit != 0) {
        if (unit_off % unit_step(shared_map) != 0 || limit < VEC_UNIT_SZ || unit_off > limit - VEC_UNIT_SZ)
            return false;
        if (unit_off + 2 * VEC_UNIT_SZ <= limit)
            return true;
    }
    return (uint64_t)unit_off + UNIT_LINK_SZ < get32(&((const sbm *)ud_base)->ud_end);
}

// ---- Reading ----------------------------------------------------------------------------------

// Where a read stopped short: bytes still to copy, and the unit that the chain named (0: it ended).
struct dv_stop {
    uint32_t left;
    uint32_t unit_off;
};

// The unit that a value starts in, from its val_off; null when that leads outside.
static const udn *value_unit(const void *ud_base, uint32_t val_off, shkv_head *head, bool shared_map,
                             uint32_t limit)
{
    uint32_t unit_off = val_off - val_off % VEC_UNIT_SZ;
    if (!dv_unit_ok(ud_base, unit_off, limit, shared_map))
        return nullptr;
    return (const udn *)ud_addr(head, const_cast<void *>(ud_base), unit_off, shared_map);
}

static int dv_copy(void *dst, uint32_t room, void *ud_base, const udn *udn_p, int which, shkv_head *head,
                   bool shared_map, uint32_t limit, dv_stop *stop_p)
{
    *stop_p = {};
    if (!ud_base)
        return EINVAL;
    uint32_t left = get16(which == REC_KEY ? &udn_p->key_sz : &udn_p->val_sz);
    if (left > room)
        return EINVAL;
    if (left == 0)
        return 0;
    const udn *unit_p = udn_p;
    uint32_t at = VEC_HEAD_SZ;
    if (which != REC_KEY) {
        uint32_t val_off = get32(&((const vec_udn *)(const void *)udn_p)->val_off);
        at = val_off % VEC_UNIT_SZ;
        unit_p = value_unit(ud_base, val_off, head, shared_map, limit);
        *stop_p = {left, val_off - at};
        if (!unit_p)
            return ENOMEM;
    }
    char *dst_p = (char *)dst;
    for (uint32_t avail = VEC_UNIT_SZ - at; avail < left; avail = UNIT_ROOM) {
        uint32_t next = get32(&unit_p->unit_next);
        const udn *next_p = nullptr;
        if (next != 0 && dv_unit_ok(ud_base, next, limit, shared_map)) {
            next_p = (const udn *)ud_addr(head, ud_base, next, shared_map);
            __builtin_prefetch(next_p);
            __builtin_prefetch((const char *)next_p + 64);
        }
        if (avail == UNIT_ROOM)
            memcpy(dst_p, (const char *)unit_p + at, UNIT_ROOM);
        else
            memcpy(dst_p, (const char *)unit_p + at, avail);
        dst_p += avail;
        left -= avail;
        *stop_p = {left, next};
        if (!next_p)
            return ENOMEM;
        unit_p = next_p;
        at = UNIT_LINK_SZ;
    }
    memcpy(dst_p, (const char *)unit_p + at, left);
    return 0;
}

int dv_read_quiet(void *dst, uint32_t room, void *ud_base, const udn *udn_p, int which, shkv_head *head,
                  bool shared_map, uint32_t limit)
{
    dv_stop stop;
    return dv_copy(dst, room, ud_base, udn_p, which, head, shared_map, limit, &stop);
}

int shkv_dv_read(void *dst, uint32_t room, void *ud_base, const udn *udn_p, int which, shkv_head *head,
                 bool shared_map, uint32_t limit, void *ring_p)
{
    dv_stop stop;
    int ret = dv_copy(dst, room, ud_base, udn_p, which, head, shared_map, limit, &stop);
    if (ret != ENOMEM)
        return ret;
    if (stop.unit_off == 0)
        return fail(nullptr, 0, 0, ENOMEM, "%s: out of memory (dsize:%d)", "shkv_dv_read", (int)stop.left);
    uint32_t ud_end = get32(&((const sbm *)ud_base)->ud_end), next = stop.unit_off + UNIT_LINK_SZ;
    return fail_pair(ring_p, 0xE8, ud_end, next, ENOMEM,
                     "shkv_dv_read out of memory boundary                 %d %d", (int)ud_end, (int)next);
}

// ---- Writing ----------------------------------------------------------------------------------

// Into a record that is not linked yet, or is nobody's: plain stores. The key comes first, since it
// says where the value starts.
int shkv_dv_write(void *ud_base, udn *udn_p, int which, const void *src, int32_t size, shkv_head *head,
                  bool shared_map, uint32_t udn_off)
{
    vec_udn *vec_p = (vec_udn *)(void *)udn_p;
    if (size <= 0)
        return 0;
    udn *unit_p = udn_p;
    uint32_t pos = udn_off + VEC_HEAD_SZ; // offset in the UD of the next byte to write
    uint32_t at = VEC_HEAD_SZ;            // the same within unit_p
    if (which != REC_KEY) {
        pos = vec_p->val_off;
        at = pos % VEC_UNIT_SZ;
        unit_p = (udn *)ud_addr(head, ud_base, pos - at, shared_map);
    }
    const char *src_p = (const char *)src;
    uint32_t left = (uint32_t)size;
    for (uint32_t avail = VEC_UNIT_SZ - at; avail < left; avail = UNIT_ROOM) {
        memcpy((char *)unit_p + at, src_p, avail);
        src_p += avail;
        left -= avail;
        if (unit_p->unit_next == 0)
            return fail(nullptr, 0, 0, ENOMEM, "%s: out of memory (dsize:%d)", "shkv_dv_write", (int)left);
        pos = unit_p->unit_next + UNIT_LINK_SZ;
        unit_p = (udn *)ud_addr(head, ud_base, unit_p->unit_next, shared_map);
        at = UNIT_LINK_SZ;
    }
    memcpy((char *)unit_p + at, src_p, left);
    if (which == REC_KEY) {
        pos += left;
        // A key that fills its unit: val_off must not point at the next unit's link.
        if (pos % VEC_UNIT_SZ == 0 && unit_p->unit_next != 0)
            pos = unit_p->unit_next + UNIT_LINK_SZ;
        vec_p->val_off = pos;
    }
    return 0;
}

// ---- Hash and checksum of a stored record -----------------------------------------------------

uint32_t shkv_hash_udn_key(shkv_hash_fn fn, void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map,
                           void *gather_p, int *gathered_p)
{
    uint32_t key_sz = udn_p->key_sz;
    bool whole = ((const sbm *)ud_base)->dn_sz >= key_sz + VEC_HEAD_SZ;
    if (gathered_p)
        *gathered_p = !whole;
    if (whole)
        return fn((const char *)udn_p + VEC_HEAD_SZ, key_sz);
    if (shkv_dv_read(gather_p, REC_KEY_MAX, ud_base, udn_p, REC_KEY, head, shared_map, 0, nullptr) != 0)
        return 0; // a damaged record: the line is written, and any bucket is as good as another
    return fn(gather_p, key_sz);
}

uint32_t record_hash(shkv_hash_fn fn, void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map)
{
    if (!is_vector(head->sn))
        return fn((const char *)udn_p + UDN_HEAD_SZ, udn_p->key_sz);
    char gather[REC_KEY_MAX];
    return shkv_hash_udn_key(fn, ud_base, udn_p, head, shared_map, gather, nullptr);
}

uint8_t record_cksum(void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map)
{
    uint8_t cksum = 0;
    if (is_fixed(head->sn))
        shkv_data_checksum((const char *)udn_p + UDN_HEAD_SZ, (uint32_t)udn_p->key_sz + udn_p->val_sz, &cksum);
    else if (is_vector(head->sn))
        shkv_udn_checksum(ud_base, head, udn_p, 0, &cksum, shared_map);
    return cksum;
}
