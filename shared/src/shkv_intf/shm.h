// Names and paths of the six objects, and the two calls that open and unlink them.
#pragma once
#include "shkv.h"

// A descriptor (never 0, which means "none" in a head) or -1; 0 or -1. Both set errno.
int shkv_shm_open(const char *path, int oflag, unsigned mode);
int shkv_shm_unlink(const char *path);

// Path of an object of a store. out holds SHKV_PATH_MAX bytes.
void obj_path(char *out, const char *dbname, int obj_t);

// Magic check: complete when, and only when, the two words are there.
bool sn_complete(const supernode *sn);

// The name part of a uri: what follows its first ':', or all of it.
const char *uri_name(const char *uri);

// is_shared_map for a head that has no supernode yet.
static inline bool maps_in_chunks(const supernode *sn, const shkv_head *head)
{
    return (sn->conf_flg & CONF_SHMAP) && !(head->access_mode & SHKV_AM_RESHAPE);
}
