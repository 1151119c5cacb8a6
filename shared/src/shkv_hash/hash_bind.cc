// Which hash function a table was made with, and whether the one that an opener names is it.
#include "shkv_hash/hash_bind.h"

#include <errno.h>

#include "diag/fail.h"
#include "shkv_hash/hash_fn.h"

// A built-in that the opener names is not compared with the one on record: it may hash differently
// from the store, and nothing stops it. Intended. A user_hash of 0 fits every function.
int set_hdmd_hash(uint64_t fn_arg, uint32_t user_hash, uint16_t hashfn, shkv_hash_fn *fn_out, const char *name,
                  uint32_t *err_p)
{
    if (fn_arg == 0) {
        if (hashfn >= HASH_FN_CNT)
            return fail_err(nullptr, 0, 0, err_p, EINVAL, "not matched hash function:%s(hashfn: %d)", name, hashfn);
        *fn_out = shkv_hash_matrix[hashfn];
        return 1;
    }
    if (fn_arg <= HASH_FN_CNT) {
        *fn_out = shkv_hash_matrix[fn_arg - 1];
        return 1;
    }
    shkv_hash_fn fn = (shkv_hash_fn)fn_arg;
    uint32_t got = fn(SHKV_HASH_TEST, SHKV_HASH_TEST_LEN);
    if (user_hash && got != user_hash)
        return fail_err(nullptr, 0, 0, err_p, EINVAL, "not matched hash function:%s(db_hashfn:%p)", name,
                        (void *)fn_arg);
    *fn_out = fn;
    return 1;
}
