// Finishes the growth of a record space that a writer died in.
//
// Growth makes the object longer, raises ud_end in the sbm, then stores obj_sz and obj_ver. A writer
// that dies in between leaves a header that promises more than openers map. The next writer brings
// the descriptor up to the object's length before it uses the space, in the same order:
//   1. obj_sz   the length of the object, which growth has set
//   2. obj_ver  one more: who sees it sees the size
// A writer that dies between these two leaves readers that have no reason to remap; so whoever
// takes the place of a dead writer raises the version once, before it maps anything.
#include "shkv_intf/ud_recover.h"

#include <setjmp.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "shkv_intf/obj_remap.h"
#include "shkv_intf/sizing.h"
#include "shkv_intf/word.h"

// What the header promises; 0 when it is no header or its page cannot be had.
static uint32_t promised_end(const ud_map *map_p)
{
    const sbm *sbm_p = (const sbm *)map_p->map[0];
    if (!sbm_p || map_p->mapped_sz < sizeof(sbm))
        return 0;
    if (sigsetjmp(sigbus_jmp, 0))
        return 0;
    return sbm_p->magichead != 0 && sbm_p->magichead == ~sbm_p->magictail ? get32(&sbm_p->ud_end) : 0;
}

void raise_version(supernode *sn)
{
    ud_desc *desc_p = get32(&sn->comm_flg) & CF_UD1 ? &sn->ud1 : &sn->ud2;
    // Publish. The size stands already. Readers remap, to the same size or to the one they missed.
    put32(&desc_p->obj_ver, get32(&desc_p->obj_ver) + 1);
}

// A writer that died right behind ud_end has left the reserve where it was: without this the space
// would be there and count as full.
static void finish_header(sbm *sbm_p)
{
    int32_t full = (int32_t)(sbm_p->ud_end - GROWN_RESERVE * sbm_p->dn_sz);
    if (full > sbm_p->ud_full)
        put32((uint32_t *)&sbm_p->ud_full, (uint32_t)full);
}

int recover_growth(shkv_head *head, supernode *sn, uint32_t flg, uint32_t *err_p)
{
    bool is_ud1 = flg & CF_UD1;
    ud_desc *desc_p = is_ud1 ? &sn->ud1 : &sn->ud2;
    ud_map *map_p = is_ud1 ? head->ud1_map : head->ud2_map;
    uint32_t end = promised_end(map_p);
    struct stat st;
    if (end <= get32(&desc_p->obj_sz) || fstat(map_p->fd, &st) == -1 || (uint64_t)st.st_size < end ||
        (uint64_t)st.st_size > UINT32_MAX)
        return 1;
    finish_header((sbm *)map_p->map[0]);
    put32(&desc_p->obj_sz, (uint32_t)st.st_size);
    // Publish. Object and size are there; readers remap by this. Pairs with get32 in remap_ud.
    put32(&desc_p->obj_ver, get32(&desc_p->obj_ver) + 1);
    head->sn = sn;
    head->access_mode |= SHKV_AM_UD_GREW; // close tells the registry
    return shkv_remap_mdobj(head, is_ud1 ? OBJ_UD1 : OBJ_UD2, PROT_READ | PROT_WRITE, err_p);
}
