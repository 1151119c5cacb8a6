// shkvctl as its users meet it: command lines, what they print, and their exit codes. Each story
// is a list of lines run by a shell one after the other in a /dev/shm of its own.
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "shkv.h"
#include "support/main.h"
#include "tools/play.h"

namespace
{
TEST(shkvctl, records_go_in_and_come_out)
{
    play({
        {"ls", 0, "there are no stores; make one with: shkvctl create NAME\n"},
        {"get s k", 3, "shkvctl get: store 's' does not exist (ENOENT); see all stores with: shkvctl ls; make it with: "
         "shkvctl create s\n"},
        {"get s k --json", 3,
         "{\"error\":\"store 's' does not exist\",\"command\":\"get\",\"errno\":2,\"errno_name\":\"ENOENT\",\"hint\":\"see "
         "all stores with: shkvctl ls; make it with: shkvctl create s\"}\n"},
        {"create s", 0, "~keys to 16 bytes, values to 32, room for 2,010 records, 140.0 KiB"},
        {"create s", 3, "~store 's' exists already"},
        {"set s k v", 0, "stored k, 1 byte\n"},
        {"set s k longer", 0, "replaced k, 6 bytes\n"},
        {"set s k longer --json", 0, "{\"store\":\"s\",\"key\":\"k\",\"bytes\":6,\"replaced\":true}\n"},
        {"set s -q -- -n -5", 0, ""},
        {"get s k", 0, "longer\n"},
        {"get s -- -n k x", 1, "-n\t-5\nk\tlonger\nshkvctl get: store 's' has no key 'x'\n"},
        {"get s x k --json", 1,
         "{\"key\":\"x\",\"found\":false}\n{\"key\":\"k\",\"found\":true,\"value\":\"longer\"}\n"},
        {"set s --hex 00ff 0a5c", 0, "stored \\x00\\xff, 2 bytes\n"},
        {"get s --hex 00ff", 0, "0a5c\n"},
        {"get s --hex 00ff --raw", 0, "\n\\"},
        {"get s --hex 00ff --json", 0, "{\"key_hex\":\"00ff\",\"found\":true,\"value\":\"\\n\\\\\"}\n"},
        {"!printf 'a\\nb' | shkvctl set s f @-; shkvctl get s f", 0, "stored f, 3 bytes\na\nb\n"},
        {"scan s --prefix f", 0, "f\ta\\nb\n"},
        {"scan s --count", 0, "4\n"},
        {"set s k 123456789012345678901234567890123", 3, "~value of 'k' has 33 bytes, and store 's' takes 32"},
        {"set s 12345678901234567 v", 3, "~key '12345678901234567' has 17 bytes, and store 's' takes 16"},
        {"set s '' v", 3, "shkvctl set: a key has at least one byte (EINVAL)\n"},
        // The library's own line about a missing key stays out of the output.
        {"del s k x", 1, "shkvctl del: store 's' has no key 'x'\ndeleted 1 record\n"},
        {"del s x --json", 1, "{\"key\":\"x\",\"deleted\":false}\n"},
        {"ls", 0, "~s +0 +0 +fixed +158.4 KiB  -       ok\n$"},
        {"destroy s", 0, "destroyed store 's'\n"},
        {"destroy s", 3, "shkvctl destroy: store 's' does not exist (ENOENT); see all stores with: shkvctl ls\n"},
    });
}

TEST(shkvctl, wrong_usage_says_so)
{
    play({
        {"", 2, "~^shkvctl: look into.*\n"},
        {"--help", 0, "~  create .*\n.*  ls "},
        {"nosuch", 2, "shkvctl: there is no command 'nosuch'\nsee: shkvctl --help\n"},
        {"set s", 2, "~KEY is required"},
        {"get s k --nope", 2, "~no option '--nope'"},
        {"get '' k", 2, "shkvctl get: '' names no store\n"},
        {"create a:b:c", 2, "~two ':'"},
        {"create s --key-max 257", 2, "~not in range"},
        {"create s --hash md5", 2, "~md5"},
        {"create ovo_shkv_registry_db", 2, "~registry"},
        {"set s --hex 0g 00", 2, "~no hex"},
        {"load s --txn --batch 3", 2, "~exclude"},
        {"load s --batch 32", 2, "~not in range"},
        {"txn begin s", 2, "~begin"},
        {"set-opts s", 2, "~nothing to set"},
        {"cleanup 0", 2, "~--yes"},
        {"destroy ovo_shkv_registry_db", 2, "~is not destroyed"},
    });
    for (const char *command : {"create", "ls", "stat", "destroy", "set", "get", "del", "scan", "load", "dump", "apply", "check",
                                "txn", "set-opts", "reshape", "limits", "cleanup"})
        play({{(std::string(command) + " --help").c_str(), 0,
               "~^usage: shkvctl(.|\n)*--json(.|\n)*examples\n  "}});
}

TEST(shkvctl, stores_that_do_not_open_are_explained)
{
    play({
        {"!shkvctl -q create torn 2>/dev/null; shkvctl create torn -q; shkvctl create lost -q; shkvctl create "
         "gone -q",
         0, ""},
        {"!dd if=/dev/zero of=/dev/shm/shkvdb/torn bs=4 count=1 conv=notrunc 2>/dev/null", 0, ""},
        {"!rm /dev/shm/shkvmu/lost_md2 /dev/shm/shkvdb/gone; cp /dev/shm/shkvdb/lost /dev/shm/shkvdb/stray", 0,
         ""},
        {"get torn k", 3, "~'torn' is not complete.*destroy --force torn"},
        {"stat torn", 3, "~'torn' is not complete"},
        {"create torn", 3, "~'torn' is there, half made.*destroy --force torn"},
        {"set lost k v", 3, "~'lost' has lost its object MD2 \\(/dev/shm/shkvmu/lost_md2\\)"},
        {"ls", 0, "~gone .* gone\nlost .* lost MD2\nstray .* lost MD1, unlisted\ntorn .* not complete\n"},
        {"destroy gone", 3, "~registry still lists it"},
        {"destroy --force torn lost gone stray", 0, "~destroyed store 'stray'"},
        {"ls", 0, "~no stores"},
        {"!ls /dev/shm/shkvdb; ls /dev/shm/shkvmu | wc -l", 0, "ovo_shkv_registry_db\n5\n"},
    });
}

TEST(shkvctl, loads_whole_files_or_nothing)
{
    play({
        {"create s --entries 10 -q", 0, ""},
        {"!seq 100 | sed 's/.*/k&\\tv&/' > /dev/shm/all; (head -50 /dev/shm/all; echo bad) > /dev/shm/half", 0,
         ""},
        {"load s /dev/shm/half", 3, "~half, line 51: no tab.*50 records were stored before"},
        {"load s /dev/shm/half --txn", 3, "~line 51.*nothing was stored"},
        {"txn status s", 1, "store 's' has no open transaction\n"},
        {"scan s --count", 0, "50\n"},
        {"load s /dev/shm/all --batch 31", 0, "~^loaded 100 records in "},
        {"!shkvctl create t --vector -q && shkvctl scan s | shkvctl load t -q && shkvctl scan s --json | "
         "shkvctl load t --txn",
         0, "~^loaded 100 records"},
        {"!shkvctl scan s | sort > /dev/shm/1; shkvctl scan t | sort > /dev/shm/2; sort /dev/shm/all | cmp "
         "/dev/shm/1 - && "
         "cmp /dev/shm/1 /dev/shm/2",
         0, ""},
        {"!printf '%s\\n' '{\"key_hex\":\"00ff\",\"value\":\"t\\tab\"}' 'plain\\\\\\x41\tx' | shkvctl load t "
         "-q; "
         "shkvctl get t --hex 00ff; shkvctl get t 'plain\\A'",
         0, "74096162\nx\n"},
    });
}

TEST(shkvctl, a_full_store_says_what_to_do)
{
    play({
        {"create s --entries 10 -q", 0, ""},
        {"set-opts s --grow off", 0, "~keeps its size"},
        {"!seq 300 | sed 's/.*/k&\\tv/' > /dev/shm/in", 0, ""},
        {"load s /dev/shm/in --txn", 3,
         "~full, and does not grow by itself \\(nothing was stored\\) \\(ENOMEM\\); let it grow with: "
         "shkvctl set-opts s --grow on"},
        {"resize s --grow on --slice 0", 0, "~grows when it is full; a table rebuild works without a pause"},
        {"load s /dev/shm/in", 0, "~300 records"},
        {"!SYSMGR_MMAP_LIMIT=1 shkvctl limits | grep one.store", 0, "~4.0 MiB"},
        {"create big --entries 100000 -q", 0, ""},
        {"!seq 200000 | sed 's/.*/k&\\tv/' | SYSMGR_MMAP_LIMIT=1 shkvctl load big", 3,
         "~may not grow: this process is allowed 4.0 MiB"},
        {"!seq 200000 | sed 's/.*/k&\\tv/' | shkvctl load big -q", 0, ""},
        {"create far --entries 10000000", 3,
         "~'far' would take .* MiB, and this process may make stores of 32.0 MiB"},
        {"create mine --uuid 7 --entries 300000 -q", 0, ""},
        {"create more --uuid 7 --entries 300000", 3, "~more than is left of the budget of service 7"},
        {"limits --uuid 7 --json", 0, "~\"services\":\\[\\{\"uuid\":7,\"stores\":1,"},
    });
}

TEST(shkvctl, a_transaction_outlives_its_processes)
{
    play({
        {"!shkvctl create s -q; shkvctl set s a 1 -q; shkvctl set s b 2 -q", 0, ""},
        {"txn start s", 0, "~changes to 's' wait"},
        {"txn start s", 3, "~has a transaction open already"},
        {"set s c 3", 0, "~waits for: shkvctl txn commit s\nstored c"},
        {"del s a", 0, "~waits for"},
        {"get s a", 0, "1\n"},
        {"txn status s --json", 0,
         "{\"store\":\"s\",\"open\":true,\"committing\":false,\"sets\":1,\"deletes\":1,"
         "\"writer_tid\":0,\"writer_lives\":false}\n"},
        {"reshape s", 3, "~it has an open transaction"},
        {"txn commit s", 0, "committed 1 set and 1 delete\n"},
        {"get s a c", 1, "shkvctl get: store 's' has no key 'a'\nc\t3\n"},
        {"txn abort s", 1, "store 's' has no open transaction\n"},
        {"!printf '%s\\n' '{\"op\":\"set\",\"key\":\"d\",\"value\":\"4\"}' '{\"op\":\"del\",\"key\":\"b\"}' "
         "'{\"op\":\"del\","
         "\"key\":\"zz\"}' '{\"op\":\"del\",\"key\":\"d\"}' > /dev/shm/c",
         0, ""},
        {"apply s /dev/shm/c --dry-run", 0,
         "would apply: 1 added, 0 replaced, 2 deleted, 1 to delete not there\n"},
        {"apply s /dev/shm/c", 0, "applied: 1 added, 0 replaced, 2 deleted, 1 to delete not there\n"},
        {"scan s", 0, "c\t3\n"},
        {"!echo '{\"op\":\"set\",\"key\":\"12345678901234567\",\"value\":\"\"}' >> /dev/shm/c; shkvctl apply s "
         "/dev/shm/c",
         3, "~takes 16 at most"},
        {"!echo '{\"op\":\"put\"}' | shkvctl apply s -", 3, "~line 1: \"op\" is neither"},
        {"create m --multi-writer -q", 0, ""},
        {"txn start m", 3, "~allows several writers, and so has no transactions"},
    });
}

TEST(shkvctl, a_reshape_moves_all_records)
{
    play({
        {"!shkvctl create s -q; seq 1000 | sed 's/.*/k&\\tv&/' > /dev/shm/all; shkvctl load s /dev/shm/all -q",
         0, ""},
        {"reshape s --space 8K", 3, "~a space of 8.0 KiB holds 22 records, and it has 1,000"},
        {"reshape s --table-size 5000 --space 1M --hash djbhash", 0,
         "reshaped store 's', 1,000 records\n  table   1,759 -> 5,003 buckets, dekhash -> djbhash\n  space   "
         "140.0 KiB -> 1.0 MiB\n"},
        {"!shkvctl scan s | sort > /dev/shm/1; sort /dev/shm/all | cmp - /dev/shm/1", 0, ""},
        {"stat s", 0,
         "~table MD2 in force(.|\n)*MD2 +in force +5,003 .* 1,000 .* djbhash(.|\n)*UD2 +in force +1.0 MiB"},
        {"stat s --json", 0, "~\"comm_flg\":\\[\"CF_MD2\",\"CF_UD2\"\\].*\"records\":1000,"},
        {"!shkvctl create v --vector -q; shkvctl reshape v", 3, "~only stores with records of fixed size"},
    });
}

TEST(shkvctl, a_living_writer_is_named_and_a_dead_one_replaced)
{
    play({{"!SYSMGR_VDC_ID=7 shkvctl create s -q; shkvctl set s k v -q", 0, ""}});
    Holder holder("s");
    int exit_code = 0;
    for (const char *line : {"set s k w", "del s k", "destroy s", "set-opts s --grow off", "cleanup 7"}) {
        std::string output = run(line, &exit_code);
        EXPECT_EQ(exit_code, 3) << line;
        EXPECT_TRUE(
            std::regex_search(output, std::regex("store 's' has a writer: thread [0-9]+ \\(t_tools\\)")))
            << output;
    }
    EXPECT_EQ(run("get s k", &exit_code), "v\n");
    EXPECT_NE(run("stat s", &exit_code).find("(t_tools)"), std::string::npos);
    holder.kill_it();
    EXPECT_NE(run("ls", &exit_code).find("dead"), std::string::npos);
    EXPECT_EQ(run("set s k w", &exit_code), "replaced k, 1 byte\n");
    EXPECT_EQ(run("cleanup 8", &exit_code), "no store has VDC 8\n");
    EXPECT_EQ(run("cleanup 7", &exit_code), "destroyed s\n");
    EXPECT_EQ(exit_code, 0);
}

TEST(shkvctl, force_takes_a_store_from_its_writer)
{
    play({{"create s -q", 0, ""}});
    Holder holder("s");
    int exit_code = 0;
    EXPECT_EQ(run("destroy --force s", &exit_code), "destroyed store 's'\n");
    EXPECT_NE(run("ls", &exit_code).find("no stores"), std::string::npos);
    holder.kill_it();
}

TEST(shkv_demo, is_right_and_leaves_nothing)
{
    play({
        {"!for i in $(seq 3000); do printf 'Package: p%d\\nVersion: %d\\nDescription: text\\n more\\n\\n' $i "
         "$i; done > /dev/shm/in",
         0, ""},
        {"!shkv_demo --input /dev/shm/in --seconds 1", 0,
         "~killed writer(.|\n)*took over: all(.|\n)*3,000 records with the input: 0 missing, 0 wrong, 0 too "
         "many\n"},
        {"!ls /dev/shm", 0, "in\n"},
        {"!timeout -s INT 1 shkv_demo --input /dev/shm/in --seconds 30; ls /dev/shm", 0,
         "~cleaning up\n\nin\n$"},
        {"!shkvctl create mine -q; shkv_demo --input /dev/shm/in --seconds 0.1 > /dev/null; shkvctl ls --json",
         0, "~^\\{\"store\":\"mine\"[^\n]*\n$"},
    });
}
} // namespace
