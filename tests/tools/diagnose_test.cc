// The commands that explain: trace, who, doctor, top and gc, on stores that live, on stores whose
// processes died, and on bytes that are no store any more.
#include <fcntl.h>

#include "tools/play.h"

namespace
{
TEST(diagnose, events_come_decoded_and_in_order)
{
    play({{"create s -q", 0, ""},
          {"trace s", 0, "no events: nothing has failed on this store since it was made\n"},
          {"trace nosuch", 3, "~does not exist"}});
    Holder holder("s", SHKV_AM_WRITE, [](int handle) {
        put(handle, "", "val");
        put(handle, "key", std::string(3000, 'v'));
        shtrace_str(shkv_get_trbuf(check_shkv_hdl(handle)->sn), 0x500, 7, "a text of its own");
    });
    go_on({
        {"trace s", 0,
         "~^20[^\n]*  0x65 caller   shkv_add             handle 1\n    shkv_add, key buffer size is 0, shkvh:%d\n"
         "20[^\n]*  0x68 caller   shkv_add             handle 1, 3,000 bytes\n[^\n]*value buffer is too big[^\n]*\n"
         "20[^\n]*  0x500 [^\n]*\n    the program's own event, \"t of its own\"\n$"},
        {"trace s -n 1 --json", 0, R"(~^\{"time":[0-9.]+,"event":1280,"value":7,"text":"t of its own"\})"},
        {"!(sleep 0.3; shkvctl set s k v) > /dev/null 2>&1 & timeout --preserve-status -s INT 2 shkvctl trace s -f -n 1 --json",
         0, "~^[^\n]*\"event\":1280[^\n]*\n\\{[^\n]*\"event\":77,\"severity\":\"refused\"[^\n]*\n$"},
        {"!(sleep 0.3; shkvctl destroy --force s -q) & timeout 20 shkvctl trace s -f -n 1", 0, "~was destroyed\n$"},
    });
}

TEST(diagnose, no_bytes_stop_trace)
{
    play({{"!shkvctl create s -q; echo 'printf \"$2\" | dd of=/dev/shm/shkvdb/s bs=1 seek=$1 conv=notrunc 2> /dev/null' > "
           "/dev/shm/poke; sh /dev/shm/poke $((4096+80)) '\\001\\0\\0\\013'; shkvctl trace s",
           0, "~second value is missing"},
          {"!sh /dev/shm/poke $((4096+8)) '\\377\\377'; shkvctl trace s --json", 0, "~\"torn\":true"},
          {"!head -c 5000 /dev/urandom | dd of=/dev/shm/shkvdb/s bs=1 seek=$((4096+8)) conv=notrunc 2> /dev/null; "
           "sh /dev/shm/poke $((4096+6)) '\\020\\0\\377\\001\\377\\0'; shkvctl trace s > /dev/shm/out; tail -n 2 /dev/shm/out",
           0, "~\\(no time\\)"},
          {"!sh /dev/shm/poke 4096 '\\0'; shkvctl trace s", 3, "~has no event ring: its magic word"},
          {"!truncate -s 4000 /dev/shm/shkvdb/s; shkvctl trace s", 3, "~has no event ring: the supernode ends"},
          {"!truncate -s 0 /dev/shm/shkvdb/s; shkvctl trace s", 3, "~has no event ring"}});
}

TEST(diagnose, who_tells_the_writer_and_all_that_have_it_mapped)
{
    play({{"create s -q", 0, ""}, {"who s", 0, "~writer\n  none\nprocesses that have it mapped\n  none\n"}});
    Holder writer("s", SHKV_AM_WRITE), reader("s", SHKV_AM_READ);
    std::string wr = std::to_string(writer.pid), rd = std::to_string(reader.pid);
    go_on({
        {"who s", 0, "~thread " + wr + " of process " + wr + " \\(t_tools\\), user [^\n]*since 20"},
        {"who s", 0, "~" + wr + " +[^ ]+ +write +20[^\n]*supernode"},
        {"who s --json", 0, "~\"tid\":" + wr + ",\"state\":\"lives\"(.|\n)*\"pid\":" + rd},
        {"doctor s", 0, "~0 problems, 0 warnings"},
    });
    writer.die();
    go_on({{"who s", 0, "~thread [0-9]+, which is gone"}, {"doctor s", 0, "~its writer, thread [0-9]+, has died"}});
    // The id of a dead writer, given to a process that knows nothing of the store.
    uint32_t me = (uint32_t)getpid();
    int fd = open(object_path("s", OBJ_SN).c_str(), O_WRONLY);
    EXPECT_EQ(4, pwrite(fd, &me, 4, offsetof(supernode, wr_tid)));
    close(fd);
    go_on({
        {"who s", 0, "~its thread id was given out\n  anew"},
        {"doctor s", 3, "~PROBLEM  s: its writer is dead, but the writer's thread id [0-9]+ now belongs"},
        {"!shkvctl destroy --force s -q; shkvctl create s -q", 0, ""},
        {"who s", 0, "~process " + rd + " \\(t_tools\\) still has a store of this name mapped"},
    });
}

TEST(diagnose, gc_clears_up_what_is_dead_and_nothing_else)
{
    play({
        {"!for s in ok gone half cut whole; do shkvctl create $s -q --uuid 9; shkvctl set $s k v -q; done; shkvctl "
         "create ok_iodb --uuid 9 -q; shkvctl create other_iodb -q", 0, ""},
        {"gc", 0, "~stale log  ok_iodb(.|\n)*left alone: it changed a moment ago"},
        {"!cd /dev/shm; rm shkvdb/gone shkvmu/gone*; printf '\\0\\0\\0\\0' | dd of=shkvdb/half conv=notrunc 2> /dev/null; "
         "printf '\\5\\10' | dd of=shkvdb/cut bs=1 seek=80 conv=notrunc 2> /dev/null; cp shkvmu/ok_md1 shkvmu/lone_md1; "
         "for o in md1 md2 md_txn ud1 ud2; do cp shkvmu/whole_$o shkvmu/copy_$o; done; cp shkvdb/whole shkvdb/copy; "
         "touch -d '1 minute ago' shkv*/*", 0, ""},
        {"!cp -r /dev/shm/shkvdb /dev/shm/before; shkvctl gc --json | grep -c '\"done\":false'; diff -r /dev/shm/shkvdb "
         "/dev/shm/before; rm -r /dev/shm/before", 0, "6\n"},
        {"doctor -q", 0, "~half: half made"},
        {"gc --yes", 0, "~done: list it\n"},
        {"gc", 0, "the registry and the objects agree, or what does not is in use\n"},
        {"ls", 0, "~^STORE[^\n]*\ncopy +9 [^\n]*\nok +9 [^\n]*\nother_iodb[^\n]*\nwhole [^\n]*\n$"},
        {"get copy k", 0, "v\n"},
        {"!ls /dev/shm/shkvmu | grep -c 'lone\\|half\\|cut\\|gone\\|ok_iodb'", 1, "0\n"},
        {"create half -q", 0, ""},
    });
    Holder writer("half", SHKV_AM_WRITE);
    go_on({{"!printf '\\0\\0\\0\\0' | dd of=/dev/shm/shkvdb/half conv=notrunc 2> /dev/null; touch -d '1 minute ago' "
            "/dev/shm/shkv*/*; shkvctl gc --yes", 0,
            "~half made  half\n[^\n]*\n +left alone: process [0-9]+ \\(t_tools\\) has it mapped"}});
    writer.die();
    go_on({{"gc --yes", 0, "~done: remove its objects"}, {"!ls /dev/shm/shkvdb/half", 2, "~No such"}});
}

TEST(diagnose, doctor_names_what_is_wrong)
{
    play({
        {"!for s in token lost short; do shkvctl create $s -q; done; cd /dev/shm; printf '\\5\\20' | dd of=shkvdb/token "
         "bs=1 seek=80 conv=notrunc 2> /dev/null; rm shkvmu/lost_md2; truncate -s 4096 shkvmu/short_ud1", 0, ""},
        {"doctor", 3, "~fine +machine: /dev/shm has 256.0 MiB(.|\n)*the registry lists [0-9]+ stores, and has room for 3,0"},
        {"doctor -q token", 3, "~PROBLEM  token: a reshaper took the token and has died"},
        {"doctor -q lost", 3, "~PROBLEM  lost: its object MD2 is missing"},
        {"doctor -q short", 3, "~PROBLEM  short: its object UD1 has 4096 bytes, and its header says"},
        {"doctor nosuch", 3, "~does not exist"},
        {"!rm /dev/shm/shkvdb/ovo*; shkvctl doctor -q", 3, "~the registry that lists them is missing"},
    });
}

TEST(diagnose, top_and_the_picture_come_from_the_bytes)
{
    play({
        {"top --once", 0, "~^0 stores; /dev/shm 256.0 MiB"},
        {"!shkvctl create s -q; seq 2000 | sed 's/.*/k&\\tv/' | shkvctl load s - -q; shkvctl create v --vector -q; seq 50 | "
         "sed 's/.*/k&\\tv/' | shkvctl load v - -q; printf 'x' > /dev/shm/shkvdb/torn", 0, ""},
        {"top --once", 0, "~\ns +2,000 +1\\.[0-9]+ (.|\n)*torn +0 (.|\n)*not complete"},
        {"!shkvctl top --prometheus /dev/shm/p.prom; grep -v '^#' /dev/shm/p.prom | grep '\"s\"\\|^shkv_stores'; ls /dev/shm/p*",
         0, "~^shkv_stores 3\nshkv_store_complete\\{store=\"s\"\\} 1\n(.|\n)*entries\\{store=\"s\"\\} 2000\n(.|\n)*"
            "\n/dev/shm/p.prom\n$"},
        {"top --prometheus /dev/shm/no/p.prom", 3, "~cannot write /dev/shm/no/p.prom"},
        {"stat s --map /dev/shm/s.svg", 0, "drew store 's' into /dev/shm/s.svg\n"},
        {"!shkvctl stat v --map /dev/shm/v.svg -q; grep -c '<path' /dev/shm/v.svg; grep -o 'live: [0-9,]*' /dev/shm/v.svg "
         "/dev/shm/s.svg", 0, "~^[0-9]+\n/dev/shm/v.svg:live: 50\n/dev/shm/s.svg:live: 2,000\n$"},
        {"stat torn --map /dev/shm/t.svg", 3, "~not complete"},
    });
}
} // namespace
