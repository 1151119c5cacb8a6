// The manual pages are made from the commands as these declare themselves: docs/man holds what
// scdoc takes. RENEW=1 writes them.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "tools/play.h"

namespace
{
using Json = nlohmann::ordered_json;

struct Page {
    const char *group, *file, *name;
};

constexpr Page pages[] = {
    {"Stores", "shkvctl-stores", "make, list, look into, change and destroy stores"},
    {"Records", "shkvctl-records", "set, get, delete and list records"},
    {"Many records at once", "shkvctl-bulk", "load, dump and change many records"},
    {"Upkeep", "shkvctl-upkeep", "limits, growth, reshaping and clearing up"},
    {"Diagnosis", "shkvctl-diagnosis", "find out what a store does and what is wrong"},
    {"Other", "shkvctl", "look into, fill and look after key/value stores in shared memory"},
};

// Text as scdoc takes it literally.
std::string plain(const std::string &words)
{
    std::string text;
    for (size_t i = 0; i < words.size(); i++) {
        bool start = i == 0 || words[i - 1] == '\n';
        if (strchr("\\*_`<[", words[i]) || (start && strchr("-#|.;", words[i])))
            text += '\\';
        text += words[i];
    }
    return text;
}

std::string option_text(const Json &opt)
{
    std::string names;
    for (const auto &name : opt["names"])
        names += (names.empty() ? "*" : ", *") + plain(name.get<std::string>()) + "*";
    if (opt.contains("takes") && opt["takes"] != "...")
        names += " _" + opt["takes"].get<std::string>() + "_";
    return names + "\n\t" + plain(opt["words"]) + "\n\n";
}

std::string command_text(const Json &command)
{
    std::string usage;
    for (const auto &arg : command["arguments"])
        usage += " " + arg["names"][0].get<std::string>() + (arg.value("takes", "") == "..." ? "..." : "");
    std::string text = fmt::format("## shkvctl {}{} [options]\n\n{}\n\n", command["name"].get<std::string>(),
                                   usage, plain(command["about"]));
    if (command.contains("alias"))
        text += fmt::format("Also called {}.\n\n", command["alias"].get<std::string>());
    for (const char *part : {"arguments", "options"})
        for (const auto &opt : command[part])
            text += option_text(opt);
    text += "Examples:\n\n";
    for (const auto &example : command["examples"])
        text += fmt::format("```\n{}\n```\n{}\n\n", example["line"].get<std::string>(), plain(example["does"]));
    return text;
}

// The first page: all commands, and what holds for each of them.
std::string overview(const Json &table)
{
    std::string text = "# SYNOPSIS\n\n*shkvctl* _COMMAND_ [_ARGUMENTS_] [_OPTIONS_]\n\n# COMMANDS\n\n";
    for (const auto &command : table)
        text += fmt::format("*{}*\n\t{}\n\n", command["name"].get<std::string>(), plain(command["summary"]));
    return text + "# EXIT CODES\n\n*0*\n\tdone\n\n*1*\n\tnot found\n\n*2*\n\twrong usage\n\n*3*\n\terror, "
                  "damage or a problem\n\n"
                  "# ENVIRONMENT\n\n*SYSMGR\\_MMAP\\_LIMIT*\n\tbytes that a store, and all stores of a service "
                  "together, may "
                  "take\n\n*SYSMGR\\_VDC\\_ID*\n\tnumber kept with each store that is made\n\n# "
                  "FILES\n\n_/dev/shm/shkvdb_, "
                  "_/dev/shm/shkvmu_\n\tthe objects of all stores\n\n# SEE ALSO\n\n*shkvctl-stores*(1), "
                  "*shkvctl-records*(1), "
                  "*shkvctl-bulk*(1), *shkvctl-upkeep*(1), *shkvctl-diagnosis*(1)\n\n";
}

std::string page_text(const Page &page, const Json &table)
{
    std::string text = fmt::format("{}(1)\n\n# NAME\n\n{} - {}\n\n", page.file, page.file, page.name);
    if (std::string(page.file) == "shkvctl")
        text += overview(table);
    text += "# USE\n\n";
    for (const auto &command : table)
        if (command["group"] == page.group)
            text += command_text(command);
    return text;
}

TEST(man, pages_are_what_the_commands_say)
{
    int exit_code = 0;
    Json table = Json::parse(run("completion --json", &exit_code))["commands"];
    for (const auto &command : table)
        EXPECT_TRUE(std::any_of(std::begin(pages), std::end(pages),
                                [&](const Page &page) { return command["group"] == page.group; }))
            << command["name"] << " is on no page";
    for (const Page &page : pages) {
        std::string path = std::string(SHKV_SOURCE_DIR "/docs/man/") + page.file + ".1.scd",
                    text = page_text(page, table);
        if (getenv("RENEW")) {
            std::filesystem::create_directories(SHKV_SOURCE_DIR "/docs/man");
            std::ofstream(path) << text;
        }
        std::ifstream in(path);
        std::stringstream there;
        there << in.rdbuf();
        EXPECT_EQ(there.str(), text) << page.file << ": renew it with: ./dev renew";
    }
}

// The scripts parse, and complete what the table has.
TEST(man, completion_knows_commands_options_and_stores)
{
    play({
        {"!shkvctl create mystore -q; shkvctl completion bash > /dev/shm/c; bash -n /dev/shm/c", 0, ""},
        {"!bash -c '. /dev/shm/c; c() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); _shkvctl; echo "
         "\"${COMPREPLY[*]}\"; }; "
         "c shkvctl tra; c shkvctl trace --fo; c shkvctl stat my; c shkvctl help des; c shkvctl stat --map "
         "/dev/shm/shkvd'",
         0, "trace\n--follow\nmystore\ndestroy\n/dev/shm/shkvdb\n"},
        {"!shkvctl completion zsh > /dev/shm/z; grep -c '_arguments' /dev/shm/z; ! command -v zsh > /dev/null "
         "|| zsh -n "
         "/dev/shm/z",
         0, "~^[0-9]+\n$"},
        {"completion", 2, "~which shell"},
        {"completion fish", 2, "~fish"},
    });
}
} // namespace
