/* batch.c - up to 32 adds or deletes in one call, all of them or none.
 *
 * Prints:
 *     plain batch with a bad entry: 22, 2 of 4 stored
 *     key not found
 *     key not found
 *     atomic batch with a bad entry: 22, 0 of 4 stored
 *     atomic batch: 0, 4 of 4 stored
 *     deletes: 0, 0 of 4 stored */
#include <shkv.h>
#include <stdio.h>

enum { ADD = 0, ATOMIC = 0x01 };

static int stored(int store, const shkv_buf *keys)
{
    int cnt = 0;
    for (int i = 0; i < 4; i++) {
        char room[32];
        shkv_buf value = {room, sizeof room};
        cnt += shkv_lookup(store, &keys[i], &value) == 0;
    }
    return cnt;
}

int main(void)
{
    uint32_t err = 0;
    int store = shkv_create("example_batch", 7, NULL, 0, &err);
    if (store == 0)
        return 1;
    shkv_buf keys[] = {{"spring", 6}, {"summer", 6}, {"autumn", 6}, {"winter", 6}};
    shkv_buf good[] = {{"march", 5}, {"june", 4}, {"september", 9}, {"december", 8}};
    shkv_buf bad[] = {good[0], good[1], {"a value of more than 32 bytes, the limit", 40}, good[3]};

    /* A plain batch stops at the first failure; what came before it stays. */
    int result = shkv_m_add(store, keys, bad, 4, ADD);
    printf("plain batch with a bad entry: %d, %d of 4 stored\n", result, stored(store, keys));
    shkv_m_delete(store, keys, 2, ADD);

    /* An atomic one leaves nothing behind, also when its process dies in the middle: the next write open
     * undoes it. It costs a small store of its own, the log, and holds up to 31 different keys. The undo
     * deletes all four; "key not found" is what the library prints for a key that was not there. */
    result = shkv_m_add(store, keys, bad, 4, ATOMIC);
    printf("atomic batch with a bad entry: %d, %d of 4 stored\n", result, stored(store, keys));
    result = shkv_m_add(store, keys, good, 4, ATOMIC);
    printf("atomic batch: %d, %d of 4 stored\n", result, stored(store, keys));
    result = shkv_m_delete(store, keys, 4, ATOMIC);
    printf("deletes: %d, %d of 4 stored\n", result, stored(store, keys));
    return shkv_destroy(store);
}
