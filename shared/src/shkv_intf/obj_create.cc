// Creates an MD or UD object of a store that is being made: name, length, mapping, and what the
// creator's head knows of it. No page of the object is touched here: ftruncate reserves nothing, so
// a touch may fault, and this runs with a semaphore held.
//
// What a failure leaves: no name, no descriptor. Mappings and the ud_map stay in the head for the
// creator's undo.
#include "shkv_intf/obj_create.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/sizing.h"
#include "shkv_intf/word.h"

// Gives a fresh object its length and maps all of it. The address, or null with both taken back.
static void *size_and_map(const char *path, int fd, uint32_t obj_sz, uint32_t uuid, uint32_t *err_p,
                          void *ring_p)
{
    const char *text = "uuid:%d,failed to ftruncate mu shm obj,errno:%d";
    void *base_p = MAP_FAILED;
    if (ftruncate(fd, obj_sz) == 0) {
        text = "uuid:%d,failed to mmap mu shm obj,errno:%d";
        base_p = map_object(fd, obj_sz, PROT_READ | PROT_WRITE, 0);
    }
    if (base_p != MAP_FAILED)
        return base_p;
    int err = errno;
    close(fd);
    shkv_shm_unlink(path);
    fail_err(ring_p, 0x1b, (uint32_t)err, err_p, ENOMEM, text, (int)uuid, err);
    return nullptr;
}

static int fill_md1(const char *path, int fd, supernode *sn, shkv_head *head, uint32_t *err_p, void *ring_p)
{
    void *base_p = size_and_map(path, fd, sn->md1.obj_sz, sn->uuid, err_p, ring_p);
    if (!base_p)
        return 0;
    put32(&sn->md1.obj_ver, sn->md1.obj_ver + 1);
    head->md1.base = (mdn *)base_p;
    head->md1.fd = fd;
    head->md1.mapped_sz = sn->md1.obj_sz;
    head->md1.ver = sn->md1.obj_ver;
    return 1;
}

static int fill_ud1(const char *path, int fd, supernode *sn, shkv_head *head, uint32_t *err_p, void *ring_p)
{
    ud_map *map_p = (ud_map *)calloc(1, sizeof(ud_map));
    if (!map_p) {
        close(fd);
        shkv_shm_unlink(path);
        return fail(ring_p, 0x1b, sn->uuid, 0, "fail to allocate loc_ud_map"); // err stays as it is
    }
    head->ud1_map = map_p;
    if (maps_in_chunks(sn, head))
        set_map0(head, sn->ud1.obj_sz);
    void *base_p = size_and_map(path, fd, sn->ud1.obj_sz, sn->uuid, err_p, ring_p);
    if (!base_p)
        return 0;
    put32(&sn->ud1.obj_ver, sn->ud1.obj_ver + 1);
    map_p->map[0] = base_p;
    map_p->fd = fd;
    map_p->mapped_sz = sn->ud1.obj_sz;
    map_p->ver = sn->ud1.obj_ver;
    map_p->map_cnt = 1;
    return 1;
}

static int get_locked(const char *path, supernode *sn, shkv_head *head, int obj_t, uint32_t *err_p,
                      void *ring_p)
{
    int fd = shkv_shm_open(path, O_RDWR | O_CREAT | O_EXCL | O_TRUNC, 0666);
    if (fd == -1)
        return fail_err(ring_p, 0x1b, (uint32_t)errno, err_p, EEXIST,
                        "uuid:%d,failed to create MU-obj shm,errno:%d", (int)sn->uuid, errno);
    switch (obj_t) {
    case OBJ_MD1:
        return fill_md1(path, fd, sn, head, err_p, ring_p);
    case OBJ_UD1:
        return fill_ud1(path, fd, sn, head, err_p, ring_p);
    case OBJ_MD2:
        head->md2.fd = fd;
        return 1;
    case OBJ_MD_TXN:
        LOG("%s: get md_txn fd:%d", "shkv_get_mu_obj", fd);
        head->md_txn.fd = fd;
        return 1;
    case OBJ_UD2: // a creator has no ud_map of UD2 until it needs one
        head->ud2_map = nullptr;
        close(fd);
        return 1;
    default:
        close(fd);
        shkv_shm_unlink(path);
        return 0;
    }
}

// After a failed post: closes what the head holds of the object, so that the undo does not.
static void forget_fd(shkv_head *head, int obj_t)
{
    int32_t *fd_p = obj_t == OBJ_MD1                     ? &head->md1.fd
                    : obj_t == OBJ_MD2                   ? &head->md2.fd
                    : obj_t == OBJ_MD_TXN                ? &head->md_txn.fd
                    : obj_t == OBJ_UD1 && head->ud1_map  ? &head->ud1_map->fd
                                                         : nullptr;
    if (fd_p && *fd_p != 0) {
        close(*fd_p);
        *fd_p = 0;
    }
}

int shkv_get_mu_obj(const char *path, supernode *sn, shkv_head *head, int obj_t, uint32_t *err_p, void *ring_p)
{
    if (sem_take(&obj_sem) == -1) {
        fail_err(ring_p, 0x1b, (uint32_t)errno, err_p, EFAULT, "db shkv semaphore wait failed,errno:%d", errno);
        sem_give(&obj_sem); // also when the wait has failed. Intended
        return 0;
    }
    mode_t mask = umask(0);
    int result = get_locked(path, sn, head, obj_t, err_p, ring_p);
    umask(mask);
    if (sem_give(&obj_sem) == -1) {
        int err = errno;
        forget_fd(head, obj_t);
        if (result)
            shkv_shm_unlink(path);
        return fail_err(ring_p, 0x1b, (uint32_t)err, err_p, EFAULT, "db shkv semaphore post failed,errno:%d",
                        err);
    }
    return result;
}
