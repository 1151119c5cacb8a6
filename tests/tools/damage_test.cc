// shkvctl on stores that are damaged, half made, left by dead processes or under full load: what
// reads writes nothing, what checks finds it, what dumps brings the rest out.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <regex>

#include "tools/play.h"

namespace
{
std::string sh(const std::string &line)
{
    int exit_code = 0;
    return run("!" + line, &exit_code);
}

// What every object holds, and how much memory it takes.
std::string all_bytes()
{
    return sh("cd /dev/shm; find . -type f | sort | xargs cksum; find . -type f -printf '%p %b\\n' | sort");
}

// The bytes of an object, to look at and to damage.
char *object(const char *store, int kind)
{
    int fd = open(object_path(store, kind).c_str(), O_RDWR);
    struct stat st = {};
    fstat(fd, &st);
    void *map = mmap(nullptr, (size_t)st.st_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    EXPECT_NE(map, MAP_FAILED) << store << " " << kind;
    close(fd);
    return (char *)map;
}
supernode *sn_of(const char *store)
{
    return (supernode *)object(store, OBJ_SN);
}

// The offset of the record of the first bucket that has one.
uint32_t first_record(const char *store)
{
    const uint32_t *word_p = (const uint32_t *)object(store, OBJ_MD1);
    while (*word_p == 0)
        word_p += sizeof(mdn) / sizeof *word_p;
    return *word_p;
}
udn *record_at(const char *store, uint32_t off)
{
    return (udn *)(object(store, OBJ_UD1) + off);
}

void noise(const char *store, int kind, size_t from, size_t len)
{
    char *at = object(store, kind) + from;
    for (uint32_t seed = 7; len; len--)
        *at++ = (char)((seed = seed * 1664525 + 1013904223) >> 24);
}

struct Damage {
    const char *name;
    void (*make)(const char *store);
    const char *check; // what check says about it
    int read_exit;     // of scan and dump
};

const Damage damages[] = {
    {"none", [](const char *) {}, "^none: ok, 300 records", 0},
    {"magic", [](const char *s) { *(uint32_t *)sn_of(s) = 7; }, "incomplete \\(magic words 0x7", 3},
    {"half", [](const char *s) { memset(sn_of(s), 0, sizeof(supernode)); }, "incomplete \\(magic words 0x0", 3},
    {"short", [](const char *s) { EXPECT_EQ(truncate(object_path(s, OBJ_SN).c_str(), 100), 0); }, "100 bytes long", 3},
    {"cut", [](const char *s) { EXPECT_EQ(truncate(object_path(s, OBJ_UD1).c_str(), 9000), 0); }, "UD1: 9000 bytes long", 3},
    {"lost", [](const char *s) { EXPECT_EQ(unlink(object_path(s, OBJ_MD1).c_str()), 0); }, "MD1: 0 bytes long", 3},
    {"spare", [](const char *s) { EXPECT_EQ(unlink(object_path(s, OBJ_UD2).c_str()), 0); }, "ok, 300", 3},
    {"space", [](const char *s) { noise(s, OBJ_UD1, 4096, 8192); }, "UD1|does not hold together", 3},
    {"header", [](const char *s) { noise(s, OBJ_UD1, 0, 256); }, "UD1: bad magic words", 0},
    {"table", [](const char *s) { noise(s, OBJ_MD1, 800, 1600); }, "which is no node of UD1", 3},
    {"flags", [](const char *s) { sn_of(s)->comm_flg = 0; }, "not exactly one table", 3},
    {"sum", [](const char *s) { record_at(s, first_record(s))->cksum ^= 0x5a; }, "has a bad checksum", 3},
    {"circle", [](const char *s) { record_at(s, first_record(s))->md1_next = first_record(s); },
     "is used already|repeats a key", 3},
};

TEST(shkvctl_damage, is_found_and_explained_and_no_reader_writes)
{
    ASSERT_TRUE(remount_shm("256m"));
    sh("seq 300 | sed 's/.*/k&\\tv&/' > /dev/shm/in; echo '{\"op\":\"set\",\"key\":\"k1\",\"value\":\"\"}' > /dev/shm/ch");
    std::string names;
    int exit_code = 0;
    for (const Damage &damage : damages) {
        SCOPED_TRACE(damage.name);
        names += std::string(" ") + damage.name;
        sh(fmt::format("shkvctl create {0} --entries 300 -q && shkvctl load {0} /dev/shm/in -q", damage.name));
        damage.make(damage.name);
        std::string before = all_bytes(), found = run(fmt::format("check {} -v", damage.name), &exit_code);
        EXPECT_TRUE(std::regex_search(found, std::regex(damage.check))) << found;
        EXPECT_EQ(exit_code, found.find(": ok") == std::string::npos ? 3 : 0);
        // Of one key among 300 a damage may leave the way open or not; all else is told.
        const std::pair<const char *, int> lines[] = {
            {"scan {} --count", damage.read_exit}, {"dump {}", damage.read_exit}, {"get {} k1 k300 none", -1}, {"stat {}", -1},
            {"txn status {}", -1}, {"apply {} --dry-run /dev/shm/ch", -1}, {"check {} --json", -1}};
        for (auto [line, want] : lines) {
            std::string output = run("!timeout 20 shkvctl " + fmt::format(fmt::runtime(line), damage.name), &exit_code);
            EXPECT_TRUE(want == -1 ? exit_code <= 3 : exit_code == want) << line << ": " << exit_code << "\n" << output;
            bool named = output.find(fmt::format("'{}'", damage.name)) != std::string::npos;
            EXPECT_TRUE(exit_code != 3 || named || line[0] == 'c') << line << "\n" << output;
        }
        EXPECT_EQ(before, all_bytes());
    }
    std::string before = all_bytes();
    go_on({{"check --all", 3, "~11 of 14 stores damaged"},
           {"ls --records", 0, "~cut .* damaged\n(.|\n)*half .* not complete\n(.|\n)*lost .* lost MD1\n"},
           {"!shkvctl limits && shkvctl cleanup 0 --dry-run", 0, "~one store"}});
    EXPECT_EQ(before, all_bytes());
    // What opens, and not only looks, says what is the matter and what helps.
    go_on({{"set half k v", 3, "~'half' is not complete.*destroy --force half"},
           {"create half", 3, "~'half' is there, half made.*destroy --force half"},
           {"set lost k v", 3, "~'lost' has lost its object MD1 \\(/dev/shm/shkvmu/lost_md1\\)"},
           {("destroy --force -q" + names).c_str(), 0, ""},
           {"!ls /dev/shm/shkvdb; ls /dev/shm/shkvmu | grep -v registry", 1, "ovo_shkv_registry_db\n"}});
}

TEST(shkvctl_damage, costs_a_dump_the_damaged_record_and_no_other)
{
    play({{"!shkvctl create s -q; seq 100 | sed 's/.*/k&\\tv&/' | shkvctl load s -q", 0, ""}});
    *(char *)(record_at("s", first_record("s")) + 1) ^= 1; // of its key
    go_on({{"dump s /dev/shm/d", 3, "~^dumped 99 records of store 's', exact(.|\n)*left out 1 damaged record"},
           {"load t /dev/shm/d --create", 0, "~^loaded 99 records"},
           {"!shkvctl scan t --keys | sed s/k// | sort -n > /dev/shm/t; seq 100 | diff - /dev/shm/t | wc -l", 0, "2\n"}});
}

// Keys and values of all bytes, long and short.
contents all_kinds(size_t key_max, size_t value_max)
{
    std::string bytes;
    for (size_t i = 0; i < std::max(key_max, value_max); i++)
        bytes += (char)i;
    contents all;
    for (int c = 0; c < 256; c++)
        all[std::string(1, (char)c)] = std::string(1, (char)(255 - c));
    for (size_t len : {2, 7, 16, 120, 200, 2000})
        if (len <= key_max)
            all["{\t" + bytes.substr(0, len - 2)] = bytes.substr(0, std::min(value_max, len * len));
    all["\xf0\x9f\x98\x80"] = "\xed\xa0\x80"; // a character, and half of one
    all["empty"] = "";
    return all;
}

TEST(shkvctl_dump, comes_back_byte_for_byte)
{
    const struct {
        const char *create, *format;
        size_t key_max, value_max;
    } cases[] = {{"--key-max 256 --value-max 2048", "jsonl", 256, 2048},
                 {"--key-max 256 --value-max 2048 --hash fnvhash --uuid 7 --arg 5", "tsv", 256, 2048},
                 {"--vector", "jsonl", 2048, 65000},
                 {"--vector --shared-map", "tsv", 2048, 65000}};
    for (const auto &each : cases) {
        SCOPED_TRACE(each.create);
        play({{fmt::format("create s -q {}", each.create).c_str(), 0, ""}});
        contents all = all_kinds(each.key_max, each.value_max);
        Holder writer("s", SHKV_AM_WRITE, [&](int handle) {
            for (auto &[key, value] : all)
                EXPECT_EQ(put(handle, key, value), 0);
        });
        go_on({{"dump s --exact", 3, "~has a writer"},
               {fmt::format("dump s /dev/shm/d --format {}", each.format).c_str(), 0, "~exact: nobody changed"}});
        writer.die();
        std::string sum = sh("head -n -1 /dev/shm/d | sha256sum | cut -d' ' -f1"), end = sh("tail -1 /dev/shm/d");
        EXPECT_NE(end.find(sum.substr(0, 64)), std::string::npos) << end << sum;
        go_on({{"load t /dev/shm/d --create -q", 0, ""},
               {fmt::format("dump t /dev/shm/e --exact --format {}", each.format).c_str(), 0, "~held the writer's place"},
               // Head and end aside, which name the store and the manner.
               {"!for f in d e; do sed '1d;$d' /dev/shm/$f | sort > /dev/shm/$f.s; done; cmp /dev/shm/d.s /dev/shm/e.s && "
                "head -1 /dev/shm/d | sed 's/\"s\"/\"t\"/' | cmp - /dev/shm/e -n 60", 0, ""},
               {"check t", 0, fmt::format("t: ok, {} records\n", all.size())}});
        int handle = open_store("t", SHKV_AM_READ | SHKV_AM_ITER);
        EXPECT_EQ(iterate_all(handle), all);
        shkv_close(handle);
    }
}

TEST(shkvctl_dump, that_is_not_as_it_was_written_is_refused)
{
    play({
        {"!shkvctl create s -q; seq 50 | sed 's/.*/k&\\tv&/' | shkvctl load s -q; shkvctl dump s /dev/shm/d -q", 0, ""},
        {"!cd /dev/shm; head -30 d > cut; sed '9d' d > less; sed 's/v7\"/v8\"/' d > other; sed 1d d > late; cat d cut > two", 0, ""},
        {"create t -q", 0, ""},
        {"load t /dev/shm/cut", 3, "~line 30: the dump is cut short"},
        {"load t /dev/shm/less", 3, "~its checksum is another"},
        {"load t /dev/shm/other", 3, "~its checksum is another"},
        {"load t /dev/shm/late", 3, "~a dump ends that has not begun"},
        {"load t /dev/shm/two", 3, "~cut short"},
        {"scan t --count", 0, "50\n"}, // of late, which does not begin as a dump
        {"!shkvctl load t --txn < /dev/shm/other", 3, "~checksum is another.*nothing was stored"},
        {"!shkvctl destroy t -q; cat /dev/shm/d /dev/shm/d | shkvctl load t --create", 0, "~^loaded 100 records"},
        {"load u /dev/null --create", 3, "~is no dump"},
        {"dump s /dev/shm/no/where", 3, "~cannot write /dev/shm/no/where"},
        {"!shkvctl dump s > /dev/full", 3, "~No space left"},
        // What is no regular file is written as it is; a link keeps leading where it did.
        {"!cd /dev/shm; mkfifo pipe; ln -s d link; for c in 'dump s' 'stat s --map' 'top --prometheus'; do rm -f d got fresh; "
         "ln -sf fresh new; echo old > d; cat pipe > got & shkvctl $c pipe -q; [ -p pipe ] && wait; shkvctl $c link -q; "
         "shkvctl $c new -q; for f in got d fresh; do head -1 $f; done | uniq | wc -l; ls -F | grep '[@|]' | xargs; done",
         0, "1\nlink@ new@ pipe|\n1\nlink@ new@ pipe|\n1\nlink@ new@ pipe|\n"},
        {"!shkvctl dump s /dev/stdout -q | wc -l", 0, "52\n"},
        {"!ls /dev/shm/*.part", 2, "~No such"},
    });
}

// Constant keys, and others that come and go while the table and the space grow.
int churn()
{
    int handle = open_store("s", SHKV_AM_WRITE);
    for (uint32_t i = 0; freopen("/dev/null", "w", stdout); i++) // a line for each key that is not there to delete
        for (uint32_t end = i + 1000; i < end; i++) {
            std::string key = i < 500 ? fmt::format("c{}", i) : fmt::format("x{}", i * 7919 % (1000 + std::min(i / 8, 60000u)));
            i >= 500 && i % 5 == 0 ? del(handle, key) : put(handle, key, fmt::format("value {}", i));
        }
    return 1;
}

TEST(shkvctl_live, reads_hold_beside_a_writer_at_full_speed)
{
    for (const char *kind : {"", "--vector"}) {
        SCOPED_TRACE(kind);
        play({{fmt::format("create s --entries 600 -q {}", kind).c_str(), 0, ""}});
        pid_t pid = start_child(churn);
        sh("until shkvctl get s c499 -q 2> /dev/null; do :; done");
        for (int round = 0; round < 2; round++)
            go_on({{"!shkvctl dump s -q --format tsv | cut -f1 | grep . > /dev/shm/k; grep -c ^c /dev/shm/k; sort /dev/shm/k | "
                    "uniq -d | wc -l", 0, "500\n0\n"},
                   // Unless the writer had no turn meanwhile.
                   {"!for i in $(seq 50); do shkvctl dump s 2>&1 > /dev/null | grep -o 'taken beside a writer' && break; done", 0,
                    "taken beside a writer\n"},
                   {"!shkvctl scan s --prefix c --count", 0, "500\n"},
                   {"check s", 0, "~^s: ok"},
                   {"!shkvctl get s c0 c499 --json | wc -l", 0, "2\n"},
                   {"stat s", 0, "~writer +thread [0-9]+ \\(t_tools\\)"},
                   {"set s k v", 3, "~has a writer"}});
        kill(pid, SIGKILL);
        EXPECT_EQ(end_of(pid), -SIGKILL);
        go_on({{"dump s --exact /dev/shm/d", 0, "~held the writer's place"}, {"check s", 0, "~: ok"}});
    }
}

TEST(shkvctl_dead, writers_leave_transactions_that_can_be_ended)
{
    play({{"!shkvctl create s -q; shkvctl set s a 1 -q", 0, ""}});
    auto stage = [](int handle) {
        EXPECT_EQ(shkv_txn_start(handle, nullptr), 0);
        EXPECT_EQ(put(handle, "b", "b"), 0);
        EXPECT_EQ(del(handle, "a"), 0);
    };
    {
        Holder writer("s", SHKV_AM_WRITE, stage);
        go_on({{"txn status s", 0, "~1 set and 1 delete staged\nits writer is thread [0-9]+ \\(t_tools\\)"},
               {"txn commit s", 3, "~has a writer"},
               {"dump s", 0, "~what is staged is not in the dump\n.*\n\\{\"key\":\"a\",\"value\":\"1\"\\}\n"}});
    }
    go_on({{"txn status s", 0, "~nobody writes to the store now"},
           {"txn abort s", 0, "dropped 1 set and 1 delete\n"},
           {"scan s", 0, "a\t1\n"}});
    Holder("s", SHKV_AM_WRITE, stage).die();
    sn_of("s")->comm_flg |= CF_TXN_COMMIT; // dead right behind the store that decides the commit
    go_on({{"ls", 0, "~commit cut short"},
           {"txn status s", 0, "~its commit was begun"},
           {"txn abort s", 3, "~a commit cannot be taken back"},
           {"scan s", 0, "b\tb\n"},
           {"check s --strict", 0, "~ok, 1 record"}});
}

TEST(shkvctl_dead, reshapers_are_shown_and_their_stores_made_anew)
{
    play({{"!shkvctl create s -q; seq 200 | sed 's/.*/k&\\tv&/' | shkvctl load s -q; shkvctl dump s -q | sed '1d;$d' | sort "
           "> /dev/shm/was", 0, ""}});
    Holder("s", SHKV_AM_READ, [](int) {
        shkv_rscf rscf = {0, 1, 8, 8};
        uint32_t err = 0;
        int handle = shkv_open_reshaping("s", UUID_RESHAPE1, 0, &rscf, SHKV_AM_RESHAPE, &err);
        EXPECT_GT(handle, 0);
        EXPECT_EQ(shkv_iterate(handle, nullptr, nullptr, nullptr, 1), 0);
        for (int i = 0; i < 50; i++) { // some records are in the new table, and dead it is
            char key_room[16], val_room[32];
            shkv_buf key = {key_room, 16}, value = {val_room, 32};
            EXPECT_EQ(shkv_iterate(handle, &key, &value, nullptr, 0), 0);
            EXPECT_EQ(__shkv_add(handle, &key, &value, nullptr, 0x88), 0);
            EXPECT_EQ(__shkv_delete(handle, &key, 0x66), 0);
        }
    }).die();
    go_on({{"stat s", 0, "~token +held by service 0xf011\n +reshape +began [0-9]+ s ago: 150 records left to move, 50 in"},
           {"ls", 0, "~reshaping"},
           {"reshape s", 3, "~a reshape is under way"},
           {"set s k v", 3, "~is being reshaped and takes no new writer"},
           {"scan s --count", 0, "200\n"},
           {"check s", 0, "~ok, 200 records"},
           {"dump s /dev/shm/d", 0, "~^dumped 200 records"},
           {"destroy s --force", 0, "destroyed store 's'\n"},
           {"load s /dev/shm/d --create", 0, "~^loaded 200"},
           {"!shkvctl dump s -q | sed '1d;$d' | sort | cmp - /dev/shm/was", 0, ""}});
    sn_of("s")->comm_flg = CF_MD1 | CF_UD1 | CF_RESH_TOKEN2;
    go_on({{"stat s", 0, "~held by service 0xf012; no new objects yet"},
           {"reshape s", 3, "~reshape token is held.*dump s FILE, destroy --force s, load s FILE --create"}});
}

TEST(shkvctl_dead, batches_leave_logs_that_go_with_their_store)
{
    play({{"!for s in s s_iodb t t_iodb; do shkvctl create $s -q; done", 0, ""},
          {"ls", 0, "~s_iodb .* undo log\n"},
          {"destroy s", 0, "destroyed store 's' and its undo log 's_iodb'\n"}});
    sn_of("t")->iodb_mark = IODB_ADDS;
    go_on({{"ls", 0, "~t .* batch cut short"},
           {"destroy t_iodb", 3, "~is the undo log of store 't', whose last batch was cut short"},
           {"set t k v -q", 0, ""},
           {"ls --json", 0, "~^\\{\"store\":\"t\",[^\n]*\"state\":\"ok\"[^\n]*\n$"}});
}
} // namespace
