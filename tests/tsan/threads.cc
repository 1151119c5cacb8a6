// Threads of one process under the thread checker: those of the crowd's writer and readers, by a handle that
// some of them share and by others, while the store grows. What the checker may report is listed, each with its
// reason, in suppressions.txt.
//
//     tsan_threads SECONDS
#include "procs/crowd.h"

int main(int argc, char **argv)
{
    unsigned seconds = argc > 1 ? (unsigned)atoi(argv[1]) : 2;
    unsigned long lookups = 0, writes = 0;
    if (!private_shm())
        return 1;
    be_quiet();
    for (uint32_t conf_flg : {CONF_FIXEDMM, CONF_VECTORMM}) {
        crowd all({"threads", {16, 32, 40, conf_flg, 0}, 50, 500, 32, false, BY_ANOTHER});
        store(&all.shared->grow, 1);
        for (unsigned ms = 0; ms < seconds * 1000; ms += 10) {
            usleep(10000);
            if (load(&all.shared->growing) > 2000)
                store(&all.shared->grow, 0);
        }
        all.end();
        lookups += load(&all.shared->lookups[0]) + load(&all.shared->lookups[1]);
        writes += load(&all.shared->writes);
        shkv_destroy(open_kv("threads", SHKV_AM_WRITE).handle);
    }
    fprintf(stderr, "%lu lookups and %lu writes by threads of one process\n", lookups, writes);
    return testing::Test::HasFailure();
}
