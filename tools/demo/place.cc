// The demo's place in shared memory: leaves /dev/shm as it found it.
#include "demo/place.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include "demo/shared.h"
#include "shkv.h"

static bool exists(const char *path)
{
    struct stat st;
    return stat(path, &st) == 0;
}

Place::Place()
    : had_db_dir_(exists(SHKV_DB_DIR)), had_mu_dir_(exists(SHKV_MU_DIR)),
      had_registry_(exists(SHKV_DB_DIR "/" SHKV_REGISTRY_NAME))
{
}

// How many stores the registry lists, itself included; -1 when it cannot be read.
static int listed_stores()
{
    uint32_t err = 0;
    int handle = shkv_open(SHKV_REGISTRY_NAME, UUID_NONE, 0, SHKV_AM_READ | SHKV_AM_ITER, &err), count = 0;
    if (handle <= 0)
        return -1;
    shkv_iter_pos pos;
    int result = shkv_iterate(handle, nullptr, nullptr, nullptr, 1);
    while (result == 0 && (result = shkv_iterate(handle, nullptr, nullptr, &pos, 0)) == 0)
        count++;
    shkv_close(handle);
    return result == ENOENT ? count : -1;
}

// The registry is never destroyed as a store; one that lists itself alone is removed by name.
bool Place::remove_registry()
{
    int count = listed_stores();
    if (count != 1) {
        event("the registry stays: other stores have been made meanwhile");
        return true;
    }
    bool ok = true;
    for (const char *suffix : {"_md1", "_md2", "_md_txn", "_ud1", "_ud2"})
        ok &= unlink((std::string(SHKV_MU_DIR "/" SHKV_REGISTRY_NAME) + suffix).c_str()) == 0;
    return unlink(SHKV_DB_DIR "/" SHKV_REGISTRY_NAME) == 0 && ok;
}

bool Place::restore(const std::string &uri)
{
    bool ok = true;
    uint32_t err = 0;
    int handle = shkv_open(uri.c_str(), UUID_NONE, 0, SHKV_AM_WRITE, &err);
    if (handle > 0)
        ok = shkv_destroy(handle) == 0;
    else
        ok = err == ENOENT;
    if (!ok)
        event("the store {} could not be destroyed", uri);
    if (!had_registry_ && exists(SHKV_DB_DIR "/" SHKV_REGISTRY_NAME) && !remove_registry()) {
        event("the registry could not be removed");
        ok = false;
    }
    if (!had_db_dir_)
        rmdir(SHKV_DB_DIR); // stays when others use it
    if (!had_mu_dir_)
        rmdir(SHKV_MU_DIR);
    return ok;
}
