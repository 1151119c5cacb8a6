/* iterate.c - go over all records, and find out how large one is before there is room for it.
 *
 * Prints:
 *     3 records, 24 bytes of values
 *     a value of 11 bytes needs more than 4 bytes of room: 22, then read with 11: 0 */
#include <errno.h>
#include <shkv.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(void)
{
    static const char *const records[][2] = {{"red", "strawberry"}, {"green", "pea"}, {"blue", "forget-me-n"}};
    uint32_t err = 0;
    int store = shkv_create("example_iterate", 7, NULL, 0, &err);
    if (store == 0)
        return 1;
    for (int i = 0; i < 3; i++) {
        shkv_buf key = {(void *)records[i][0], (uint32_t)strlen(records[i][0])};
        shkv_buf value = {(void *)records[i][1], (uint32_t)strlen(records[i][1])};
        shkv_add(store, &key, &value, 0);
    }

    /* A handle may iterate when it writes or when it was opened with SHKV_AM_READ | SHKV_AM_ITER. The
     * cursor belongs to the handle. Begin with a reset; then one record a call until ENOENT, in the
     * order of the buckets, which is no order to rely on. */
    int cnt = 0, result;
    unsigned bytes = 0;
    shkv_iterate(store, NULL, NULL, NULL, 1);
    for (;;) {
        char key_room[16], value_room[32];
        shkv_buf key = {key_room, sizeof key_room}, value = {value_room, sizeof value_room};
        if ((result = shkv_iterate(store, &key, &value, NULL, 0)) != 0)
            break; /* the lengths are set anew for every call: each call overwrites them */
        cnt++;
        bytes += value.len;
    }
    if (result != ENOENT)
        return 1;
    printf("%d records, %u bytes of values\n", cnt, bytes);

    /* Too small a room: EINVAL, and the length says what is needed. */
    char small[4];
    shkv_buf key = {"blue", 4}, value = {small, sizeof small};
    int first = shkv_lookup(store, &key, &value);
    char *room = malloc(value.len);
    uint32_t needed = value.len;
    value.ptr = room;
    int second = shkv_lookup(store, &key, &value);
    printf("a value of %u bytes needs more than 4 bytes of room: %d, then read with %u: %d\n", value.len, first,
           needed, second);
    free(room);
    return shkv_destroy(store);
}
