// Remapping: the slow side of the check on the way into every operation.
//
// A mapping of a whole object is exchanged for a new one (mapping.h), for other threads may stand on
// it; when there is no room for both, null stands in its place. The version is stored last: who sees
// it sees the address and the size. A failure leaves the version behind, and the next check tries
// again. A mapping in chunks is only ever added to.
#include "shkv_intf/obj_remap.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/trace.h"
#include "shkv_hash/hash_fn.h"
#include "shkv_intf/addr.h"
#include "shkv_intf/head.h"
#include "shkv_intf/mapping.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"
#include "shkv_intf/sizing.h"

// A head that may write keeps that access also when a lookup found the mapping stale, and so does
// a table of chunks that any head of this process writes through.
static __attribute__((noinline)) int prot_for(const shkv_head *head, int prot)
{
    const uint32_t writes = SHKV_AM_WRITE | SHKV_AM_RESHAPE;
    bool may_write = head->access_mode & writes;
    for (const shkv_head &other : shkv_db_heads)
        may_write |= (other.access_mode & writes) && other.ud1_map && other.ud1_map == head->ud1_map;
    return may_write ? prot | PROT_WRITE : prot;
}

static int map_whole(shkv_head *head, void **base_pp, uint32_t *size_p, int fd, uint32_t obj_sz, int prot,
                     uint32_t event, uint32_t *err_p)
{
    if (mapping_replace(head, base_pp, size_p, fd, obj_sz, prot_for(head, prot)))
        return 1;
    return fail_err(ring_of(head->sn), event, (uint32_t)errno, err_p, ENOMEM,
                    "uuid:%d,failed to mmap obj shm:%d", (int)head->sn->uuid, errno);
}

// Tables ----------------------------------------------------------------------------------------

// A table that was inactive at open gets its function here. A caller's function is known only to a
// handle that was opened with it; an index past the built-in ones is left alone.
static int bind_by_desc(shkv_head *head, const md_desc *desc_p, md_rec *rec_p)
{
    uint16_t hashfn = get16(&desc_p->hashfn);
    uint32_t user_hash = get32(&desc_p->user_hash);
    // What the table's last contents were hashed with is not what these are.
    if (hashfn == SHKV_USER_HASHFN && rec_p->hash_fn && user_hash &&
        rec_p->hash_fn(SHKV_HASH_TEST, SHKV_HASH_TEST_LEN) != user_hash)
        bind_fn(rec_p, nullptr);
    if (hashfn == SHKV_USER_HASHFN && !rec_p->hash_fn)
        return fail(ring_of(head->sn), 0x45, hashfn, 0,
                    "shkv_remap_mdobj,                 new user-hashfn used, the db has                 to be "
                    "reopened");
    if (hashfn < HASH_FN_CNT)
        bind_fn(rec_p, shkv_hash_matrix[hashfn]);
    return 1;
}

static int remap_md(shkv_head *head, const md_desc *desc_p, md_rec *rec_p, int prot, uint32_t *err_p)
{
    uint32_t ver = get32(&desc_p->obj_ver); // before obj_sz: see obj_open.cc
    int bound = bind_by_desc(head, desc_p, rec_p); // before the version, which says that it fits
    if (ver != get32(&rec_p->ver)) {
        if (!map_whole(head, (void **)&rec_p->base, &rec_p->mapped_sz, rec_p->fd, get32(&desc_p->obj_sz), prot,
                       0x3c, err_p))
            return 0;
        put32(&rec_p->ver, ver);
    }
    return bound;
}

// Record spaces ---------------------------------------------------------------------------------

// Maps what has been added, piece by piece up to the next chunk boundary, each at its own file
// offset. mapped_sz moves with each piece, so a failure resumes where it stopped.
static int add_chunks(shkv_head *head, ud_map *map_p, uint32_t obj_sz, int prot, uint32_t *err_p)
{
    while (map_p->mapped_sz < obj_sz) {
        uint32_t piece_sz = chunk_rest(map_p->mapped_sz);
        void *piece_p = MAP_FAILED;
        errno = ENOMEM;
        if (map_p->map_cnt < UD_MAPS)
            piece_p = map_object(map_p->fd, piece_sz, prot_for(head, prot), map_p->mapped_sz);
        if (piece_p == MAP_FAILED) {
            *err_p = (uint32_t)fail_pair(ring_of(head->sn), 0xf7, (uint32_t)errno, map_p->mapped_sz, ENOMEM,
                                         "uuid:%d,failed to mmap obj shm:%d", (int)head->sn->uuid, errno);
            return 0;
        }
        map_p->map[map_p->map_cnt] = piece_p;
        map_p->map_cnt++;
        put32(&map_p->mapped_sz, map_p->mapped_sz + piece_sz); // after the piece: bounds are checked by it
    }
    return 1;
}

// A table for UD2 with nothing mapped yet, for the head of a creator.
static ud_map *open_ud2(shkv_head *head, uint32_t *err_p)
{
    char path[SHKV_PATH_MAX];
    obj_path(path, head->sn->dbname, OBJ_UD2);
    int fd = shkv_shm_open(path, O_RDWR, 0);
    if (fd == -1) {
        fail_err(ring_of(head->sn), 0x3e, (uint32_t)errno, err_p, ENOENT,
                 "uuid:%d,failed to open mu shm, errno:%d", (int)head->sn->uuid, errno);
        return nullptr;
    }
    ud_map *map_p = (ud_map *)calloc(1, sizeof(ud_map));
    if (!map_p) {
        close(fd);
        fail_err(ring_of(head->sn), 0x3e, head->sn->uuid, err_p, ENOMEM, "fail to allocate loc_ud_map");
        return nullptr;
    }
    map_p->fd = fd;
    map_p->map_cnt = 1;
    map_p->ver = get32(&head->sn->ud2.obj_ver) - 1; // out of step
    __atomic_store_n(&head->ud2_map, map_p, __ATOMIC_RELEASE);
    return map_p;
}

static int remap_ud(shkv_head *head, const ud_desc *desc_p, ud_map *map_p, int prot, uint32_t *err_p)
{
    uint32_t ver = get32(&desc_p->obj_ver); // before obj_sz: see obj_open.cc
    uint32_t obj_sz = get32(&desc_p->obj_sz);
    if (ver == get32(&map_p->ver))
        return 1;
    if (is_shared_map(head) ? !add_chunks(head, map_p, obj_sz, prot, err_p)
                            : !map_whole(head, &map_p->map[0], &map_p->mapped_sz, map_p->fd, obj_sz, prot, 0x3e,
                                         err_p))
        return 0;
    put32(&map_p->ver, ver);
    return 1;
}

// The check ---------------------------------------------------------------------------------------

// Each record space is filed under its own table, where get_active_db looks for it.
static int remap_locked(shkv_head *head, int obj_t, int prot, uint32_t *err_p)
{
    supernode *sn = head->sn;
    ud_map *map_p = nullptr;
    switch (obj_t) {
    case OBJ_MD1:
        return remap_md(head, &sn->md1, &head->md1, prot, err_p);
    case OBJ_MD2:
        return remap_md(head, &sn->md2, &head->md2, prot, err_p);
    case OBJ_UD1:
        map_p = head->ud1_map;
        return map_p ? remap_ud(head, &sn->ud1, map_p, prot, err_p) : 1;
    default:
        map_p = head->ud2_map ? head->ud2_map : open_ud2(head, err_p);
        return map_p ? remap_ud(head, &sn->ud2, map_p, prot, err_p) : 0;
    }
}

int shkv_remap_mdobj(shkv_head *head, int obj_t, int prot, uint32_t *err_p)
{
    void *ring_p = ring_of(head->sn);
    if (sem_take(&obj_sem) == -1)
        return fail_err(ring_p, 0x39, (uint32_t)errno, err_p, EFAULT, "db shkv semaphore wait failed,errno:%d",
                        errno);
    int result = remap_locked(head, obj_t, prot, err_p);
    if (sem_give(&obj_sem) == -1)
        return fail_err(ring_p, 0x46, (uint32_t)errno, err_p, EFAULT,
                        "uuid:%d,db shkv semaphore post failed,errno:%d", (int)head->sn->uuid, errno);
    return result;
}

// 0 also where a caller's hash function is unknown: the operation goes on, and the space behind the
// table is still brought in step. Intended.
static int remap_table(shkv_head *head, int obj_t, int handle, int prot, void *ring_p)
{
    uint32_t err = 0;
    if (shkv_remap_mdobj(head, obj_t, prot, &err))
        return 0;
    return fail(ring_p, 0x47, (uint32_t)handle, (int)err,
                "check_hdmd_remap,                     can not remap the obj, shkvh:%d", handle);
}

static int remap_space(shkv_head *head, int obj_t, int handle, int prot, void *ring_p)
{
    uint32_t err = 0;
    if (shkv_remap_mdobj(head, obj_t, prot, &err))
        return 0;
    return fail(ring_p, 0x48, (uint32_t)handle, (int)err,
                "check_hdmd_remap,                     can not remap the ud, shkvh:%d", handle);
}

int remap_stale(shkv_head *head, uint32_t flg, int handle, int prot, void *ring_p)
{
    supernode *sn = head->sn;
    int result = 0;
    if ((flg & CF_MD1) && !md_in_step(&sn->md1, &head->md1))
        result = remap_table(head, OBJ_MD1, handle, prot, ring_p);
    if (result == 0 && (flg & CF_MD2) && !md_in_step(&sn->md2, &head->md2))
        result = remap_table(head, OBJ_MD2, handle, prot, ring_p);
    if (result == 0 && (flg & CF_UD1) && !ud_in_step(&sn->ud1, head->ud1_map))
        result = remap_space(head, OBJ_UD1, handle, prot, ring_p);
    if (result == 0 && (flg & CF_UD2) && !ud_in_step(&sn->ud2, head->ud2_map))
        result = remap_space(head, OBJ_UD2, handle, prot, ring_p);
    return result;
}
