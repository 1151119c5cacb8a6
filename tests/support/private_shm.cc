#include "support/main.h"

#include <sched.h>
#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

bool remount_shm(const char *size)
{
    char opts[64];
    snprintf(opts, sizeof opts, "size=%s,mode=1777", size);
    return mount("tmpfs", "/dev/shm", "tmpfs", 0, opts) == 0;
}

bool private_shm()
{
    if (unshare(CLONE_NEWNS) != 0) {
        unsigned uid = getuid(), gid = getgid();
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        const struct { const char *path; unsigned id; } maps[] = {
            {"/proc/self/setgroups", ~0u}, {"/proc/self/uid_map", uid}, {"/proc/self/gid_map", gid}};
        for (const auto &map : maps) {
            FILE *out = fopen(map.path, "w");
            if (!out)
                return false;
            map.id == ~0u ? fprintf(out, "deny") : fprintf(out, "0 %u 1", map.id);
            fclose(out);
        }
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && remount_shm("2g");
}

// The library's handler must see SIGBUS, not the sanitizer's.
extern "C" const char *__asan_default_options()
{
    return "handle_sigbus=0:detect_leaks=0:allocator_may_return_null=1";
}
