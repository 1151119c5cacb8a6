// Moves the records of the old table into the new one, one by one, with a replay of the interim list
// after each.
#pragma once
#include "shkv.h"
#include "reshape/tables.h"

#define MOVER_KEY_ROOM 2048u
#define MOVER_VALUE_ROOM 65000u

// How far the handle of a reshaper has come, in its head_priv. From RESH_MOVED on wr_ksem is held.
enum {
    RESH_MOVING = 0, // the close has to see to what is left
    RESH_MOVED = 1,  // old table and list are empty
    RESH_FAILED = 2, // the new objects are given up
};

struct resh_move_run {
    int handle;
    shkv_head *head;
    resh_tables tables;
    char *key_room, *value_room; // MOVER_*_ROOM bytes
    const char *text;            // what a failure is called, with %s for the store's name
};

// False when this head cannot use both tables.
bool mover_init(resh_move_run *run_p, int handle, shkv_head *head, char *key_room, char *value_room);

// Under wr_ksem: the next record and the list. 0, ENOENT behind the last bucket, else a failure.
int mover_step(resh_move_run *run_p);
// Takes and gives back wr_ksem in turns, so that a writer waits for a few records at most.
int mover_run(resh_move_run *run_p);
// Under wr_ksem: what is left, until the old table is seen empty from end to end and the list is.
// ENOENT when all is moved.
int mover_finish(resh_move_run *run_p);
