/* A program of somebody else's: makes a store, reads it back, removes it. */
#include <shkv.h>
#include <stdio.h>

int main(void)
{
    uint32_t err = 0;
    int store = shkv_create("consumer", 0, NULL, 0, &err);
    char room[8];
    shkv_buf key = {"key", 3}, value = {"value", 5}, found = {room, sizeof room};
    if (store == 0 || shkv_add(store, &key, &value, 0) != 0 || shkv_lookup(store, &key, &found) != 0)
        return 1;
    printf("C: %.*s\n", (int)found.len, room);
    return shkv_destroy(store);
}
