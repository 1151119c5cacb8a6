// Undoes an atomic batch from its log.
//
// The log holds, for each key of the batch, the value from before it, or an empty one for a key
// that was not there. Putting those values back is harmless at any moment: over a batch that had
// not begun to apply it changes nothing, and after a crash in the middle of an undo the next one
// does it again. The mark in the supernode goes last, when the log is gone.
#include "shkv_intf/undo.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/trace.h"
#include "shkv_intf/record.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/word.h"

// A batch may have 32 keys: of 32 distinct ones, the last in the log's bucket order is not replayed.
// Intended.
#define UNDO_BUDGET 31

// One record of the log. An empty value stands for an absent key, which a batch of adds has made and
// a batch of deletes cannot have made. (A key with an empty value is taken for absent, too.)
static int undo_record(int handle, supernode *sn, const shkv_buf *key, const shkv_buf *val)
{
    if (val->len != 0) {
        int result = shkv_add(handle, key, val, 0);
        if (result != 0)
            return fail(ring_of(sn), 0xC2, (uint32_t)result, result, "shkv_iodb_rollbk, add failed, retv:%d",
                        result);
        return 0;
    }
    if ((get32(&sn->iodb_mark) & 0xff) != (IODB_ADDS & 0xff))
        return 0;
    int result = shkv_delete(handle, key);
    if (result != 0 && result != ENOENT)
        return fail(ring_of(sn), 0xC3, (uint32_t)result, result, "shkv_iodb_rollbk, del failed, retv:%d",
                    result);
    return result;
}

int shkv_iodb_rollbk(int handle, int iodb_handle)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    int result = shkv_iterate(iodb_handle, nullptr, nullptr, nullptr, 1);
    if (result != 0)
        return result;
    char key_room[REC_KEY_MAX], val_room[REC_VALUE_MAX];
    for (int budget = UNDO_BUDGET; budget > 0; budget--) {
        shkv_buf key = {key_room, sizeof key_room}, val = {val_room, sizeof val_room};
        result = shkv_iterate(iodb_handle, &key, &val, nullptr, 0);
        if (result == ENOENT)
            return 0;
        if (result != 0)
            return fail(ring_of(head->sn), 0xC1, (uint32_t)result, result, "can not iterate iodb ");
        result = undo_record(handle, head->sn, &key, &val);
        if (result != 0 && result != ENOENT)
            return result;
    }
    return result; // ENOENT when the last key to delete was not there
}

int shkv_start_rollback(int handle)
{
    shkv_head *head = check_shkv_hdl(handle);
    if (!head)
        return EBADF;
    supernode *sn = head->sn;
    if (!(head->access_mode & (SHKV_AM_WRITE | SHKV_AM_RESHAPE)))
        return EINVAL; // the mark could not be cleared: this mapping of the supernode is read-only

    char name[SHKV_IODB_NAME_MAX];
    iodb_name(name, sn);
    uint32_t err = 0;
    int log = shkv_open(name, sn->uuid, 0, SHKV_AM_WRITE, &err);
    if (log == 0) {
        if (err != ENOENT)
            return fail(ring_of(sn), 0xC4, err, (int)err, "shkv_start_rollbk, open iodb failed, retv:%d", err);
        // Too few descriptors look the same as no log, and what a cut batch has left must not stay for that. A log
        // that is going has lost its MD1 first.
        char path[SHKV_PATH_MAX];
        obj_path(path, name, OBJ_MD1);
        int fd = shkv_shm_open(path, O_RDWR, 0);
        if (fd != -1)
            close(fd);
        if (fd != -1 || errno != ENOENT)
            return fail(ring_of(sn), 0xC4, ENOMEM, ENOMEM, "shkv_start_rollbk, open iodb failed, retv:%d", ENOMEM);
        put32(&sn->iodb_mark, 0); // died between the log's end and this store
        return 0;
    }
    int result = shkv_iodb_rollbk(handle, log);
    if (result != 0) // and on: a log that cannot be replayed is not kept
        fail(ring_of(sn), 0xC5, (uint32_t)result, 0, "shkv_start_rollbk, iodb rbk failed, retv:%d", result);
    result = shkv_destroy(log);
    if (result != 0)
        fail(ring_of(sn), 0xC6, (uint32_t)result, 0, "shkv_start_rollbk, destroy failed, retv:%d", result);
    put32(&sn->iodb_mark, 0);
    return result;
}

void iodb_name(char *out, const supernode *sn)
{
    snprintf(out, SHKV_IODB_NAME_MAX, "%s%s", sn->dbname, SHKV_IODB_SUFFIX);
}
