// The end of a reshape.
//
// Under wr_ksem: what is not in the new tables yet goes there. The stores that others see, then:
//   1. comm_flg without the bits of the objects that go, in one store: the switch. It is preceded by
//      CF_RESHAPE_DRAIN only where shkv_reshaping runs
//   2. one second later, with no lock held meanwhile: obj_sz 0, the object cut to length 0, obj_ver
//      raised. Its name stays for the next growth or reshape. A table that the writer has taken for a
//      rebuild by then is its own again, and is not cut
//   3. the tokens (token.cc)
// Killed before 1 the store stays in the reshape, with every record found in list or tables. Killed
// behind it, it works in the new tables; an old object keeps its length, and the token stays.
//
// What goes is the old pair, or the new one when a record cannot be moved: no space, a bad checksum.
// To go back, every record of the new table is stored in the old one too, and then the list is
// applied to the old one alone, with nothing taken from the new table or the list. So at every store
// of this a reader finds each record as before, and the switch is the moment at which the old table
// rules alone. Over one space the list has then to be emptied, since the space stays.
#include "reshape/reshape_end.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "reshape/interim.h"
#include "reshape/mover.h"
#include "reshape/token.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/kmutex.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/word.h"

namespace {

constexpr uint32_t READERS_US = 1000000;
constexpr uint32_t ROLES = MDO1N2 | MDN1O2 | UDO1N2 | UDN1O2;

struct end_op {
    shkv_head *head;
    supernode *sn;
    void *ring_p;
    int handle;
    uint32_t flg;
    int md_gone, ud_gone; // OBJ_* of what is cut, 0 for none
};

uint32_t *state_p(const end_op *op_p)
{
    return &head_privs[op_p->handle - 1].resh_end;
}

bool under_way(uint32_t flg)
{
    return (flg & CF_RESHAPE) && (flg & (MDO1N2 | MDN1O2)) && !(flg & CF_DESTROYED);
}

// With finish given to the end, under wr_ksem; else in turns with the writer. Apart, so that the
// rooms are on the stack only here.
__attribute__((noinline)) int move_rest(const end_op *op_p, bool finish)
{
    char key_room[MOVER_KEY_ROOM], value_room[MOVER_VALUE_ROOM];
    resh_move_run run;
    if (!mover_init(&run, op_p->handle, op_p->head, key_room, value_room))
        return EINVAL;
    return (finish ? mover_finish(&run) : mover_run(&run)) == ENOENT ? 0 : EINVAL;
}

int restore_list(const resh_tables *t_p)
{
    void *ud = resh_list_space(t_p);
    if (!interim_oldest(ud))
        return 0;
    for (uint32_t off = ((sbm *)ud)->intrm_head; off;) {
        intrm_rec *rec = intrm_at(ud, off);
        shkv_buf key = intrm_key(rec), value = intrm_value(rec);
        int result = 0;
        if (rec->intrm_op == INTRM_ADD)
            result = resh_restore(t_p, &key, &value);
        else if (rec->intrm_op == INTRM_DEL)
            result = resh_restore_removal(t_p, &key);
        if (result == ENOMEM)
            return result;
        off = get32(&rec->intrm_next);
    }
    return 0;
}

int go_back(const end_op *op_p)
{
    resh_tables tables;
    if (!resh_tables_of(&tables, op_p->head, op_p->flg))
        return EINVAL;
    int result = resh_restore_all(&tables);
    return result ? result : restore_list(&tables);
}

// With wr_ksem held. True when one pair of objects has everything; back_p tells which.
bool settle(const end_op *op_p, bool *back_p)
{
    uint32_t state = *state_p(op_p);
    *back_p = false;
    if (state == RESH_MOVED || (state == RESH_MOVING && move_rest(op_p, true) == 0))
        return true;
    *back_p = true;
    return go_back(op_p) == 0;
}

void choose_gone(end_op *op_p, bool back)
{
    uint32_t flg = op_p->flg;
    if (flg & (MDO1N2 | MDN1O2))
        op_p->md_gone = (flg & MDO1N2 ? true : false) != back ? OBJ_MD1 : OBJ_MD2;
    if (flg & (UDO1N2 | UDN1O2))
        op_p->ud_gone = (flg & UDO1N2 ? true : false) != back ? OBJ_UD1 : OBJ_UD2;
}

md_rec *rec_gone(const end_op *op_p)
{
    return op_p->md_gone == OBJ_MD1 ? &op_p->head->md1 : &op_p->head->md2;
}

ud_map **ud_map_gone(const end_op *op_p)
{
    return op_p->ud_gone == OBJ_UD1 ? &op_p->head->ud1_map : &op_p->head->ud2_map;
}

void unmap_gone(const end_op *op_p)
{
    if (op_p->md_gone) {
        md_rec *rec = rec_gone(op_p);
        if (rec->base)
            munmap(rec->base, rec->mapped_sz);
        rec->base = nullptr;
    }
    ud_map *ud = op_p->ud_gone ? *ud_map_gone(op_p) : nullptr;
    if (ud && ud->map[0]) {
        munmap(ud->map[0], ud->mapped_sz);
        ud->map[0] = nullptr;
    }
}

void switch_over(const end_op *op_p)
{
    uint32_t clear = CF_RESHAPE | CF_RESHAPE_DRAIN | ROLES;
    if (op_p->md_gone)
        clear |= op_p->md_gone == OBJ_MD1 ? CF_MD1 : CF_MD2;
    if (op_p->ud_gone)
        clear |= op_p->ud_gone == OBJ_UD1 ? CF_UD1 : CF_UD2;
    // The switch. What stays has every record and every write. A snapshot taken from here on names it
    // alone; one taken before names both, and what goes can still be read for a second.
    change32(&op_p->sn->comm_flg, clear, 0);
}

// The list of a reshape over one space that was given up: its writes are in the old table now.
void empty_list(const end_op *op_p, bool back)
{
    const ud_map *ud = op_p->flg & CF_UD1 ? op_p->head->ud1_map : op_p->head->ud2_map;
    if (back && !op_p->ud_gone && ud && ud->map[0])
        interim_discard(op_p->head, ud->map[0]);
}

int end_locked(end_op *op_p)
{
    bool back = false;
    op_p->flg = get32(&op_p->sn->comm_flg);
    if (under_way(op_p->flg) && !settle(op_p, &back)) {
        LOG("shkv_close, the reshape of %s can be neither finished nor undone", op_p->sn->dbname);
        return EINVAL;
    }
    choose_gone(op_p, back);
    unmap_gone(op_p);
    switch_over(op_p);
    empty_list(op_p, back);
    return 0;
}

// The lock may have come with the handle, from shkv_reshaping.
int end_under_lock(end_op *op_p)
{
    pthread_mutex_t *ksem_p = &op_p->sn->wr_ksem;
    if (*state_p(op_p) == RESH_MOVING && kmutex_lock(ksem_p) != 0)
        return fail(op_p->ring_p, 0, 0, EFAULT, "%s,fail to get write ksem ", op_p->sn->dbname);
    int result = end_locked(op_p);
    *state_p(op_p) = RESH_MOVING;
    pthread_mutex_unlock(ksem_p);
    return result;
}

// A writer that has grown within the second rebuilds its table into the old one, or has done so.
bool table_is_taken(const end_op *op_p)
{
    uint32_t flg = get32(&op_p->sn->comm_flg);
    return flg & ((op_p->md_gone == OBJ_MD1 ? CF_MD1 : CF_MD2) | CF_REFILL1 | CF_REFILL2);
}

int cut_table(const end_op *op_p)
{
    if (!op_p->md_gone || table_is_taken(op_p))
        return 0;
    bool md1 = op_p->md_gone == OBJ_MD1;
    md_desc *desc = md1 ? &op_p->sn->md1 : &op_p->sn->md2;
    put32(&desc->obj_sz, 0);
    if (ftruncate(rec_gone(op_p)->fd, 0) != 0)
        return fail(op_p->ring_p, md1 ? 0x43 : 0x44, (uint32_t)errno, EINVAL,
                    md1 ? "shkv_close, MDO1N2 ftruncate failed %d" : "shkv_close, MDN1O2 ftruncate failed %d", errno);
    put32(&desc->obj_ver, get32(&desc->obj_ver) + 1);
    return 0;
}

// The map's descriptor stays open until the process ends. Intended.
int cut_space(const end_op *op_p)
{
    if (!op_p->ud_gone)
        return 0;
    bool ud1 = op_p->ud_gone == OBJ_UD1;
    ud_desc *desc = ud1 ? &op_p->sn->ud1 : &op_p->sn->ud2;
    ud_map **map_pp = ud_map_gone(op_p);
    put32(&desc->obj_sz, 0);
    if (!*map_pp || ftruncate((*map_pp)->fd, 0) != 0)
        return fail(op_p->ring_p, ud1 ? 0x82 : 0x83, (uint32_t)errno, EINVAL,
                    ud1 ? "shkv_close, UDO1N2 ftruncate failed %d" : "shkv_close, UDN1O2 ftruncate failed %d", errno);
    free(*map_pp);
    *map_pp = nullptr;
    put32(&desc->obj_ver, get32(&desc->obj_ver) + 1);
    return 0;
}

int cut_locked(const end_op *op_p)
{
    if (sem_take(&obj_sem) == -1)
        return fail(op_p->ring_p, 0, 0, EFAULT, "db shkv semaphore wait failed shkv_close,errno:%d", errno);
    int result = cut_table(op_p);
    if (result == 0)
        result = cut_space(op_p);
    if (sem_give(&obj_sem) == -1)
        return fail(op_p->ring_p, 0, 0, EFAULT, "db shkv semaphore post failed shkv_close,errno:%d", errno);
    return result;
}

// Under wr_ksem no table is taken for a rebuild.
int cut_gone(const end_op *op_p)
{
    pthread_mutex_t *ksem_p = &op_p->sn->wr_ksem;
    if (kmutex_lock(ksem_p) != 0)
        return fail(op_p->ring_p, 0, 0, EFAULT, "%s,fail to get write ksem ", op_p->sn->dbname);
    int result = cut_locked(op_p);
    pthread_mutex_unlock(ksem_p);
    return result;
}

} // namespace

int reshape_end(shkv_head *head, int handle)
{
    end_op op = {};
    op.head = head;
    op.sn = head->sn;
    op.ring_p = ring_of(op.sn);
    op.handle = handle;
    if (*state_p(&op) == RESH_MOVING && under_way(get32(&op.sn->comm_flg)))
        move_rest(&op, false); // whoever closes without having moved everything
    int result = end_under_lock(&op);
    if (result != 0)
        return result;
    usleep(READERS_US);
    return cut_gone(&op);
}

void reshape_release_token(shkv_head *head)
{
    token_give(head->sn);
}
