// The commands that explain: trace, who, doctor, top and gc, on stores that live, on stores whose
// processes died, and on bytes that are no store any more.
#include <gtest/gtest.h>

#include "shkv.h"
#include "support/main.h"
#include "tools/play.h"

namespace
{
TEST(diagnose, events_come_decoded_and_in_order)
{
    play({
        {"create s -q", 0, ""},
        {"trace s", 0, "no events: nothing has failed on this store since it was made\n"},
        {"trace nosuch", 3, "~does not exist"},
        {"trace", 2, "~STORE is required"},
    });
    Holder holder("s", SHKV_AM_WRITE, [](int handle) {
        char bytes[3000] = {};
        shkv_buf key = {bytes, 3}, empty = {bytes, 0}, large = {bytes, sizeof bytes};
        shkv_add(handle, &empty, &key, 0);
        shkv_add(handle, &key, &large, 0);
        shtrace_str(shkv_get_trbuf(check_shkv_hdl(handle)->sn), 0x500, 7, "a text of its own");
    });
    go_on({
        {"trace s", 0,
         "~^20[^\n]*  0x65 caller   shkv_add             handle 1\n    shkv_add, key buffer size is 0, "
         "shkvh:%d\n"
         "20[^\n]*  0x68 caller   shkv_add             handle 1, 3,000 bytes\n[^\n]*value buffer is too "
         "big[^\n]*\n"
         "20[^\n]*  0x500 [^\n]*\n    the program's own event, \"t of its own\"\n$"},
        {"trace s -n 1 --json", 0,
         "~^\\{\"time\":[0-9.]+,\"event\":1280,\"value\":7,\"text\":\"t of its own\"\\}\n$"},
        {"!(sleep 0.3; shkvctl set s k v) > /dev/null 2>&1 & timeout --preserve-status -s INT 1 shkvctl trace "
         "s -f -n 1 "
         "--json",
         0, "~^[^\n]*\"event\":1280[^\n]*\n\\{[^\n]*\"event\":77,\"severity\":\"refused\"[^\n]*\n$"},
        {"!(sleep 0.3; shkvctl destroy --force s -q) & timeout 5 shkvctl trace s -f -n 1", 0,
         "~was destroyed\n$"},
        {"trace --list --json", 0, "~\\{\"event\":98,\"severity\":\"caller\",\"function\":\"shkv_add\""},
    });
}

TEST(diagnose, no_bytes_stop_trace)
{
    play(
        {{"!shkvctl create s -q; printf '\\001\\0\\0\\013' | dd of=/dev/shm/shkvdb/s bs=1 seek=$((4096+80)) "
          "conv=notrunc 2> /dev/null; shkvctl trace s",
          0, "~second value is missing"},
         {"!printf '\\377\\377' | dd of=/dev/shm/shkvdb/s bs=1 seek=$((4096+8)) conv=notrunc 2> /dev/null; "
          "shkvctl "
          "trace s --json",
          0, "~\"torn\":true"},
         {"!head -c 5000 /dev/urandom | dd of=/dev/shm/shkvdb/s bs=1 seek=$((4096+8)) conv=notrunc 2> "
          "/dev/null; "
          "printf '\\020\\0\\377\\001\\377\\0' | dd of=/dev/shm/shkvdb/s bs=1 seek=$((4096+6)) conv=notrunc 2> "
          "/dev/null; shkvctl trace s > /dev/shm/out; tail -n 2 /dev/shm/out",
          0, "~\\(no time\\)"},
         {"!printf '\\0' | dd of=/dev/shm/shkvdb/s bs=1 seek=4096 conv=notrunc 2> /dev/null; shkvctl trace s",
          3, "~has no event ring: its magic word"},
         {"!truncate -s 4000 /dev/shm/shkvdb/s; shkvctl trace s", 3, "~has no event ring: the supernode ends"},
         {"!truncate -s 0 /dev/shm/shkvdb/s; shkvctl trace s", 3, "~has no event ring"}});
}
} // namespace
