// Takes objects of a store away from a process (mappings, descriptors) or from the machine (names).
//
// Nothing here looks into an object, so that the ways out of a failed creation, whose pages may not
// be there, can use it.
#include "shkv_intf/obj_drop.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include "diag/log.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/shm.h"

static void del_locked(shkv_head *head, int obj_t)
{
    md_rec *rec_p = obj_t == OBJ_MD1      ? &head->md1
                    : obj_t == OBJ_MD2    ? &head->md2
                    : obj_t == OBJ_MD_TXN ? &head->md_txn
                                          : nullptr;
    if (!rec_p && obj_t != OBJ_SN)
        return;
    char path[SHKV_PATH_MAX];
    obj_path(path, head->sn->dbname, obj_t);
    if (rec_p) {
        close(rec_p->fd);
        rec_p->fd = 0;
    }
    if (shkv_shm_unlink(path) == -1) {
        LOG("shkv_rm_sn_md_obj, shm_unlink failed,                     errno:%d", errno);
        return;
    }
    void *base_p = rec_p ? (void *)rec_p->base : head->sn;
    size_t map_sz = rec_p ? rec_p->mapped_sz : sn_map_sz();
    if (base_p && map_sz && munmap(base_p, map_sz) == -1)
        LOG("shkv_del_shm_obj, munmap failed,                     errno:%d", errno);
}

void shkv_del_shm_obj(shkv_head *head, int obj_t)
{
    if (sem_take(&obj_sem) == -1) {
        LOG("db shkv semaphore wait failed,errno:%d", errno);
        return;
    }
    del_locked(head, obj_t);
    if (sem_give(&obj_sem) == -1)
        LOG("db shkv semaphore post failed,errno:%d", errno);
}

void release_ud_maps(shkv_head *head, ud_map *map_p, bool shared_map)
{
    for (uint32_t index = 0; index < (shared_map ? UD_MAPS : 1u) && map_p->map[index]; index++) {
        munmap(map_p->map[index], shared_map ? shkv_ud_index_to_map_size(head, index) : map_p->mapped_sz);
        map_p->map[index] = nullptr;
    }
}

void free_ud_map(ud_map **map_pp)
{
    if (*map_pp && (*map_pp)->fd != 0)
        close((*map_pp)->fd);
    free(*map_pp);
    *map_pp = nullptr;
}

void unmap_mds(shkv_head *head)
{
    md_rec *recs[] = {&head->md1, &head->md2, &head->md_txn};
    for (md_rec *rec_p : recs) {
        if (rec_p->base)
            munmap(rec_p->base, rec_p->mapped_sz);
        rec_p->base = nullptr;
    }
}

void close_mds(const shkv_head *head)
{
    const int fds[] = {head->md1.fd, head->md2.fd, head->md_txn.fd};
    for (int fd : fds)
        if (fd != 0)
            close(fd);
}
