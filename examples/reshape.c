/* reshape.c - a store that is in use moves to a smaller record space, a new table and another hash.
 *
 * It is how a store shrinks again. Another process does it, next to the writer and the readers, who go
 * on with the handles that they have; it takes the time that moving every record takes, and a second.
 *
 * Prints:
 *     20000 records came and 19900 went: the space is large
 *     reshaped: the space is small, 100 of 100 found */
#include <shkv.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

static int found(int store)
{
    int cnt = 0;
    for (uint32_t i = 0; i < 100; i++) {
        uint32_t got;
        shkv_buf key = {&i, sizeof i}, value = {&got, sizeof got};
        cnt += shkv_lookup(store, &key, &value) == 0 && got == i;
    }
    return cnt;
}

/* In a process of its own, which was there before the store was opened: handles do not survive a fork. */
static pid_t start_reshaper(int go)
{
    pid_t pid = fork();
    char byte;
    if (pid != 0)
        return pid;
    if (read(go, &byte, 1) != 1)
        _exit(1);
    /* Room for 1,000 records, 509 buckets, and selector 7, the hash of index 6 (djbhash). */
    uint32_t ud_sz = GET_USER_SIZE(1000, 4, 4), md_sz = 509 * sizeof(mdn);
    _exit(shkv_reshaping("example_reshape", md_sz, ud_sz, 0, 7));
}

int main(void)
{
    int go[2], status = 1;
    if (pipe(go) != 0)
        return 1;
    pid_t reshaper = start_reshaper(go[0]);
    uint32_t err = 0;
    shkv_params params = {4, 4, 100, CONF_FIXEDMM, 0};
    int store = shkv_create("example_reshape", 7, &params, 0, &err);
    if (store == 0)
        return 1;
    for (uint32_t i = 0; i < 20000; i++) {
        shkv_buf key = {&i, sizeof i}, value = {&i, sizeof i};
        shkv_add(store, &key, &value, 0);
    }
    for (uint32_t i = 100; i < 20000; i++) {
        shkv_buf key = {&i, sizeof i};
        shkv_delete(store, &key);
    }
    uint32_t large = shkv_get_db_size("example_reshape");
    printf("20000 records came and 19900 went: the space is %s\n", large > 500000 ? "large" : "small");

    if (write(go[1], "+", 1) != 1)
        return 1;
    while (waitpid(reshaper, &status, WNOHANG) == 0)
        if (found(store) != 100) /* meanwhile every key that is there is found */
            return 1;
    if (status != 0)
        return 1;
    printf("reshaped: the space is %s, %d of 100 found\n",
           shkv_get_db_size("example_reshape") < large / 10 ? "small" : "large", found(store));
    return shkv_destroy(store);
}
