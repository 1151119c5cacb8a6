// The interim list and the tables.
//
// Replay promises a reader that it finds every write either on the list or in the tables, never in
// neither: a record is applied in full before it leaves the list, and the list is looked at first.
// An add makes a record of its own in the new table and does not link the list's node: a reader may
// stand on that node, and its link to the rest of the list is the word that a chain of MD1 would
// take. Killed behind any store, the record is still on the list and is applied once more, with the
// same outcome; the writes behind it for the same key are on the list, too, and rule until then.
//
// Writers replay as well. The reshaper replays after each record that it moves, but it may be
// waiting for a processor, or be dead: a list that it does not empty would make every lookup longer
// and in the end fill the space. So every HELP_AFTER writes the writer empties it.
#include "reshape/replay.h"

#include <errno.h>
#include <stdio.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "reshape/interim.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/wprot.h"
#include "shkv_intf/writer.h"

namespace {

constexpr uint32_t HELP_AFTER = 32;

int apply(const resh_tables *t_p, intrm_rec *rec)
{
    shkv_buf key = intrm_key(rec), value = intrm_value(rec);
    uint32_t kind = get32(&rec->intrm_op);
    if (kind != INTRM_ADD && kind != INTRM_DEL)
        return 0; // a dead node carries nothing
    int result = kind == INTRM_ADD ? resh_store(t_p, &key, &value) : resh_remove(t_p, &key);
    return result == ENOMEM ? result : 0; // a missing key is gone, and what no table can hold is dropped
}

// True when it is this writer's turn to empty the list.
bool help_is_due(shkv_head *head, void *ud)
{
    int handle = handle_of(head);
    if (!handle)
        return false;
    uint32_t *cnt_p = &head_privs[handle - 1].intrm_put_cnt;
    *cnt_p = interim_empty(ud) ? 0 : *cnt_p + 1;
    return *cnt_p >= HELP_AFTER;
}

// The mapping of the old space is the one that this process closes between writes; it stays open
// until the first write behind the reshape.
int lift_protection(shkv_head *head, const ud_map *ud)
{
    return wprot_closed(head) && ud ? wprot_lift(head, ud) : 0;
}

int put_on_list(shkv_head *head, const resh_tables *t_p, bool both, void *ud, const shkv_buf *key,
                const shkv_buf *value, uint32_t op)
{
    if (both && help_is_due(head, ud))
        shkv_interimlst_replay(t_p);
    int result = shkv_interimlst_put(head, ud, key, value, op);
    if (result != ENOMEM || !both || interim_empty(ud))
        return result;
    // What the list holds may be all that is in the way.
    return shkv_interimlst_replay(t_p) == 0 ? shkv_interimlst_put(head, ud, key, value, op) : result;
}

// Under CF_RESHAPE_DRAIN writes pass the list by. Only the reshaper that set it can hold wr_ksem
// then, so whoever else sees the bit under the lock has a dead reshaper before it, and tables that
// stay two.
int write_tables(const resh_tables *t_p, const shkv_buf *key, const shkv_buf *value, uint32_t op)
{
    int result = shkv_interimlst_replay(t_p);
    if (result != 0)
        return result;
    if (op == INTRM_ADD)
        return resh_store(t_p, key, value);
    result = resh_remove(t_p, key);
    if (result == ENOENT)
        puts("key not found"); // as every delete of a missing key
    return result;
}

} // namespace

int shkv_interimlst_replay(const resh_tables *t_p)
{
    shkv_head *head = t_p->head;
    if (!is_fixed(head->sn)) {
        LOG("interimlist, mem-mgmt mode is not supported");
        return EINVAL;
    }
    void *ud = resh_list_space(t_p);
    for (intrm_rec *rec; (rec = interim_oldest(ud));) {
        int result = apply(t_p, rec);
        if (result == ENOMEM)
            return fail(nullptr, 0, 0, ENOMEM, "intrm_put, out of memory.");
        if (result != 0)
            return result;
        interim_pop(head, ud);
    }
    return 0;
}

int reshape_write(shkv_head *head, uint32_t flg, const shkv_buf *key, const shkv_buf *value, uint32_t op)
{
    resh_tables tables;
    bool both = resh_tables_of(&tables, head, flg);
    writer_tables named;
    tables_of(&named, head, flg);
    void *ud = base_of(second_ud(&named));
    if (!ud)
        return ENOMEM;
    if (lift_protection(head, named.pri.ud) != 0)
        return EINVAL;
    if (both && (flg & CF_RESHAPE_DRAIN))
        return write_tables(&tables, key, value, op);
    return put_on_list(head, &tables, both, ud, key, value, op);
}
