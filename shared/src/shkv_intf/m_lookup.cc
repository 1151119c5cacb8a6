// shkv_m_lookup: several keys in one call, each with the result that shkv_lookup would give it.
#include "shkv_intf/m_lookup.h"

#include <errno.h>
#include "diag/fail.h"

#define M_LOOKUP_MAX 32u

int shkv_m_lookup(int handle, const shkv_buf *keys, shkv_buf *vals, int *results, uint16_t m_cnt)
{
    if (m_cnt == 0 || m_cnt > M_LOOKUP_MAX || !keys || !vals || !results)
        return fail(nullptr, 0, 0, EINVAL, "shkv_m_lookup, has bad buffer, shkvh:%d", handle);
    int ret = 0;
    for (uint16_t i = 0; i < m_cnt; i++) {
        results[i] = shkv_lookup(handle, &keys[i], &vals[i]);
        if (ret == 0 && results[i] != 0 && results[i] != ENOENT)
            ret = results[i];
    }
    return ret;
}
