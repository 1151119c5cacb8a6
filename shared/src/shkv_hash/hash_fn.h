// The eleven built-in hash functions and shkv_hash_matrix; exported, declared in shkv.h.
#pragma once
#include "shkv.h"

#define HASH_FN_CNT 11u
#define HASH_FN_DEFAULT 7u // dekhash
