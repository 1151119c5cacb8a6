/* takeover.c - a writer is killed in the middle of a transaction; another process takes its place.
 *
 * Prints:
 *     while the writer lives: write open refused, 22
 *     after its death: base is there, staged is not there, a transaction is open
 *     committed by the new writer: base is there, staged is there */
#include <shkv.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static void put(int store, const char *name)
{
    shkv_buf key = {(void *)name, (uint32_t)strlen(name)}, value = {"x", 1};
    shkv_add(store, &key, &value, 0);
}

static const char *state(int store, const char *name)
{
    char room[32];
    shkv_buf key = {(void *)name, (uint32_t)strlen(name)}, value = {room, sizeof room};
    return shkv_lookup(store, &key, &value) == 0 ? "there" : "not there";
}

static void write_and_die(int ready)
{
    uint32_t err = 0;
    int store = shkv_create("example_takeover", 7, NULL, 0, &err);
    put(store, "base");
    shkv_txn_start(store, NULL);
    put(store, "staged");
    if (write(ready, "+", 1) != 1)
        _exit(1);
    pause(); /* it will not come back from here */
}

int main(void)
{
    int ready[2];
    char byte;
    if (pipe(ready) != 0)
        return 1;
    pid_t writer = fork();
    if (writer == 0)
        write_and_die(ready[1]);
    if (read(ready[0], &byte, 1) != 1)
        return 1;
    uint32_t err = 0;
    if (shkv_open("example_takeover", 7, 0, SHKV_AM_WRITE, &err) == 0)
        printf("while the writer lives: write open refused, %u\n", err);
    kill(writer, SIGKILL);
    waitpid(writer, NULL, 0);

    /* Nothing has to be cleaned up: the store is as the dead writer left it, and this open repairs what it
     * was in the middle of. Readers never noticed. */
    int reader = shkv_open("example_takeover", 8, 0, SHKV_AM_READ, &err);
    int store = shkv_open("example_takeover", 7, 0, SHKV_AM_WRITE, &err);
    if (store == 0)
        return 1;
    printf("after its death: base is %s, staged is %s, a transaction is %s\n", state(reader, "base"),
           state(reader, "staged"), shkv_txn_is_active(store) ? "open" : "not open");
    shkv_txn_commit(store, NULL); /* the transaction belongs to the store; abort would do as well */
    printf("committed by the new writer: base is %s, staged is %s\n", state(reader, "base"),
           state(reader, "staged"));
    shkv_close(reader);
    return shkv_destroy(store);
}
