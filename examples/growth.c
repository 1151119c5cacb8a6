/* growth.c - a store that grows as it fills, one that may not, and records of very different sizes.
 *
 * Prints:
 *     planned for 100 records, holds 10000; the reader found 10000
 *     without growth: 12 after 189 records, and the store works on
 *     in a vector store: 1 byte and 65000 bytes */
#include <shkv.h>
#include <stdio.h>

static int fill(int store, uint32_t cnt)
{
    for (uint32_t i = 0; i < cnt; i++) {
        shkv_buf key = {&i, sizeof i}, value = {&i, sizeof i};
        if (shkv_add(store, &key, &value, 0) != 0)
            return (int)i;
    }
    return (int)cnt;
}

int main(void)
{
    uint32_t err = 0;
    shkv_params small = {4, 4, 100, CONF_FIXEDMM, 0};
    int store = shkv_create("example_growth", 7, &small, 0, &err);
    int reader = shkv_open("example_growth", 8, 0, SHKV_AM_READ, &err);
    int held = fill(store, 10000), found = 0;
    for (int i = 0; i < held; i++) { /* the reader maps the longer objects by itself, in its lookups */
        int got;
        shkv_buf key = {&i, sizeof i}, value = {&got, sizeof got};
        found += shkv_lookup(reader, &key, &value) == 0 && got == i;
    }
    printf("planned for 100 records, holds %d; the reader found %d\n", held, found);
    shkv_close(reader);
    shkv_destroy(store);

    /* Growth can be switched off. A full store then answers ENOMEM (12) and stays as it was. The third
     * field bounds what one add may spend on the rebuild of the table, in microseconds (0: no bound). */
    store = shkv_create("example_growth", 7, &small, 0, &err);
    shkv_opts fixed_size = {0, 0, 0};
    shkv_db_set_opts(store, 1, &fixed_size);
    held = fill(store, 10000);
    shkv_buf key = {&held, sizeof held}, value = {&held, sizeof held};
    printf("without growth: %d after %d records, and the store works on\n", shkv_add(store, &key, &value, 0),
           held);
    shkv_destroy(store);

    /* A vector store keeps each record in as many units of 128 bytes as it needs: values to 65,000. */
    shkv_params vector = {16, 200, 1000, CONF_VECTORMM, 0};
    static char in[65000], out[65000];
    store = shkv_create("example_growth", 7, &vector, 0, &err);
    shkv_buf one = {"one", 3}, all = {"all", 3}, byte = {in, 1}, large = {in, sizeof in};
    if (shkv_add(store, &one, &byte, 0) != 0 || shkv_add(store, &all, &large, 0) != 0)
        return 1;
    byte = large = (shkv_buf){out, sizeof out};
    shkv_lookup(store, &one, &byte);
    shkv_lookup(store, &all, &large);
    printf("in a vector store: %u byte and %u bytes\n", byte.len, large.len);
    return shkv_destroy(store);
}
