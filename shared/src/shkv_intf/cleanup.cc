// Destroys all stores of one VDC.
//
// Records leave the registry under the iteration. That is safe: the cursor has moved on before a
// record is unlinked, and an unlinked record keeps its links. The registry handle stays open.
#include "shkv_intf/cleanup.h"

#include <errno.h>
#include <string.h>

#include "diag/fail.h"
#include "diag/log.h"

// The open refuses while the store's writer lives, and the clean-up ends there: the services of a
// VDC have to be gone first.
static int destroy_named(const char *name)
{
    if (strcmp(name, SHKV_REGISTRY_NAME) == 0) {
        LOG("skip shkv register db");
        return 0;
    }
    LOG("%s: shkv_destroy %s", "shkv_vdc_cleanup", name);
    uint32_t err = 0;
    int handle = shkv_open(name, UUID_INTERNAL, 0, SHKV_AM_WRITE | SHKV_AM_READ | SHKV_AM_ITER, &err);
    if (handle == 0)
        return fail(nullptr, 0, 0, (int)err, "%s,individual SHKV open failed,errcode=%s", "shkv_vdc_cleanup",
                    strerror((int)err));
    int result = shkv_destroy(handle);
    if (result != 0)
        LOG("shkv_destroy failed %s", name);
    return result;
}

int shkv_vdc_cleanup(uint32_t vdc_id)
{
    uint32_t err = 0;
    int reg = shkv_open(SHKV_REGISTRY_NAME, UUID_INTERNAL, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
    if (reg == 0)
        return fail(nullptr, 0, 0, (int)err, "%s,shkv registry open failed,errcode=%d", "shkv_vdc_cleanup",
                    err);
    int result = shkv_iterate(reg, nullptr, nullptr, nullptr, 1);
    while (result == 0) {
        char name[SHKV_NAME_MAX + 1];
        reg_rec rec;
        shkv_buf key = {name, SHKV_NAME_MAX}, val = {&rec, sizeof rec};
        shkv_iter_pos pos;
        result = shkv_iterate(reg, &key, &val, &pos, 0);
        if (result != 0)
            break; // ENOENT: all were visited
        name[key.len] = '\0';
        if (rec.vdc_id == vdc_id && (result = destroy_named(name)) != 0)
            return result;
    }
    // The line is written for the normal end, too.
    return fail(nullptr, 0, 0, result, "%s,shkv_iterate failed,errcode=%d", "shkv_vdc_cleanup", result);
}
