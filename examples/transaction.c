/* transaction.c - several changes that others see only when all of them are in.
 *
 * Prints:
 *     before:  alice 100, bob 50
 *     in it:   alice 70, bob 80; another handle reads alice 100, bob 50
 *     abort:   alice 100, bob 50
 *     commit:  alice 70, bob 80 */
#include <shkv.h>
#include <stdio.h>
#include <string.h>

static void put(int store, const char *name, int amount)
{
    shkv_buf key = {(void *)name, (uint32_t)strlen(name)}, value = {&amount, sizeof amount};
    shkv_add(store, &key, &value, 0);
}

static int get(int store, const char *name)
{
    int amount = -1;
    shkv_buf key = {(void *)name, (uint32_t)strlen(name)}, value = {&amount, sizeof amount};
    return shkv_lookup(store, &key, &value) == 0 ? amount : -1;
}

static void move(int store, int amount)
{
    uint32_t expected = 2; /* keys that the transaction will touch; more is no error */
    shkv_txn_start(store, &expected);
    put(store, "alice", get(store, "alice") - amount); /* its writer reads what it has staged */
    put(store, "bob", get(store, "bob") + amount);
}

int main(void)
{
    uint32_t err = 0;
    int store = shkv_create("example_txn", 7, NULL, 0, &err);
    int reader = shkv_open("example_txn", 8, 0, SHKV_AM_READ, &err); /* as another process would */
    if (store == 0 || reader == 0)
        return 1;
    put(store, "alice", 100);
    put(store, "bob", 50);
    printf("before:  alice %d, bob %d\n", get(store, "alice"), get(store, "bob"));

    move(store, 30);
    printf("in it:   alice %d, bob %d; another handle reads alice %d, bob %d\n", get(store, "alice"),
           get(store, "bob"), get(reader, "alice"), get(reader, "bob"));
    shkv_txn_abort(store);
    printf("abort:   alice %d, bob %d\n", get(reader, "alice"), get(reader, "bob"));

    /* The commit is the point of no return: a writer that dies in it has its work finished by the next
     * one that opens the store. Before it, the open transaction passes to that next writer as it is.
     * Readers beside the commit see each key old or new; all or nothing holds for crashes. */
    move(store, 30);
    shkv_txn_commit(store, NULL);
    printf("commit:  alice %d, bob %d\n", get(reader, "alice"), get(reader, "bob"));
    shkv_close(reader);
    return shkv_destroy(store);
}
