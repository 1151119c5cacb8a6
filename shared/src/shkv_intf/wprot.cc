// Lifting and restoring the write protection of a mapped record space.
#include "shkv_intf/wprot.h"

#include <sys/mman.h>

#include "shkv_intf/addr.h"

// mapped_sz equals the object's size whenever a mapping is in step. Going by what is mapped keeps
// the call inside the mapping in the moments when it is not.
static int protect(shkv_head *head, const ud_map *ud, int prot)
{
    if (!is_shared_map(head))
        return mprotect(ud->map[0], ud->mapped_sz, prot);
    for (uint32_t i = 0; i < ud->map_cnt && i < UD_MAPS; i++)
        if (mprotect(ud->map[i], shkv_ud_index_to_map_size(head, i), prot) != 0)
            return -1;
    return 0;
}

static void remember(const shkv_head *head, bool closed)
{
    int handle = handle_of(head);
    if (handle)
        head_privs[handle - 1].wprot = closed;
}

int wprot_lift(shkv_head *head, const ud_map *ud)
{
    if (protect(head, ud, PROT_READ | PROT_WRITE) != 0)
        return -1;
    remember(head, false);
    return 0;
}

int wprot_restore(shkv_head *head, const ud_map *ud)
{
    // Noted first: pieces may be closed already when a later one fails.
    remember(head, true);
    return protect(head, ud, PROT_READ);
}
