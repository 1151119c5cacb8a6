// shkv_open: which of the three ways an access mode and a service lead to.
#include "shkv_intf/open.h"

#include <errno.h>

#include "diag/fail.h"
#include "shkv_intf/open_read.h"
#include "shkv_intf/open_write.h"

static int refuse_debug(uint32_t uuid, uint32_t *errptr)
{
    return fail_err(nullptr, 0, 0, errptr, EINVAL,
                    "uuid:%d, the DBG access mode is                     not allowed", (int)uuid);
}

int shkv_open(const char *uri, uint32_t uuid, uint64_t hashfn, uint32_t access_mode, uint32_t *errptr)
{
    if (!errptr)
        return fail(nullptr, 0, 0, 0, "uuid:%d, errptr is empty,                     internal error!",
                    (int)uuid);
    *errptr = 0;
    if (!uri)
        return fail_err(nullptr, 0, 0, errptr, EINVAL, "uuid:%d, the uri is NULL", (int)uuid);
    char dbname[SHKV_NAME_MAX + 1];
    shkv_uri2dbname(uri, dbname, SHKV_NAME_MAX); // a longer name is cut here, not refused

    uint32_t head_mode = SHKV_AM_WRITE;
    if (uuid == UUID_RESHAPE1 || uuid == UUID_RESHAPE2) {
        if (access_mode & SHKV_AM_DBG)
            return refuse_debug(uuid, errptr);
        if (access_mode & SHKV_AM_RESHAPE)
            return shkv_open_reshaping(dbname, uuid, hashfn, nullptr, access_mode, errptr);
    } else if (access_mode & SHKV_AM_RESHAPE) {
        return fail_err(nullptr, 0, 0, errptr, EINVAL,
                        "uuid:%d, the access mode is                     wrong:%d",
                        (int)uuid, (int)access_mode);
    } else if (access_mode & SHKV_AM_DBG) {
        if (uuid != UUID_REGISTRY && uuid != UUID_DEBUG)
            return refuse_debug(uuid, errptr);
        head_mode |= SHKV_AM_DBG;
    }

    if (access_mode & (SHKV_AM_WRITE | SHKV_AM_DBG | SHKV_AM_WPROT))
        return shkv_open_write(dbname, uuid, hashfn, access_mode, head_mode, errptr);
    if (access_mode & (SHKV_AM_READ | SHKV_AM_ITER)) {
        head_mode = SHKV_AM_READ | (access_mode & SHKV_AM_ITER);
        return shkv_open_read(dbname, uuid, hashfn, access_mode, head_mode, errptr);
    }
    return fail_err(nullptr, 0, 0, errptr, EINVAL, "uuid:%d, the access mode is wrong:%d", (int)uuid,
                    (int)access_mode);
}
