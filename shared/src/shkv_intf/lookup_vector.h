// The quick look into a store of variable records.
#pragma once
#include "shkv_intf/quick.h"

// Whether the view of a head, in force or not, is that of such a store.
QUICK_INLINE bool quick_vector(uint32_t slot)
{
    return UNLIKELY(__atomic_load_n(&head_privs[slot].view_p, __ATOMIC_ACQUIRE)->vector);
}

// 0, ENOENT, or QUICK_NO.
int lookup_vector(int handle, const shkv_buf *key, shkv_buf *value) __attribute__((noinline));
