// Names and paths of the six objects, and the two calls that open and unlink them.
#pragma once
#include "shkv.h"

int shkv_shm_open(const char *path, int oflag, unsigned mode);
int shkv_shm_unlink(const char *path);

// Path of an object of a store. out holds SHKV_PATH_MAX bytes.
void obj_path(char *out, const char *dbname, int obj_t);

// Magic check: complete when, and only when, the two words are there.
bool sn_complete(const supernode *sn);

// Length of a mapping's name part, after the first ':' of a uri, or all of it.
const char *uri_name(const char *uri);
