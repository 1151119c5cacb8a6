// The table of subcommands. Help is made from it, and whatever else describes the tool can be:
// every command names itself, its examples, and a function that declares its arguments.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "args/arguments.h"

struct Example {
    const char *line; // what one types
    const char *does; // what it does, in a few words
};

// Options that every subcommand takes, and what the run shares.
struct Context {
    bool json = false;
    bool quiet = false;
    std::string log_path;
};

using Run = std::function<int()>; // returns an exit code; failures are thrown (see Failure)

struct Command {
    const char *name;
    const char *alias; // another name, or null
    const char *group; // heading in the list of commands
    const char *summary;
    const char *about; // a paragraph for the command's own help, lines as they are to stand
    std::vector<Example> examples;
    Run (*setup)(Arguments &app, Context &ctx); // declares arguments; the result runs after parsing
};

const std::vector<const Command *> &commands();
const Command *find_command(const std::string &name);

void add_common_options(Arguments &app, Context &ctx); // --json, --quiet, --log, --help
std::string help_all();
std::string help_of(const Arguments &app, const Command &command);

extern const Command cmd_create, cmd_destroy, cmd_ls, cmd_stat, cmd_set_opts, cmd_reshape;
extern const Command cmd_set, cmd_get, cmd_del, cmd_scan, cmd_load, cmd_apply, cmd_txn;
extern const Command cmd_limits, cmd_cleanup, cmd_check, cmd_dump;
extern const Command cmd_trace, cmd_who, cmd_doctor, cmd_gc, cmd_top, cmd_completion;
