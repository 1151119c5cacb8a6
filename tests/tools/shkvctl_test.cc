// shkvctl and the demo as their users meet them: command lines, exit codes, and what they print. Each
// story is a list of lines run by a shell one after the other in a /dev/shm of its own.
#include "tools/play.h"

TEST(shkvctl, records_go_in_and_come_out)
{
    play({
        {"ls", 0, "there are no stores; make one with: shkvctl create NAME\n"},
        {"get s k", 3, "shkvctl get: store 's' does not exist (ENOENT); see all stores with: shkvctl ls; make it "
                       "with: shkvctl create s\n"},
        {"get s k --json", 3,
         R"(~^\{"error":"store 's' does not exist","command":"get","errno":2,"errno_name":"ENOENT","hint":"see all )"},
        {"create s", 0, "~keys to 16 bytes, values to 32, room for 2,010 records, 140.0 KiB"},
        {"create s", 3, "~store 's' exists already"},
        {"set s k v", 0, "stored k, 1 byte\n"},
        {"set s k longer", 0, "replaced k, 6 bytes\n"},
        {"set s -q -- -n -5", 0, ""},
        {"get s k", 0, "longer\n"},
        {"get s -- -n k x", 1, "-n\t-5\nk\tlonger\nshkvctl get: store 's' has no key 'x'\n"},
        {"get s x k --json", 1, "{\"key\":\"x\",\"found\":false}\n{\"key\":\"k\",\"found\":true,\"value\":\"longer\"}\n"},
        {"set s --hex 00ff 0a5c", 0, "stored \\x00\\xff, 2 bytes\n"},
        {"get s --hex 00ff", 0, "0a5c\n"},
        {"get s --hex 00ff --raw", 0, "\n\\"},
        // Output that is lost is a failure, and output that nobody asked for is none.
        {"!for o in 'k --raw' k '--hex 00ff --raw' '--help'; do shkvctl get s $o > /dev/full; echo $?; done", 0,
         "~^(.*No space left.*\n3\n){4}$"},
        {"!shkvctl get s k --raw >&-; shkvctl --help >&- 2>&-; echo $?; shkvctl set s k longer -q >&-", 0,
         "~^.*Bad file descriptor.*\n3\n$"},
        {"!printf 'a\\nb' | shkvctl set s f @-; shkvctl get s f", 0, "stored f, 3 bytes\na\nb\n"},
        {"scan s --prefix f", 0, "f\ta\\nb\n"},
        {"scan s --count", 0, "4\n"},
        {"set s k 123456789012345678901234567890123", 3, "~value of 'k' has 33 bytes, and store 's' takes 32"},
        {"set s 12345678901234567 v", 3, "~key '12345678901234567' has 17 bytes, and store 's' takes 16"},
        {"set s '' v", 3, "shkvctl set: a key has at least one byte (EINVAL)\n"},
        // The library's own line about a missing key stays out of the output.
        {"del s k x", 1, "shkvctl del: store 's' has no key 'x'\ndeleted 1 record\n"},
        {"ls", 0, "~s +0 +0 +fixed +158.4 KiB  -       ok\n$"},
        {"destroy s", 0, "destroyed store 's'\n"},
        {"destroy s", 3, "shkvctl destroy: store 's' does not exist (ENOENT); see all stores with: shkvctl ls\n"},
    });
}

TEST(shkvctl, wrong_usage_says_so)
{
    play({
        {"", 2, "~^shkvctl: look into.*\n"},
        {"nosuch", 2, "shkvctl: there is no command 'nosuch'\nsee: shkvctl --help\n"},
        {"nosuch --json", 2, "{\"error\":\"there is no command 'nosuch'\",\"command\":\"\"}\n"},
        {"!for n in -1 18446744073709551616 -18446744073709551615; do shkvctl scan s --limit $n; echo $?; "
         "shkvctl create s --entries $n; echo $?; done", 0, "~^(.*--(limit|entries).*\nsee: .*\n2\n){6}$"},
        {"set s", 2, "~KEY is required"},
        {"get s k --nope", 2, "~no option '--nope'"},
        {"get '' k", 2, "shkvctl get: '' names no store\n"},
        {"create a:b:c", 2, "~two ':'"},
        {"create s --key-max 257", 2, "~not in range"},
        {"create s --hash md5", 2, "~md5"},
        {"create ovo_shkv_registry_db", 2, "~registry"},
        {"set s --hex 0g 00", 2, "~no hex"},
        {"load s --txn --batch 3", 2, "~exclude"},
        {"txn begin s", 2, "~begin"},
        {"set-opts s", 2, "~nothing to set"},
        {"cleanup 0", 2, "~--yes"},
        {"destroy ovo_shkv_registry_db", 2, "~is not destroyed"},
        {"!shkvctl create r -q; r=x:ovo_shkv_registry_db; shkvctl get $r r | wc -c; for c in \"set $r k v\" \"del $r r\" \"load $r\" "
         "\"reshape $r\" \"txn start $r\" \"set-opts $r --grow off\"; do shkvctl $c < /dev/null 2> /dev/null; echo $?; done | "
         "uniq; shkvctl destroy r", 0, "~^[1-9][0-9]*\n2\ndestroyed store 'r'\n$"},
        {"completion fish", 2, "~fish"},
        {"!shkvctl --help | sed -n 's/^  \\([a-z-]*\\) .*/\\1/p' | while read c; do shkvctl $c --help | grep -qz "
         "'^usage: shkvctl.*--json.*examples' || echo $c; done; shkvctl --help | grep -c '^  [a-z]'", 0, "~^2[0-9]\n$"},
        // Completion: the scripts parse, and know commands, options and stores.
        {"!shkvctl create mystore -q; shkvctl completion bash > /dev/shm/c; bash -n /dev/shm/c", 0, ""},
        {R"(!bash -c '. /dev/shm/c; c() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _shkvctl; echo "${COMPREPLY[*]}"; }
            c shkvctl tra; c shkvctl trace --fo; c shkvctl stat my; c shkvctl stat --map /dev/shm/shkvd')",
         0, "trace\n--follow\nmystore\n/dev/shm/shkvdb\n"},
        {"!shkvctl completion zsh > /dev/shm/z; grep -q _arguments /dev/shm/z && ! command -v zsh > /dev/null || zsh -n "
         "/dev/shm/z", 0, ""},
    });
}

TEST(shkvctl, loads_whole_files_or_nothing)
{
    play({
        {"create s --entries 10 -q", 0, ""},
        {"!seq 100 | sed 's/.*/k&\\tv&/' > /dev/shm/all; (head -50 /dev/shm/all; echo bad) > /dev/shm/half", 0, ""},
        {"load s /dev/shm/half", 3, "~half, line 51: no tab.*50 records were stored before"},
        {"load s /dev/shm/half --txn", 3, "~line 51.*nothing was stored"},
        {"txn status s", 1, "store 's' has no open transaction\n"},
        {"scan s --count", 0, "50\n"},
        {"load s /dev/shm/all --batch 31", 0, "~^loaded 100 records in "},
        {"!shkvctl create t --vector -q && shkvctl scan s | shkvctl load t -q && shkvctl scan s --json | shkvctl load t "
         "--txn", 0, "~^loaded 100 records"},
        {"!cd /dev/shm; for s in s t; do shkvctl scan $s | sort > $s; done; sort all | cmp s - && cmp s t", 0, ""},
        {R"(!printf '%s\n' '{"key_hex":"00ff","value":"t\tab"}' 'plain\\\x41	x' | shkvctl load t -q; )"
         R"(shkvctl get t --hex 00ff; shkvctl get t 'plain\A')", 0, "74096162\nx\n"},
        // Records whose line would pass for JSON, or for a dump's own, and one whose line does not.
        {R"(!shkvctl create j -q; j() { shkvctl set j "$1" "$2" -q; }; j '{"key":"x",' '"value":"y"}'; j '{x}:1' z; )"
         R"(j '{"shkv_dump":1' '}'; cd /dev/shm; shkvctl scan j | tee j1 | sort -r; shkvctl dump j -q --format tsv > j2; )"
         "for i in 1 2; do shkvctl create c$i -q; shkvctl load c$i j$i -q; shkvctl scan c$i | cmp - j1; done", 0,
         "{x}:1\tz\n\\x7b\"shkv_dump\":1\t}\n\\x7b\"key\":\"x\",\t\"value\":\"y\"}\n"},
        // However deep a line is nested, it is a bad line.
        {R"(!nest() { echo "{\"key\":\"k\",\"value\":\"v\",\"x\":$(printf "[%.0s" $(seq $1))$(printf "]%.0s" $(seq $1))}"; }; )"
         "nest 60 | shkvctl load t -q && nest 70 | shkvctl load t", 3, "~line 1: no JSON object"},
        {"!head -c 300000 /dev/zero | tr '\\0' '[' > /dev/shm/deep; shkvctl apply t /dev/shm/deep; "
         "(printf '{\"a\":'; cat /dev/shm/deep; tr [ ] < /dev/shm/deep; echo }) | shkvctl load t", 3,
         "~^.*apply: .*line 1: no JSON object(.|\n)*load: .*line 1: no JSON object"},
    });
}

TEST(shkvctl, a_full_store_says_what_to_do)
{
    play({
        {"create s --entries 10 -q", 0, ""},
        {"set-opts s --grow off", 0, "~keeps its size"},
        {"!seq 300 | sed 's/.*/k&\\tv/' > /dev/shm/in; seq 200000 | sed 's/.*/k&\\tv/' > /dev/shm/big", 0, ""},
        {"load s /dev/shm/in --txn", 3, "~full, and does not grow by itself \\(nothing was stored\\) \\(ENOMEM\\); let it "
                                        "grow with: shkvctl set-opts s --grow on"},
        {"resize s --grow on --slice 0", 0, "~grows when it is full; a table rebuild works without a pause"},
        {"load s /dev/shm/in", 0, "~300 records"},
        {"!SYSMGR_MMAP_LIMIT=1 shkvctl limits | grep one.store", 0, "~4.0 MiB"},
        {"create big --entries 100000 -q", 0, ""},
        {"!SYSMGR_MMAP_LIMIT=1 shkvctl load big /dev/shm/big", 3, "~may not grow: this process is allowed 4.0 MiB"},
        {"load big /dev/shm/big -q", 0, ""},
        {"create far --entries 10000000", 3, "~'far' would take .* MiB, and this process may make stores of 32.0 MiB"},
        {"create mine --uuid 7 --entries 300000 -q", 0, ""},
        {"create more --uuid 7 --entries 300000", 3, "~more than is left of the budget of service 7"},
        {"!head -c 256M /dev/zero 2> /dev/null > /dev/shm/fill; shkvctl create free", 3,
         "~'free' takes .*, and /dev/shm has no room for it \\(ENOMEM\\); see .*doctor\n$"},
        {"limits --uuid 7 --json", 0, "~\"services\":\\[\\{\"uuid\":7,\"stores\":1,"},
    });
}

TEST(shkvctl, a_transaction_outlives_its_processes_and_apply_is_all_or_nothing)
{
    play({
        {"!shkvctl create s --entries 20 -q; shkvctl set s a 1 -q; shkvctl set s b 2 -q", 0, ""},
        {"txn start s", 0, "~changes to 's' wait"},
        {"txn start s", 3, "~has a transaction open already"},
        {"set s c 3", 0, "~waits for: shkvctl txn commit s\nstored c"},
        {"del s a", 0, "~waits for"},
        {"get s a", 0, "1\n"},
        {"txn status s --json", 0, R"({"store":"s","open":true,"committing":false,"sets":1,"deletes":1,"writer_tid":0,)"
                                   "\"writer_lives\":false}\n"},
        {"reshape s", 3, "~it has an open transaction"},
        {"txn commit s", 0, "committed 1 set and 1 delete\n"},
        {"get s a c", 1, "shkvctl get: store 's' has no key 'a'\nc\t3\n"},
        {"txn abort s", 1, "store 's' has no open transaction\n"},
        {R"(!cd /dev/shm; op() { echo "{\"op\":\"$1\",\"key\":\"$2\"${3+,\"value\":\"$3\"}}"; }; (op set d 4; op del b; )"
         "op del zz; op del d) > c; seq 500 | while read i; do op set k$i v; done > many; (op del c; cat many) > full; "
         "(cat full; op set b) > bad; (cat c; op set 12345678901234567 '') > long", 0, ""},
        {"apply s /dev/shm/c --dry-run", 0, "would apply: 1 added, 0 replaced, 2 deleted, 1 to delete not there\n"},
        {"apply s /dev/shm/c", 0, "applied: 1 added, 0 replaced, 2 deleted, 1 to delete not there\n"},
        {"!for c in 'apply s - --dry-run' 'load new - --create'; do sleep .5 | timeout --preserve-status -s INT .2 shkvctl $c; "
         "done", 130, "~apply: interrupted: nothing was changed\n.*load: interrupted: nothing was stored\n"},
        {"apply s /dev/shm/long", 3, "~takes 16 at most"},
        {"!echo '{\"op\":\"put\"}' | shkvctl apply s -", 3, "~line 1: \"op\" is neither"},
        {"set-opts s --grow off -q", 0, ""},
        {"apply s /dev/shm/full", 3, "~is full, and does not grow"},
        {"apply s /dev/shm/bad", 3, "~line 502: \"value\" is missing"},
        {"apply s /dev/shm/full --dry-run", 0, "would apply: 500 added, 0 replaced, 1 deleted\n"},
        {"scan s", 0, "c\t3\n"},
        {"set-opts s --grow on -q", 0, ""},
        {"apply s /dev/shm/full", 0, "applied: 500 added, 0 replaced, 1 deleted\n"},
        {"check s --strict", 0, "s: ok, 500 records\n"},
        {"create m --multi-writer -q", 0, ""},
        {"txn start m", 3, "~allows several writers, and so has no transactions"},
    });
}

TEST(shkvctl, a_reshape_moves_all_records)
{
    play({
        {"!shkvctl create s -q; seq 1000 | sed 's/.*/k&\\tv&/' > /dev/shm/all; shkvctl load s /dev/shm/all -q", 0, ""},
        {"reshape s --space 8K", 3, "~a space of 8.0 KiB holds 22 records, and it has 1,000"},
        {"reshape s --table-size 5000 --space 1M --hash djbhash", 0,
         "reshaped store 's', 1,000 records\n  table   1,759 -> 5,003 buckets, dekhash -> djbhash\n  space   "
         "140.0 KiB -> 1.0 MiB\n"},
        {"!shkvctl scan s | sort > /dev/shm/1; sort /dev/shm/all | cmp - /dev/shm/1", 0, ""},
        {"stat s", 0, "~table MD2 in force(.|\n)*MD2 +in force +5,003 .* 1,000 .* djbhash(.|\n)*UD2 +in force +1.0 MiB"},
        {"!shkvctl create v --vector -q; shkvctl reshape v", 3, "~only stores with records of fixed size"},
    });
}

TEST(shkvctl, a_living_writer_is_named_and_a_dead_one_replaced)
{
    const char *named = "~store 's' has a writer: thread [0-9]+ \\(t_tools\\)";
    play({{"!SYSMGR_VDC_ID=7 shkvctl create s -q; shkvctl set s k v -q; shkvctl create forced -q", 0, ""}});
    Holder holder("s"), forced("forced");
    go_on({{"set s k w", 3, named},
           {"del s k", 3, named},
           {"destroy s", 3, named},
           {"set-opts s --grow off", 3, named},
           {"cleanup 7", 3, named},
           {"get s k", 0, "v\n"},
           {"stat s", 0, "~\\(t_tools\\)"},
           {"destroy --force forced", 0, "destroyed store 'forced'\n"}});
    holder.die();
    go_on({{"ls", 0, "~s .*dead"},
           {"set s k w", 0, "replaced k, 1 byte\n"},
           {"cleanup 8", 1, "no store has VDC 8\n"},
           {"cleanup 7", 0, "destroyed s\n"},
           {"ls", 0, "~no stores"}});
}

TEST(shkv_demo, is_right_and_leaves_nothing)
{
    play({
        {"!for i in $(seq 3000); do printf 'Package: p%d\\nVersion: %d\\nDescription: text\\n more\\n\\n' $i $i; done > "
         "/dev/shm/in", 0, ""},
        {"!shkv_demo --input /dev/shm/in --seconds 1", 0, "~killed writer(.|\n)*took over: all(.|\n)*3,000 records with the "
                                                         "input: 0 missing, 0 wrong, 0 too many\n"},
        {"!ls /dev/shm", 0, "in\n"},
        {"!timeout -s INT 1 shkv_demo --input /dev/shm/in --seconds 30; ls /dev/shm", 0, "~cleaning up\n\nin\n$"},
        {"!shkvctl create mine -q; shkv_demo --input /dev/shm/in --seconds 0.1 > /dev/null; shkvctl ls --json", 0,
         "~^\\{\"store\":\"mine\"[^\n]*\n$"},
    });
}
