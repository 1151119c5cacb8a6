// The write protection of a record space: a store with SN_WPROT keeps this process's mapping of it
// read-only between two writes, so that a stray pointer of the service cannot reach a record.
//
// head_priv.wprot remembers that this handle's own mapping is closed. Whoever stores into a record
// space asks by it, and not by SN_WPROT alone: the flag is the store's, and another process may
// clear it while our mapping is still read-only.
#pragma once
#include "shkv.h"
#include "shkv_intf/head.h"
#include "shkv_intf/word.h"

// 0, or -1 with errno. Every piece of the mapping, nothing beyond it.
int wprot_lift(shkv_head *head, const ud_map *ud);
int wprot_restore(shkv_head *head, const ud_map *ud);

// This process's own mapping is read-only now.
static inline bool wprot_closed(const shkv_head *head)
{
    int handle = handle_of(head);
    return handle && head_privs[handle - 1].wprot;
}

// The store asks that its record space be closed between writes.
static inline bool wprot_asked(const shkv_head *head)
{
    return get32(&head->sn->sn_flg) & SN_WPROT;
}
