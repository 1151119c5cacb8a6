// Maps the objects of an existing store for a head.
//
// Every object is mapped at the size that its descriptor gives. A version is loaded before the
// size that goes with it: the writer stores the size first, so a version in hand never promises
// more than the size loaded after it, and at worst the next check remaps once too often.
// Descriptors stay open with the head: growth and remapping need no name.
#include "shkv_intf/obj_open.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/sizing.h"
#include "shkv_intf/word.h"

// The supernode ---------------------------------------------------------------------------------

// Maps record and ring. An object without a byte, which a creator has just named, cannot be mapped;
// one that is shorter than a supernode is no store, and its ring must not be touched.
static supernode *map_sn(int fd, uint32_t uuid, int prot, uint32_t *err_p)
{
    struct stat st;
    if (fstat(fd, &st) == -1) {
        fail_err(nullptr, 0, 0, err_p, EFAULT, "uuid:%d,failed to call fstat of shm, errno:%d", (int)uuid,
                 errno);
        return nullptr;
    }
    void *base_p = mmap(nullptr, st.st_size > 0 ? sn_map_sz() : 0, prot, MAP_SHARED, fd, 0);
    if (base_p == MAP_FAILED) {
        fail_err(nullptr, 0, 0, err_p, ENOMEM, "uuid:%d,failed to mmap supernode shm:%d", (int)uuid, errno);
        return nullptr;
    }
    if ((uint64_t)st.st_size < sn_map_sz()) {
        munmap(base_p, sn_map_sz());
        fail_err(nullptr, 0, 0, err_p, EINVAL, "uuid:%d, the db is insane.", (int)uuid);
        return nullptr;
    }
    return (supernode *)base_p;
}

static supernode *open_sn_locked(const char *path, uint32_t uuid, int prot, uint32_t *err_p)
{
    int fd = shkv_shm_open(path, O_RDWR, 0);
    if (fd == -1) { // no such store: an ordinary answer
        *err_p = ENOENT;
        return nullptr;
    }
    supernode *sn = map_sn(fd, uuid, prot, err_p);
    close(fd);
    // Readers write to the trace ring too. Without that the next event would end the process.
    if (sn && !(prot & PROT_WRITE) && mprotect(ring_of(sn), SHKV_PAGE_SIZE, PROT_READ | PROT_WRITE) == -1) {
        LOG("failed convert reader trace buffer, errno: %d (%s)", errno, strerror(errno));
        munmap(sn, sn_map_sz());
        *err_p = ENOMEM;
        return nullptr;
    }
    return sn;
}

supernode *shkv_open_sn(const char *path, uint32_t uuid, int prot, uint32_t *err_p)
{
    if (sem_take(&obj_sem) == -1) {
        fail_err(nullptr, 0, 0, err_p, EFAULT, "uuid:%d,db shkv semaphore wait failed,errno:%d", (int)uuid,
                 errno);
        return nullptr;
    }
    supernode *sn = open_sn_locked(path, uuid, prot, err_p);
    if (sem_give(&obj_sem) == -1) {
        fail_err(nullptr, 0, 0, err_p, EFAULT, "uuid:%d,db shkv semaphore post failed,errno:%d", (int)uuid,
                 errno);
        if (sn)
            munmap(sn, sn_map_sz());
        return nullptr;
    }
    return sn;
}

// MD and UD objects -----------------------------------------------------------------------------

struct reopen_op {
    supernode *sn;
    shkv_head *head;
    int obj_t;
    int prot;
    uint32_t *err_p;
    void *ring_p;
    uint32_t ver;    // obj_ver, loaded before obj_sz
    uint32_t obj_sz;
    int fd;
    void *base_p;
};

static bool load_desc(reopen_op *op_p)
{
    supernode *sn = op_p->sn;
    const md_desc *md_p = op_p->obj_t == OBJ_MD1      ? &sn->md1
                          : op_p->obj_t == OBJ_MD2    ? &sn->md2
                          : op_p->obj_t == OBJ_MD_TXN ? &sn->md_txn
                                                      : nullptr;
    const ud_desc *ud_p = op_p->obj_t == OBJ_UD1 ? &sn->ud1 : op_p->obj_t == OBJ_UD2 ? &sn->ud2 : nullptr;
    if (!md_p && !ud_p)
        return false;
    op_p->ver = get32(md_p ? &md_p->obj_ver : &ud_p->obj_ver);
    op_p->obj_sz = get32(md_p ? &md_p->obj_sz : &ud_p->obj_sz);
    return true;
}

// Opens the object, makes it as long as its descriptor says, maps it. An empty one stays unmapped.
static int open_and_map(reopen_op *op_p, const char *path)
{
    int uuid = (int)op_p->sn->uuid;
    op_p->fd = shkv_shm_open(path, O_RDWR, 0);
    if (op_p->fd == -1)
        return fail_err(op_p->ring_p, 0x33, (uint32_t)errno, op_p->err_p, ENOENT,
                        "uuid:%d,failed to open mu shm, errno:%d", uuid, errno);
    struct stat st;
    if (fstat(op_p->fd, &st) == -1)
        return fail_err(op_p->ring_p, 0x34, (uint32_t)errno, op_p->err_p, EFAULT,
                        "uuid:%d,failed to call fstat of shm, errno:%d", uuid, errno);
    if ((uint64_t)st.st_size < op_p->obj_sz && ftruncate(op_p->fd, op_p->obj_sz) == -1)
        return fail_err(op_p->ring_p, 0x35, (uint32_t)errno, op_p->err_p, EFAULT,
                        "uuid:%d,failed to ftruncate supernode shm,errno:%d", uuid, errno);
    if (op_p->obj_sz == 0)
        return 1;
    void *base_p = map_object(op_p->fd, op_p->obj_sz, op_p->prot, 0);
    if (base_p == MAP_FAILED)
        return fail_err(op_p->ring_p, 0x36, (uint32_t)errno, op_p->err_p, ENOMEM,
                        "uuid:%d,failed to mmap mdnode shm:%d", uuid, errno);
    op_p->base_p = base_p;
    return 1;
}

static void fill_md(reopen_op *op_p)
{
    shkv_head *head = op_p->head;
    md_rec *rec_p = op_p->obj_t == OBJ_MD1 ? &head->md1 : op_p->obj_t == OBJ_MD2 ? &head->md2 : &head->md_txn;
    if (op_p->obj_t == OBJ_MD_TXN)
        LOG("%s: re-open to get md txn fd:%d obj_sz:%d\n", "shkv_reopen_mdobj", op_p->fd, (int)op_p->obj_sz);
    rec_p->base = (mdn *)op_p->base_p;
    rec_p->fd = op_p->fd;
    rec_p->mapped_sz = op_p->obj_sz;
    rec_p->ver = op_p->ver;
}

static int fill_ud(reopen_op *op_p)
{
    ud_map *map_p = (ud_map *)calloc(1, sizeof(ud_map));
    if (!map_p) // the error word stays as it is
        return fail(op_p->ring_p, 0x37, 5, 0, "allocate loc_ud_map fail in shkv_open");
    map_p->map[0] = op_p->base_p;
    map_p->ver = op_p->ver;
    map_p->map_cnt = 1;
    map_p->fd = op_p->fd;
    map_p->mapped_sz = op_p->obj_sz;
    if (op_p->obj_t == OBJ_UD1) {
        op_p->head->ud1_map = map_p;
        if (maps_in_chunks(op_p->sn, op_p->head))
            set_map0(op_p->head, op_p->obj_sz);
    } else {
        op_p->head->ud2_map = map_p;
    }
    return 1;
}

// Read handles of a store that grows by chunks use one table: addresses in it never change.
static void share_ud(shkv_head *head, int obj_t, const shkv_head *share_p)
{
    if (obj_t == OBJ_UD1)
        head->ud1_map = share_p->ud1_map;
    else
        head->ud2_map = share_p->ud2_map;
    head->map0_chunk = share_p->map0_chunk;
    head->map0_gap = share_p->map0_gap;
    head->map0_sz = share_p->map0_sz;
}

static int reopen_locked(reopen_op *op_p, const shkv_head *share_p)
{
    if (!load_desc(op_p))
        return fail(op_p->ring_p, 0x32, 5, 0, "wrong obj_t for shkv_reopen_mdobj %d", op_p->obj_t);
    bool is_ud = op_p->obj_t == OBJ_UD1 || op_p->obj_t == OBJ_UD2;
    if (is_ud && op_p->prot == PROT_READ && share_p) {
        share_ud(op_p->head, op_p->obj_t, share_p);
        return 1;
    }
    char path[SHKV_PATH_MAX];
    obj_path(path, op_p->sn->dbname, op_p->obj_t);
    int done = open_and_map(op_p, path);
    if (done && is_ud)
        done = fill_ud(op_p);
    else if (done)
        fill_md(op_p);
    if (!done) {
        if (op_p->base_p)
            munmap(op_p->base_p, op_p->obj_sz);
        if (op_p->fd != -1)
            close(op_p->fd);
    }
    return done;
}

int shkv_reopen_mdobj(supernode *sn, shkv_head *head, int obj_t, int prot, shkv_head *share_p, uint32_t *err_p,
                      void *ring_p)
{
    if (sem_take(&obj_sem) == -1)
        return fail_err(ring_p, 0x31, (uint32_t)errno, err_p, EFAULT,
                        "uuid:%d,db shkv semaphore wait failed,errno:%d", (int)sn->uuid, errno);
    reopen_op op = {sn, head, obj_t, prot, err_p, ring_p, 0, 0, -1, nullptr};
    int result = reopen_locked(&op, share_p);
    if (sem_give(&obj_sem) == -1)
        return fail_err(ring_p, 0x38, (uint32_t)errno, err_p, EFAULT,
                        "uuid:%d,db shkv semaphore post failed,errno:%d", (int)sn->uuid, errno);
    return result;
}

int shkv_open_mdudobj(supernode *sn, shkv_head *head, int prot, shkv_head *share_p, uint32_t *err_p,
                      void *ring_p)
{
    // All five, also those that are empty. The events carry the constant 2 and the reason.
    static const struct { int obj_t; uint32_t event; const char *name; } objects[] = {
        {OBJ_MD1, 0x52, "MD1"}, {OBJ_MD2, 0x53, "MD2"}, {OBJ_MD_TXN, 0x53, nullptr},
        {OBJ_UD1, 0x54, "UD1"}, {OBJ_UD2, 0x55, "UD2"}};
    for (const auto &object : objects) {
        if (shkv_reopen_mdobj(sn, head, object.obj_t, prot, share_p, err_p, ring_p))
            continue;
        if (object.name)
            return fail_pair(ring_p, object.event, 2, *err_p, 0,
                             "shkv_reopen_mdobj failed for %s             %d %d %d", object.name, (int)*err_p,
                             prot, (int)sn->comm_flg);
        return fail_pair(ring_p, object.event, 2, *err_p, 0, "%s: failed to open md TXN obj\n",
                         "shkv_open_mdudobj");
    }
    // A store that passed the magic test may still have no table or no record space to use.
    bool has_ud = (head->ud1_map && head->ud1_map->map[0]) || (head->ud2_map && head->ud2_map->map[0]);
    if ((head->md1.base || head->md2.base) && has_ud)
        return 1;
    *err_p = EFAULT;
    return fail_pair(ring_p, 0x56, EFAULT, sn->comm_flg, 0, "%s,the db is not sanity", sn->dbname);
}
