// Names and paths of the six objects of a store, and the calls that open and unlink them.
//
// The library does not link the real-time library: each of the two calls loads it by hand, once.
// Today's C library takes a name with one slash only, so a name inside a directory, which all of
// ours are, comes back with EINVAL (from an unlink with ENOENT); then the object is opened or
// unlinked as the file that it is.
#include "shkv_intf/shm.h"

#include <assert.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "shkv_intf/word.h"

typedef int (*shm_open_fn)(const char *path, int oflag, mode_t mode);
typedef int (*shm_unlink_fn)(const char *path);

// True when the C library has refused a name for its second slash; out gets the file's path.
static bool as_file(const char *path, int result, char *out, size_t out_sz)
{
    if (result != -1 || (errno != EINVAL && errno != ENOENT) || path[0] != '/' || !strchr(path + 1, '/'))
        return false;
    int len = snprintf(out, out_sz, "/dev/shm%s", path);
    return len > 0 && (size_t)len < out_sz;
}

// A head reads descriptor 0 as "none": one that comes out so, in a process with its standard
// input closed, is moved up.
static int above_zero(int fd)
{
    if (fd != 0)
        return fd;
    fd = fcntl(0, F_DUPFD_CLOEXEC, 1);
    int err = errno;
    close(0);
    errno = err;
    return fd;
}

int shkv_shm_open(const char *path, int oflag, unsigned mode)
{
    static shm_open_fn cached;
    shm_open_fn func = __atomic_load_n(&cached, __ATOMIC_RELAXED);
    if (!func) {
        void *lib_p = dlopen("librt.so.1", RTLD_LAZY);
        if (!lib_p) {
            errno = ENOSYS;
            return -1;
        }
        func = (shm_open_fn)dlsym(lib_p, "shm_open");
        assert(func != NULL);
        dlclose(lib_p);
        __atomic_store_n(&cached, func, __ATOMIC_RELAXED);
    }
    char file[SHKV_PATH_MAX + sizeof "/dev/shm"];
    int fd = func(path, oflag, (mode_t)mode);
    if (as_file(path, fd, file, sizeof file))
        fd = open(file, oflag | O_CLOEXEC | O_NOFOLLOW, (mode_t)mode);
    return above_zero(fd);
}

int shkv_shm_unlink(const char *path)
{
    static shm_unlink_fn cached;
    shm_unlink_fn func = __atomic_load_n(&cached, __ATOMIC_RELAXED);
    if (!func) {
        void *lib_p = dlopen("librt.so.1", RTLD_LAZY);
        if (!lib_p) {
            errno = ENOSYS;
            return -1;
        }
        func = (shm_unlink_fn)dlsym(lib_p, "shm_unlink");
        assert(func != NULL);
        dlclose(lib_p);
        __atomic_store_n(&cached, func, __ATOMIC_RELAXED);
    }
    char file[SHKV_PATH_MAX + sizeof "/dev/shm"];
    int result = func(path);
    if (as_file(path, result, file, sizeof file))
        result = unlink(file);
    return result;
}

void obj_path(char *out, const char *dbname, int obj_t)
{
    static const char *const formats[] = {
        nullptr, "%s%s_md1", "%s%s_md2", "%s%s_ud1", "%s%s_ud2", "%s%s", "%s%s_md_txn"};
    snprintf(out, SHKV_PATH_MAX, formats[obj_t], obj_t == OBJ_SN ? SHKV_DB_PREFIX : SHKV_MU_PREFIX, dbname);
}

bool sn_complete(const supernode *sn)
{
    uint32_t head = get32(&sn->magichead);
    return head != 0 && (head ^ get32(&sn->magictail)) == 0xffffffffu;
}

const char *uri_name(const char *uri)
{
    const char *colon = strchr(uri, ':');
    return colon ? colon + 1 : uri;
}
