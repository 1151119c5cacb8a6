/* readers.c - two processes read what a third replaces all the time, without a lock.
 *
 * The value of a key is one number written twice. A reader that ever saw half of an old value and half
 * of a new one would find two numbers that differ; a reader that ever missed the key would be told so.
 *
 * Prints:
 *     reader: 0 torn, 0 missed
 *     reader: 0 torn, 0 missed
 *     100000 writes beside 2 readers */
#include <shkv.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

static int read_on(void)
{
    uint32_t err = 0;
    /* Handles do not survive a fork: every process opens for itself. A read open changes nothing. */
    int store = shkv_open("example_readers", 8, 0, SHKV_AM_READ, &err);
    int torn = 0, missed = store == 0;
    uint64_t pair[2] = {0, 0};
    while (store != 0 && pair[0] != 100000) { /* the writer's last value ends it */
        shkv_buf key = {"answer", 6}, value = {pair, sizeof pair};
        if (shkv_lookup(store, &key, &value) != 0)
            missed++;
        else if (pair[0] != pair[1])
            torn++;
    }
    printf("reader: %d torn, %d missed\n", torn, missed);
    return torn + missed;
}

int main(void)
{
    uint32_t err = 0;
    int store = shkv_create("example_readers", 7, NULL, 0, &err); /* null: keys to 16 bytes, values to 32 */
    if (store == 0)
        return 1;
    uint64_t pair[2] = {0, 0};
    shkv_buf key = {"answer", 6}, value = {pair, sizeof pair};
    shkv_add(store, &key, &value, 0);
    fflush(stdout);
    for (int i = 0; i < 2; i++)
        if (fork() == 0)
            return read_on();

    for (uint64_t i = 1; i <= 100000; i++) {
        pair[0] = pair[1] = i;
        shkv_add(store, &key, &value, 0); /* readers have the old record or the new one, each whole */
    }
    int status = 0, failed = 0;
    while (wait(&status) > 0)
        failed |= status;
    printf("100000 writes beside 2 readers\n");
    return shkv_destroy(store) || failed;
}
