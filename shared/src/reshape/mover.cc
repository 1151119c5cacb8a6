// The mover. One step, under wr_ksem: read a record of the old table; store it in the new one; take
// it out of the old one; apply the interim list. A reader finds the key in the old table up to the
// third of these and in the new one from the second on.
//
// Nobody adds to the old table during a reshape, so its buckets only run empty. The iterator is
// therefore made to read the bucket's first record again each time: a cursor that stood on the next
// record would stand on a freed one after a replay that deletes it.
//
// The lock is held for a slice of steps at a time, because it costs a waiting writer a wake-up to get
// it. After a slice that somebody waited for the mover stands back, so that neither starves.
#include "reshape/mover.h"

#include <errno.h>
#include <unistd.h>

#include "diag/fail.h"
#include "reshape/interim.h"
#include "reshape/replay.h"
#include "shkv_intf/kmutex.h"
#include "shkv_intf/word.h"

namespace {

constexpr uint32_t SLICE_WANTED = 32;  // records, when a writer waits
constexpr uint32_t SLICE_ALONE = 1024; // when nobody does
constexpr uint32_t STAND_BACK_US = 1;  // in effect the timer's slack, some 50 us

void start_over(const resh_move_run *run_p)
{
    shkv_iterate(run_p->handle, nullptr, nullptr, nullptr, 1);
}

void read_bucket_again(shkv_head *head)
{
    head->iter_off = 0;
    head->iter_bkt--; // the iterator steps to the next one first, so also from before bucket 0
}

int failed(resh_move_run *run_p, int result, const char *text)
{
    run_p->text = text;
    return result;
}

int move_next(resh_move_run *run_p)
{
    shkv_buf key = {run_p->key_room, MOVER_KEY_ROOM}, value = {run_p->value_room, MOVER_VALUE_ROOM};
    int result = shkv_iterate(run_p->handle, &key, &value, nullptr, 0);
    if (result != 0)
        return failed(run_p, result, "can not failed for reshaping,uri:%s");
    result = resh_move(&run_p->tables, &key, &value);
    if (result == ENOENT) // it lies in a bucket that its key does not lead to
        return failed(run_p, EINVAL, "can not delete in old db for reshaping,uri:%s");
    if (result != 0)
        return failed(run_p, result, "can not add into new db for reshaping,uri:%s");
    return 0;
}

int replay(resh_move_run *run_p)
{
    int result = shkv_interimlst_replay(&run_p->tables);
    return result ? failed(run_p, result, "can not add into new db for reshaping,uri:%s") : 0;
}

int run_slice(resh_move_run *run_p, bool *wanted_p)
{
    pthread_mutex_t *ksem_p = &run_p->head->sn->wr_ksem;
    if (kmutex_lock(ksem_p) != 0)
        return failed(run_p, EFAULT, "can not failed for reshaping,uri:%s");
    int result = 0;
    for (uint32_t cnt = 0; result == 0; cnt++) {
        *wanted_p = kmutex_wanted(ksem_p);
        if (cnt >= (*wanted_p ? SLICE_WANTED : SLICE_ALONE))
            break;
        result = mover_step(run_p);
    }
    pthread_mutex_unlock(ksem_p);
    return result;
}

} // namespace

bool mover_init(resh_move_run *run_p, int handle, shkv_head *head, char *key_room, char *value_room)
{
    *run_p = {};
    run_p->handle = handle;
    run_p->head = head;
    run_p->key_room = key_room;
    run_p->value_room = value_room;
    run_p->text = "can not failed for reshaping,uri:%s";
    return resh_tables_of(&run_p->tables, head, get32(&head->sn->comm_flg));
}

int mover_step(resh_move_run *run_p)
{
    read_bucket_again(run_p->head);
    int result = move_next(run_p);
    int replayed = replay(run_p);
    return result ? result : replayed;
}

int mover_run(resh_move_run *run_p)
{
    start_over(run_p);
    for (;;) {
        bool wanted = false;
        int result = run_slice(run_p, &wanted);
        if (result != 0)
            return result;
        if (wanted)
            usleep(STAND_BACK_US);
    }
}

int mover_finish(resh_move_run *run_p)
{
    int result = replay(run_p);
    for (bool empty = false; result == 0;) {
        if (empty)
            return ENOENT;
        start_over(run_p);
        empty = true;
        while ((result = mover_step(run_p)) == 0)
            empty = false;
        if (result == ENOENT)
            result = 0;
    }
    return result;
}
