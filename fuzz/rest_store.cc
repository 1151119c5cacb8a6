#include "rest_store.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "check/store_check.h"
#include "support/main.h"

void save_supernode(rest_store *rest_p, supernode *sn)
{
    char *base = (char *)sn;
    size_t from = offsetof(supernode, comm_flg), txn_at = offsetof(supernode, md_txn);
    size_t behind = txn_at + sizeof(md_desc);
    rest_p->save(base + from, txn_at - from);
    rest_p->save(base + behind, sizeof *sn - behind);
}

void enter_private_place()
{
    // A damaged size asks for gigabytes: there are none.
    if (!private_shm() || !remount_shm("256m")) {
        fprintf(stderr, "cannot make a mount namespace with a /dev/shm of its own\n");
        exit(1);
    }
    int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    fflush(stdout);
    dup2(null_fd, 1);
    close(null_fd);
}

void fuzz_failed(const char *file, int line, const std::string &why)
{
    fprintf(stderr, "%s:%d: %s\n", file, line, why.c_str());
    abort();
}

std::string image_faults(const char *dbname, bool strict)
{
    store_image image;
    if (!load_store(dbname, &image))
        return "no such store";
    std::string text;
    for (const std::string &fault : check_image(image, strict).faults)
        text += fault + "\n";
    return text;
}
