// The table of subcommands, and the help that is made from it.
#include "shkvctl/commands.h"

#include <fmt/format.h>

#include <algorithm>

#include "shkvctl/text.h"

const std::vector<const Command *> &commands()
{
    static const std::vector<const Command *> table = {
        &cmd_create,     &cmd_ls,      &cmd_stat,   &cmd_destroy,           // stores
        &cmd_set,        &cmd_get,     &cmd_del,    &cmd_scan,              // records
        &cmd_load,       &cmd_dump,    &cmd_apply,  &cmd_txn,               // many records
        &cmd_set_opts,   &cmd_reshape, &cmd_limits, &cmd_cleanup, &cmd_gc,  // upkeep
        &cmd_check,      &cmd_doctor,  &cmd_who,    &cmd_trace,   &cmd_top, // diagnosis
        &cmd_completion,
    };
    return table;
}

const Command *find_command(const std::string &name)
{
    for (const Command *command : commands())
        if (name == command->name || (command->alias && name == command->alias))
            return command;
    return nullptr;
}

void add_common_options(Arguments &app, Context &ctx)
{
    app.add_flag("--json", ctx.json, "Print JSON: one line per answer");
    app.add_flag("-q,--quiet", ctx.quiet, "Print nothing but what was asked for and errors");
    app.add_option("--log", ctx.log_path, "Append the library's own log to this file").type_name("FILE");
    app.add_help("Print this help");
}

std::string help_all()
{
    std::string text = "shkvctl: look into, fill and look after key/value stores in shared memory\n\n"
                       "usage: shkvctl COMMAND [ARGUMENTS] [OPTIONS]\n";
    const char *group = "";
    for (const Command *command : commands()) {
        if (std::string(group) != command->group)
            text += fmt::format("\n{}\n", command->group);
        group = command->group;
        text += fmt::format("  {:<10} {}\n", command->name, command->summary);
    }
    text += "\nshkvctl COMMAND --help tells all about a command, with examples. Every command takes\n"
            "--json (output for programs), --quiet, and --log FILE (the library's own log).\n\n"
            "A store is named by a uri: what stands before the first ':' is dropped, so svc:cache is\n"
            "the store cache. Stores live in /dev/shm until they are destroyed or the machine stops.\n\n"
            "exit codes: 0 done, 1 not found, 2 wrong usage, 3 error\n";
    return text;
}

// One option or argument: its names, what it takes, and its words wrapped beside a margin.
static std::string option_lines(const std::string &left, const std::string &words)
{
    constexpr size_t margin = 22, width = 96;
    std::string text = "  " + left;
    size_t col = text.size();
    if (col + 2 > margin) {
        text += "\n";
        col = 0;
    }
    text.append(margin - col, ' ');
    col = margin;
    for (size_t at = 0; at < words.size();) {
        size_t end = std::min(words.find(' ', at), words.size());
        if (col + (end - at) > width) {
            text += "\n" + std::string(margin, ' ');
            col = margin;
        }
        text += words.substr(at, end - at) + " ";
        col += end - at + 1;
        at = end + 1;
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return text + "\n";
}

static std::string positional_usage(const Described &opt)
{
    std::string name = opt.names[0] + (opt.many ? "..." : "");
    return opt.required ? name : "[" + name + "]";
}

std::string help_of(const Arguments &app, const Command &command)
{
    std::string usage = fmt::format("usage: shkvctl {}", command.name), args, opts;
    for (const Described &opt : app.described()) {
        if (opt.positional) {
            usage += " " + positional_usage(opt);
            args += option_lines(opt.names[0], opt.words);
            continue;
        }
        std::string takes = (opt.takes.empty() ? "" : " ") + opt.takes;
        opts += option_lines(fmt::format("{}", fmt::join(opt.names, ",")) + takes, opt.words);
    }
    std::string text = fmt::format("{} [options]\n\n{}\n", usage, command.about);
    if (command.alias)
        text += fmt::format("\nAlso called {}.\n", command.alias);
    if (!args.empty())
        text += "\narguments\n" + args;
    text += "\noptions\n" + opts + "\nexamples\n";
    for (const Example &example : command.examples)
        text += fmt::format("  {}\n      {}\n", example.line, example.does);
    return text;
}
