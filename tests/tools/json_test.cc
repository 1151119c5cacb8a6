// docs/json.md against what the commands print: every member that is printed is on the page with
// its type, every member of the page is printed, and one that is not marked '?' is always there.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "support/main.h"
#include "tools/play.h"

namespace
{
using Json = nlohmann::json;

struct Member {
    std::string type;
    bool optional;
    bool seen = false;
};
using Page = std::map<std::string, std::map<std::string, Member>>; // by command, by path

// Rows "| `path` ? | type | ..." under "## command".
Page read_page()
{
    Page page;
    std::ifstream in(SHKV_SOURCE_DIR "/docs/json.md");
    std::string line, command;
    while (std::getline(in, line)) {
        if (line.starts_with("## "))
            command = line.substr(3);
        size_t end = line.find('`', 3), type = line.find("| ", end), stop = line.find(" |", type);
        if (!line.starts_with("| `") || stop == std::string::npos)
            continue;
        page[command][line.substr(3, end - 3)] = {line.substr(type + 2, stop - type - 2),
                                                  line.substr(end + 1, type - end - 1).find('?') !=
                                                      std::string::npos};
    }
    page["dump"].erase("shkv_dump");
    page["dump"].erase("shkv_dump_end");
    return page;
}

std::string type_of(const Json &value)
{
    return value.is_string()    ? "string"
           : value.is_boolean() ? "bool"
           : value.is_number()  ? "number"
           : value.is_object()  ? "object"
                                : "list";
}

class Checker
{
  public:
    explicit Checker(Page &page, const std::string &command) : members_(page[command]) {}

    void check(const Json &obj, const std::string &prefix = "")
    {
        std::set<std::string> there;
        for (auto &[name, value] : obj.items())
            there.insert(check_member(prefix, name, value));
        for (auto &[path, member] : members_) {
            size_t dot = path.find_last_of('.');
            bool here = (dot == std::string::npos ? "" : path.substr(0, dot + 1)) == prefix;
            EXPECT_TRUE(!here || member.optional || there.contains(path)) << path << " is not in " << obj;
        }
    }

  private:
    bool has_members(const std::string &prefix) const
    {
        auto it = members_.lower_bound(prefix);
        return it != members_.end() && it->first.starts_with(prefix);
    }

    // Its path as the page has it.
    std::string check_member(const std::string &prefix, const std::string &name, const Json &value)
    {
        std::string path = prefix + name;
        bool hex = path.ends_with("_hex") && !members_.contains(path);
        auto it = members_.find(hex ? path.substr(0, path.size() - 4) : path);
        if (it == members_.end()) {
            ADD_FAILURE() << path << " is not on the page";
            return path;
        }
        Member &member = it->second;
        member.seen = true;
        std::string type = member.type == "bytes" ? "string" : member.type.substr(0, member.type.find(' '));
        EXPECT_EQ(type, type_of(value)) << path;
        if (has_members(path + "."))
            check(value, path + ".");
        size_t of = member.type.find(" of ");
        for (const Json &each : value) {
            if (has_members(path + "[]."))
                check(each, path + "[].");
            if (of != std::string::npos) {
                EXPECT_EQ(type_of(each), member.type.substr(of + 4)) << path;
            }
        }
        return it->first;
    }

    std::map<std::string, Member> &members_;
};

TEST(shkvctl_json, is_what_its_page_says)
{
    ASSERT_TRUE(remount_shm("256m"));
    Page page = read_page();
    const char *setup =
        "!cd /dev/shm; for i in 1 2 3; do echo "
        "\"{\\\"op\\\":\\\"set\\\",\\\"key\\\":\\\"a$i\\\",\\\"value\\\":\\\"\\\"}\"; done > ch;"
        "seq 3000 | sed 's/.*/k&\\tv/' > in; shkvctl create gone -q; rm shkvdb/gone; cp "
        "shkvdb/ovo_shkv_registry_db shkvdb/stray";
    const char *poked = // bits that dead processes leave: a reshape token, a rebuild that waits
        "!shkvctl create t1 -q; shkvctl create t2 -q; cd /dev/shm/shkvdb; printf '\\020' | dd of=t1 bs=1 "
        "seek=81 "
        "conv=notrunc 2> /dev/null; printf '\\100' | dd of=t2 bs=1 seek=81 conv=notrunc 2> /dev/null";
    const std::pair<const char *, const char *> lines[] = {
        {"", setup},
        {"create", "create s --uuid 7 --json"},
        {"create", "create v --vector --json"},
        {"set", "set s a b --json"},
        {"set", "set s --hex ff 00 --json"},
        {"get", "get s a none --json"},
        {"get", "get s --hex ff --json"},
        {"scan", "scan s --json"},
        {"scan", "scan s --count --json"},
        {"del", "del s a none --json"},
        {"load", "load s /dev/shm/in --json"},
        {"dump", "dump s /dev/shm/d --json"},
        {"apply", "apply s /dev/shm/ch --json"},
        {"apply", "apply s /dev/shm/ch --dry-run --json"},
        {"set-opts", "set-opts s --slice 9 --json"},
        {"ls", "ls --json"},
        {"ls", "ls -r --json"},
        {"stat", "stat s --json"},
        {"check", "check --all --json"},
        {"who", "who s --json"},
        {"doctor", "doctor --json"},
        {"gc", "gc --json"},
        {"top", "top --json"},
        {"completion", "completion --json"},
        {"trace", "trace t1 --json"},
        {"txn", "txn status s --json"},
        {"txn", "txn start s --json"},
        {"", "set s b c"},
        {"txn", "txn status s --json"},
        {"stat", "stat s --json"},
        {"txn", "txn commit s --json"},
        {"", "txn start s"},
        {"txn", "txn abort s --json"},
        {"reshape", "reshape s --json"},
        {"limits", "limits --json"},
        {"cleanup", "cleanup 0 --dry-run --json"},
        {"Errors", "get nosuch k --json"},
        {"Errors", "get --json"},
        {"", poked},
        {"stat", "!printf '\\001' | dd of=/dev/shm/shkvdb/t1 bs=1 seek=84 conv=notrunc 2> /dev/null; shkvctl "
                 "stat t1 --json"},
        {"stat", "stat t2 --json"},
        {"", "create t2_iodb"},
        {"destroy", "destroy t2 --force --json"},
    };
    // What these tell of is seldom there.
    const std::set<std::string> seldom = {"", "who", "doctor", "gc", "trace", "completion"};
    std::set<std::string> met = {"Errors"};
    for (auto [command, line] : lines) {
        SCOPED_TRACE(line);
        if (!seldom.contains(command))
            met.insert(command);
        int exit_code = 0;
        std::string output = run(line, &exit_code), each;
        EXPECT_LE(exit_code, 3);
        std::istringstream in(*command ? output : "");
        while (std::getline(in, each)) {
            Json obj = Json::parse(each, nullptr, false);
            if (!obj.is_object())
                ADD_FAILURE() << "no JSON: " << each;
            else if (obj.contains("error"))
                Checker(page, "Errors").check(obj);
            else
                Checker(page, command).check(obj);
        }
    }
    // How far a rebuild is shows only in the middle of one.
    for (const std::string &command : met)
        for (auto &[path, member] : page[command])
            EXPECT_TRUE(member.seen || path == "rebuild.moved")
                << command << ": " << path << " was never printed";
}
} // namespace
