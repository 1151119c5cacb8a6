#include "support/main.h"

#include <fstream>
#include <sched.h>
#include <stdio.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

bool remount_shm(const char *size)
{
    std::string opts = std::string("mode=1777,size=") + size;
    return mount("tmpfs", "/dev/shm", "tmpfs", 0, opts.c_str()) == 0;
}

// One who is not root becomes it in a user namespace, as nobody but himself.
static bool new_namespaces()
{
    std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
    std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
    return true;
}

bool private_shm()
{
    if ((unshare(CLONE_NEWNS) == 0 || new_namespaces()) &&
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && remount_shm("2g"))
        return true;
    fprintf(stderr, "cannot make a mount namespace with a /dev/shm of its own\n");
    return false;
}

// The library's handler must see SIGBUS, not the sanitizer's.
extern "C" const char *__asan_default_options()
{
    return "handle_sigbus=0:detect_leaks=0:allocator_may_return_null=1";
}
