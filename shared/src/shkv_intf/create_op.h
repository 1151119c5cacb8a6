// One creation: what its steps share, and the steps that make and take back objects.
#pragma once
#include "shkv.h"

struct create_op {
    const char *uri;     // the name behind the first ':'
    uint32_t uuid;
    shkv_params conf;    // the caller's, or the defaults
    bool has_conf;
    uint64_t hashfn;
    uint32_t *errptr;
    void *ring_p;        // the registry's; null for the registry itself
    uint32_t ud_sz;      // what the store counts for
    char dbname[SHKV_NAME_MAX + 1];
    supernode *sn;
    shkv_head head;      // becomes the slot
    int handle;          // 0 until there is one
    bool faulted;        // no memory behind a page of an object
};

// Each logs its own failure and sets *errptr. 1, or 0.
int create_dir(create_op *op_p, const char *path, uint32_t event, const char *text)
    __attribute__((format(printf, 4, 0)));
int create_sn(create_op *op_p);
int create_tables(create_op *op_p);
int create_spaces(create_op *op_p);

// Takes everything back: names, mappings, descriptors; after a fault the supernode alone. Touches no
// page of the store. Returns 0.
int create_undo(create_op *op_p);
