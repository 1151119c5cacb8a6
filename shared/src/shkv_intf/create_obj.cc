// The objects of a store in the making: directories, supernode, tables, record spaces, and the way
// back from all of them.
//
// The supernode comes first, and O_EXCL tells two creators of a name apart there; from then on the
// name is this creator's, so left-overs of the other five are unlinked before they are made.
#include "shkv_intf/create_op.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/obj_create.h"
#include "shkv_intf/obj_drop.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"

// Any service may open any store, so modes are not to be cut by a creator's mask.
int create_dir(create_op *op_p, const char *path, uint32_t event, const char *text)
{
    mode_t mask = umask(0);
    int result = mkdir(path, 0777);
    int err = errno;
    umask(mask);
    if (result == 0 || err == EEXIST)
        return 1;
    *op_p->errptr = EINVAL;
    return fail_pair(op_p->ring_p, event, op_p->uuid, (uint32_t)err, 0, text, (int)op_p->uuid, err);
}

// The supernode -----------------------------------------------------------------------------------

// Gives the named object its length and maps it. On failure the name goes.
static int size_and_map_sn(create_op *op_p, const char *path, int fd)
{
    const char *text = "uuid:%d,failed to ftruncate supernode shm,errno:%d";
    uint32_t event = 0x20;
    void *base_p = MAP_FAILED;
    if (ftruncate(fd, (off_t)sn_map_sz()) == 0) {
        text = "uuid:%d,failed to mmap supernode shm,errno:%d";
        event = 0x21;
        base_p = mmap(nullptr, sn_map_sz(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    }
    int err = errno;
    close(fd);
    if (base_p != MAP_FAILED) {
        op_p->sn = (supernode *)base_p;
        return 1;
    }
    shkv_shm_unlink(path);
    errno = err; // for the line of create_sn, too
    return fail_err(op_p->ring_p, event, (uint32_t)err, op_p->errptr, ENOMEM, text, (int)op_p->uuid, err);
}

static int create_sn_locked(create_op *op_p, const char *path)
{
    mode_t mask = umask(0);
    int fd = shkv_shm_open(path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
    umask(mask);
    if (fd == -1)
        return fail_err(op_p->ring_p, 0x1f, (uint32_t)errno, op_p->errptr, EEXIST,
                        "uuid:%d,failed to create supernode shm %s,                    errno:%d",
                        (int)op_p->uuid, op_p->dbname, errno);
    return size_and_map_sn(op_p, path, fd);
}

int create_sn(create_op *op_p)
{
    char path[SHKV_PATH_MAX];
    obj_path(path, op_p->dbname, OBJ_SN);
    if (sem_take(&obj_sem) == -1)
        return fail_err(op_p->ring_p, 0x1e, (uint32_t)errno, op_p->errptr, EFAULT,
                        "uuid:%d,db shkv semaphore wait failed,errno:%d", (int)op_p->uuid, errno);
    int result = create_sn_locked(op_p, path);
    int err = errno;
    if (sem_give(&obj_sem) == -1) {
        err = errno;
        fail_err(op_p->ring_p, 0x22, (uint32_t)err, op_p->errptr, EFAULT,
                 "uuid:%d,db shkv semaphore post failed,errno:%d", (int)op_p->uuid, err);
        if (result) {
            shkv_shm_unlink(path);
            munmap(op_p->sn, sn_map_sz());
        }
        result = 0;
    }
    if (result)
        return 1;
    op_p->sn = nullptr;
    return fail_pair(op_p->ring_p, 0x25, op_p->uuid, (uint32_t)err, 0,
                     "uuid:%d, can not create supernode,errno:%d", (int)op_p->uuid, err);
}

// MD and UD objects ---------------------------------------------------------------------------------

static int create_obj(create_op *op_p, int obj_t)
{
    char path[SHKV_PATH_MAX];
    obj_path(path, op_p->dbname, obj_t);
    shkv_shm_unlink(path);
    return shkv_get_mu_obj(path, op_p->sn, &op_p->head, obj_t, op_p->errptr, op_p->ring_p);
}

int create_tables(create_op *op_p)
{
    uint32_t wanted = op_p->conf.maxents * 50 / 100, least = SHKV_PAGE_SIZE / 16;
    md_desc *desc_p = &op_p->sn->md1;
    desc_p->hashsz = shkv_get_hash_size(wanted < least ? least : wanted);
    desc_p->obj_sz = desc_p->hashsz * (uint32_t)sizeof(mdn);
    if (!create_obj(op_p, OBJ_MD1))
        return fail_pair(op_p->ring_p, 0x29, *op_p->errptr, desc_p->obj_sz, 0, "shkv_get_mu_obj fail MD1 %s %d",
                         op_p->dbname, (int)*op_p->errptr);
    // The others stay empty, and exist: growth never has to make a name.
    op_p->sn->md2.obj_sz = 0;
    if (!create_obj(op_p, OBJ_MD2))
        return fail_pair(op_p->ring_p, 0x2a, *op_p->errptr, 0, 0, "shkv_get_mu_obj fail MD2 %s %d",
                         op_p->dbname, (int)*op_p->errptr);
    op_p->sn->md_txn.obj_sz = 0;
    if (!create_obj(op_p, OBJ_MD_TXN))
        return fail(op_p->ring_p, 0x2b, *op_p->errptr, 0, "%s: failed to get MD_TXN obj\n", "shkv_create");
    return 1;
}

int create_spaces(create_op *op_p)
{
    const shkv_params *conf_p = &op_p->conf;
    op_p->sn->ud1.obj_sz = op_p->ud_sz;
    if (!create_obj(op_p, OBJ_UD1))
        return fail(op_p->ring_p, 0x2c, *op_p->errptr, 0, "shkv_get_mu_obj fail UD1 %s %d %d %d %d",
                    op_p->dbname, (int)*op_p->errptr, (int)conf_p->maxents, conf_p->maxksz, conf_p->maxvsz);
    op_p->sn->ud2.obj_sz = 0;
    if (!create_obj(op_p, OBJ_UD2))
        return fail_pair(op_p->ring_p, 0x2e, *op_p->errptr, conf_p->maxents, 0,
                         "shkv_get_mu_obj fail UD2 %s %d %d %d %d", op_p->dbname, (int)*op_p->errptr,
                         (int)conf_p->maxents, conf_p->maxksz, conf_p->maxvsz);
    return 1;
}

// The way back ----------------------------------------------------------------------------------------

static void unlink_obj(const create_op *op_p, int obj_t)
{
    char path[SHKV_PATH_MAX];
    obj_path(path, op_p->dbname, obj_t);
    shkv_shm_unlink(path);
}

// After a fault these stay as they are: the next creator of the name unlinks them. Intended.
static void undo_objects(create_op *op_p)
{
    shkv_head *head = &op_p->head;
    if (head->md1.fd)
        unlink_obj(op_p, OBJ_MD1);
    if (head->md2.fd)
        unlink_obj(op_p, OBJ_MD2);
    if (head->md_txn.fd)
        unlink_obj(op_p, OBJ_MD_TXN);
    close_mds(head);
    unmap_mds(head);
    bool chunks = op_p->conf.conf_flg & CONF_SHMAP;
    if (head->ud1_map)
        release_ud_maps(head, head->ud1_map, chunks);
    unlink_obj(op_p, OBJ_UD1);
    unlink_obj(op_p, OBJ_UD2);
    free_ud_map(&head->ud1_map);
    free_ud_map(&head->ud2_map);
}

static void undo_locked(create_op *op_p)
{
    if (!op_p->faulted)
        undo_objects(op_p);
    unlink_obj(op_p, OBJ_SN);
    munmap(op_p->sn, sn_map_sz());
}

int create_undo(create_op *op_p)
{
    if (sem_take(&obj_sem) == -1)
        return fail(op_p->ring_p, 0x2f, (uint32_t)errno, 0, "db shkv semaphore wait failed,errno:%d", errno);
    undo_locked(op_p);
    if (sem_give(&obj_sem) == -1)
        fail(op_p->ring_p, 0x2f, (uint32_t)errno, 0, "db shkv semaphore post failed,errno:%d", errno);
    return 0;
}
