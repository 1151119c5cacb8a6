// shkvctl: parses the command line against the table of commands, runs one, and turns failures
// into words and exit codes.
#include <signal.h>
#include <string.h>

#include <algorithm>

#include "shkvctl/commands.h"
#include "shkvctl/common.h"

struct Bound {
    const Command *command;
    Arguments *app;
    Run run;
};

static int report(const Context &ctx, const Command &command, const Failure &failure)
{
    fflush(out());
    if (ctx.json) {
        Json error = {{"error", failure.what()}, {"command", command.name}};
        if (failure.err) {
            error["errno"] = failure.err;
            error["errno_name"] = errno_name(failure.err);
        }
        if (!failure.hint.empty())
            error["hint"] = failure.hint;
        fmt::print(stderr, "{}\n", error.dump());
    } else {
        std::string what = failure.what();
        if (failure.err && what.find(errno_name(failure.err)) == std::string::npos)
            what += fmt::format(" ({})", errno_name(failure.err));
        warn(what + (failure.hint.empty() ? "" : "; " + failure.hint));
    }
    return failure.exit_code;
}

static int run(const Context &ctx, const Bound &chosen)
{
    try {
        if (!ctx.log_path.empty() && shkv_debugs_on(ctx.log_path.c_str()) != 0)
            throw Failure(EXIT_ERROR, errno,
                          fmt::format("cannot write the log {}: {}", ctx.log_path, strerror(errno)));
        int exit_code = chosen.run();
        finish_output();
        return exit_code;
    } catch (const Failure &failure) {
        return report(ctx, *chosen.command, failure);
    } catch (const std::exception &error) {
        return report(ctx, *chosen.command, Failure(EXIT_ERROR, 0, error.what()));
    }
}

static int usage_error(const Context &ctx, const std::string &what, const char *command)
{
    if (ctx.json) {
        fmt::print(stderr, "{}\n", Json{{"error", what}, {"command", command}}.dump());
        return EXIT_USAGE;
    }
    warn(what);
    fmt::print(stderr, "see: shkvctl {}{}--help\n", command, *command ? " " : "");
    return EXIT_USAGE;
}

static int print_help(const std::string &text)
{
    try {
        fmt::print(out(), "{}", text);
        finish_output();
        return EXIT_OK;
    } catch (const std::exception &error) {
        warn(error.what());
        return EXIT_ERROR;
    }
}

int main(int argc, char **argv)
{
    take_over_stdout();
    std::string word = argc > 1 ? argv[1] : "--help";
    if (word == "--help" || word == "-h" || (word == "help" && argc == 2)) {
        int exit_code = print_help(help_all());
        return argc > 1 ? exit_code : EXIT_USAGE;
    }
    if (word == "--version")
        return print_help("shkvctl " SHKV_VERSION "\n");
    bool help = word == "help";
    const Command *command = find_command(help ? argv[2] : word);
    Context unparsed; // for a line that makes no sense
    unparsed.json = std::find(argv + 1, argv + argc, std::string("--json")) != argv + argc;
    if (!command)
        return usage_error(unparsed, fmt::format("there is no command '{}'", help ? argv[2] : word), "");

    name_command(command->name);
    Context ctx;
    Arguments app;
    Bound chosen = {command, &app, command->setup(app, ctx)};
    add_common_options(app, ctx);
    if (help)
        return print_help(help_of(app, *command));
    std::string why;
    Arguments::Parsed parsed = app.parse(argc - 1, argv + 1, &why);
    if (parsed == Arguments::HELP_WANTED)
        return print_help(help_of(app, *command));
    if (parsed == Arguments::WRONG)
        return usage_error(unparsed, why, command->name);
    return run(ctx, chosen);
}
