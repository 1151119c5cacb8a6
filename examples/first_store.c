/* first_store.c - make a store, put records in, find them, take one out, remove the store.
 *
 *     cc first_store.c -lovo_shkv && ./a.out
 *
 * Prints:
 *     apple: 120
 *     apple: 95
 *     cherry: no such key
 *     apple after its delete: no such key */
#include <errno.h>
#include <shkv.h>
#include <stdio.h>
#include <string.h>

static shkv_buf text(const char *s)
{
    shkv_buf buf = {(void *)s, (uint32_t)strlen(s)}; /* bytes and a length: no NUL is stored */
    return buf;
}

static void print(int store, const char *name, const char *label)
{
    char room[64];
    shkv_buf key = text(name), value = {room, sizeof room}; /* len in: the room; out: what was found */
    int result = shkv_lookup(store, &key, &value);
    if (result == 0)
        printf("%s: %.*s\n", label, (int)value.len, room);
    else
        printf("%s: %s\n", label, result == ENOENT ? "no such key" : strerror(result));
}

int main(void)
{
    /* Keys to 24 bytes, values to 64, room for about 1,000 records; it grows when that is not enough. The
     * uuid 7 is the service whose memory budget pays for it. */
    shkv_params params = {24, 64, 1000, CONF_FIXEDMM, 0};
    uint32_t err = 0;
    int store = shkv_create("example_first", 7, &params, 0, &err);
    if (store == 0) {
        fprintf(stderr, "no store: %s\n", strerror((int)err)); /* EEXIST: somebody has made it already */
        return 1;
    }
    shkv_buf key = text("apple"), dear = text("120"), cheap = text("95");
    shkv_add(store, &key, &dear, 0);
    print(store, "apple", "apple");
    shkv_add(store, &key, &cheap, 0); /* the same key: the record is replaced */
    print(store, "apple", "apple");
    print(store, "cherry", "cherry");
    shkv_delete(store, &key);
    print(store, "apple", "apple after its delete");

    /* A store stays when its processes are gone: shkv_close(store) would leave it for others to open.
     * Destroy removes it for everyone, and gives the handle back. */
    return shkv_destroy(store);
}
