// Offsets of a record space to addresses of this process, and the tables that a snapshot of
// comm_flg names. Offset checks are the callers': an offset here lies within what is mapped.
#include "shkv_intf/addr.h"

// Map 0 covers [0, map0_sz), which ends map0_gap bytes into chunk map0_chunk; map 1 is the rest of
// that chunk and every later map one whole chunk. Always UD1's table: a shared mapping has no UD2.
void *shkv_ud_offset_to_addr(shkv_head *head, uint32_t off)
{
    ud_map *map_p = head->ud1_map;
    if (off < head->map0_sz)
        return (char *)map_p->map[0] + off;
    bool big = off >= CHUNK_BIG;
    int32_t chunk = (int32_t)(big ? off / CHUNK_BIG + 3 : off / CHUNK_SMALL);
    uint32_t pos = off % (big ? CHUNK_BIG : CHUNK_SMALL);
    int32_t index = chunk - head->map0_chunk + 1;
    if (index == 1)
        pos -= head->map0_gap;
    return (char *)map_p->map[index] + pos;
}

uint32_t shkv_ud_index_to_map_size(shkv_head *head, uint32_t index)
{
    if (index == 0)
        return (uint32_t)head->map0_sz;
    uint32_t size = (uint32_t)head->map0_chunk + index < 5 ? CHUNK_SMALL : CHUNK_BIG;
    return index == 1 ? size - head->map0_gap : size;
}

static void use_md1(active_db *db_p, shkv_head *head)
{
    db_p->desc = &head->sn->md1;
    db_p->rec = &head->md1;
}

static void use_md2(active_db *db_p, shkv_head *head)
{
    db_p->desc = &head->sn->md2;
    db_p->rec = &head->md2;
}

// What no bit names is left alone: callers clear their active_db and look.
int get_active_db(active_db *primary, active_db *secondary, shkv_head *head, uint32_t flags)
{
    if (flags & MDO1N2) {
        use_md1(primary, head);
        use_md2(secondary, head);
    } else if (flags & MDN1O2) {
        use_md2(primary, head);
        use_md1(secondary, head);
    } else if (flags & CF_MD1) {
        use_md1(primary, head);
    } else if (flags & CF_MD2) {
        use_md2(primary, head);
    }
    if (flags & (UDO1N2 | UDN1O2)) {
        bool old_is_ud1 = flags & UDO1N2;
        primary->ud = old_is_ud1 ? head->ud1_map : head->ud2_map;
        secondary->ud = old_is_ud1 ? head->ud2_map : head->ud1_map;
        return 1;
    }
    if (flags & CF_UD1)
        primary->ud = head->ud1_map;
    else if (flags & CF_UD2)
        primary->ud = head->ud2_map;
    return 0;
}
