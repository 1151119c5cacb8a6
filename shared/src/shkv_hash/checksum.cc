// The two checksums of records. Both look at a sample, so that a lookup's cost does not grow with
// the record: they notice a node that was handed out again, not a damaged byte.
#include "shkv_hash/checksum.h"

#include "shkv_intf/addr.h"
#include "shkv_intf/word.h"

void shkv_data_checksum(const void *data, uint32_t len, uint8_t *out)
{
    *out = data_cksum_inline(data, len);
}

// Offset in the last unit of the stream's last byte.
static uint32_t last_byte_at(uint32_t stream_sz, uint32_t unit_cnt)
{
    uint32_t end = stream_sz + VEC_HEAD_SZ + 4 * (unit_cnt - 1); // each further unit has a link of 4
    return (end - 1) % VEC_UNIT_SZ;
}

// Units lie whole in the mapping.
static bool unit_inside(uint32_t unit_off, uint32_t limit, bool shared_map)
{
    return limit == 0 ||
           (unit_off % unit_step(shared_map) == 0 && unit_off < limit && limit - unit_off >= VEC_UNIT_SZ);
}

// A chain shorter than unit_cnt stays on its last unit for the rest.
int shkv_udn_checksum(void *ud_base, shkv_head *head, const udn *udn_p, uint32_t limit, uint8_t *out,
                      bool shared_map)
{
    uint32_t unit_cnt = get16(&udn_p->unit_cnt);
    uint32_t last_at = last_byte_at((uint32_t)get16(&udn_p->key_sz) + get16(&udn_p->val_sz), unit_cnt);
    if (limit && unit_cnt > limit / VEC_UNIT_SZ)
        return 0;
    const uint8_t *unit_p = (const uint8_t *)udn_p;
    uint32_t first_at = VEC_HEAD_SZ;
    uint8_t acc = 0;
    for (uint32_t left = unit_cnt; left; left--) {
        acc ^= get8(unit_p + first_at) ^ get8(unit_p + (left == 1 ? last_at : VEC_UNIT_SZ - 1));
        first_at = 4;
        uint32_t next = left == 1 ? 0 : get32(&((const udn *)unit_p)->unit_next);
        if (next == 0)
            continue;
        if (!unit_inside(next, limit, shared_map))
            return 0;
        unit_p = (const uint8_t *)ud_addr(head, ud_base, next, shared_map);
    }
    *out = acc;
    return 1;
}
