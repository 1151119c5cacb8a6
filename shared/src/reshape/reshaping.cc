// The whole reshape, as a maintenance process runs it: open, move, final check, close.
//
// wr_ksem is taken for the last replay and held through the final check up to the switch in the
// close (reshape_end.cc), so that no write falls between them.
#include "reshape/reshaping.h"

#include <errno.h>
#include <string.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "reshape/interim.h"
#include "reshape/mover.h"
#include "reshape/open_reshaping.h"
#include "reshape/replay.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/kmutex.h"
#include "shkv_intf/word.h"

namespace {

constexpr uint32_t OLD_HASH_MAX = 11;
constexpr uint32_t OPFLG_SAME = 0x33; // as good as 0

// The close gives the new objects up: it makes the old ones whole again and cuts the new ones.
int give_up(const resh_move_run *run_p, bool locked)
{
    supernode *sn = run_p->head->sn;
    fail(nullptr, 0, 0, EINVAL, run_p->text, sn->dbname);
    if (locked || kmutex_lock(&sn->wr_ksem) == 0)
        head_privs[run_p->handle - 1].resh_end = RESH_FAILED;
    shkv_close(run_p->handle);
    return EINVAL;
}

// Everything is in the new tables, and wr_ksem keeps it so: one round. It is a loop all the same,
// because what the bit announces is that the list was empty behind it.
int final_check(resh_move_run *run_p)
{
    supernode *sn = run_p->head->sn;
    void *ud = resh_list_space(&run_p->tables);
    for (;;) {
        change32(&sn->comm_flg, 0, CF_RESHAPE_DRAIN);
        if (interim_empty(ud))
            return 0;
        change32(&sn->comm_flg, CF_RESHAPE_DRAIN, 0);
        int result = shkv_interimlst_replay(&run_p->tables);
        if (result != 0)
            return result;
    }
}

int move_all(resh_move_run *run_p)
{
    int result = mover_run(run_p);
    if (result != ENOENT)
        return give_up(run_p, false);
    if (kmutex_lock(&run_p->head->sn->wr_ksem) != 0)
        return give_up(run_p, false);
    if (mover_finish(run_p) != ENOENT || final_check(run_p) != 0)
        return give_up(run_p, true);
    head_privs[run_p->handle - 1].resh_end = RESH_MOVED;
    shkv_close(run_p->handle);
    return 0;
}

// The two rooms are all that the reshape keeps of a record in hand.
int reshape_handle(int handle)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    char key_room[MOVER_KEY_ROOM], value_room[MOVER_VALUE_ROOM];
    resh_move_run run;
    if (!mover_init(&run, handle, head, key_room, value_room))
        return give_up(&run, false);
    return move_all(&run);
}

} // namespace

int shkv_reshaping(const char *dbname, uint32_t md_sz, uint32_t ud_sz, uint64_t old_hash, uint64_t new_hash)
{
    if (!dbname || strlen(dbname) > SHKV_NAME_MAX)
        return fail(nullptr, 0, 0, EINVAL, "%s, the uri is too long", "shkv_reshaping");
    if (old_hash > OLD_HASH_MAX)
        return fail(nullptr, 0, 0, EINVAL, "bad old hash function for reshaping");
    shkv_rscf rscf = {md_sz, ud_sz, old_hash, new_hash};
    uint32_t err = 0;
    int handle = shkv_open_reshaping(dbname, UUID_RESHAPE1, 0, &rscf, SHKV_AM_RESHAPE, &err);
    if (!handle)
        return fail(nullptr, 0, 0, EINVAL, "can not open the db for reshaping,uri:%s,err:%d", dbname, (int)err);
    return reshape_handle(handle);
}

int shkv_reshape_db(const char *uri, uint32_t opflg)
{
    char dbname[SHKV_NAME_MAX + 1] = "";
    if (uri)
        shkv_uri2dbname(uri, dbname, SHKV_NAME_MAX);
    if (opflg != 0 && opflg != OPFLG_SAME)
        return fail(nullptr, 0, 0, EINVAL, "shkv_reshape_db, opflg mode is not supported");
    return shkv_reshaping(uri ? dbname : nullptr, 0, 1, 0, 0);
}

int shkv_get_nx_db_handle(int handle, uint32_t *out)
{
    if (!out)
        return EINVAL;
    if (!check_shkv_hdl(handle))
        return EBADF;
    *out = (uint32_t)handle;
    return 0;
}
