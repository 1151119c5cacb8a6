/* group.c - up to 32 lookups in one call: their cache misses are overlapped.
 *
 * Worth its while when the keys of a request are known together and the store is larger than the
 * processor's caches. The results are those of single lookups, key by key.
 *
 * Prints:
 *     16 asked, 12 found, result 0
 *     key 3 is 9, key 13 is unknown */
#include <errno.h>
#include <shkv.h>
#include <stdio.h>

enum { GROUP = 16, STORED = 12 };

int main(void)
{
    uint32_t err = 0;
    shkv_params params = {4, 8, 1000, CONF_FIXEDMM, 0};
    int store = shkv_create("example_group", 7, &params, 0, &err);
    if (store == 0)
        return 1;
    for (uint32_t i = 0; i < STORED; i++) {
        uint64_t square = (uint64_t)i * i;
        shkv_buf key = {&i, sizeof i}, value = {&square, sizeof square};
        shkv_add(store, &key, &value, 0);
    }

    uint32_t names[GROUP];
    uint64_t squares[GROUP];
    shkv_buf keys[GROUP], values[GROUP];
    int results[GROUP], found = 0;
    for (uint32_t i = 0; i < GROUP; i++) {
        names[i] = i;
        keys[i] = (shkv_buf){&names[i], sizeof names[i]};
        values[i] = (shkv_buf){&squares[i], sizeof squares[i]};
    }
    /* 0 when each key was found or is not there; else the first other result. */
    int result = shkv_m_lookup(store, keys, values, results, GROUP);
    for (int i = 0; i < GROUP; i++)
        found += results[i] == 0;
    printf("%d asked, %d found, result %d\n", GROUP, found, result);
    printf("key 3 is %llu, key 13 is %s\n", (unsigned long long)squares[3],
           results[13] == ENOENT ? "unknown" : "there");
    return shkv_destroy(store);
}
