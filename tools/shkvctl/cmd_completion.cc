// completion: scripts that complete shkvctl's command lines, and the table of commands itself, all
// made from the commands as they declare themselves.
#include <ctype.h>
#include <string.h>

#include <algorithm>

#include "shkvctl/common.h"

namespace
{
struct Args {
    std::string shell;
};

struct Opt {
    std::vector<std::string> names; // "-f", "--follow"
    std::string takes, words;       // takes: "" for a flag
    bool file() const
    {
        return takes == "FILE";
    }
};

struct DescribedCommand {
    const Command *command;
    std::vector<Opt> options, arguments; // the name of an argument is names[0]
};

std::string upper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return (char)toupper(c); });
    return text;
}

DescribedCommand describe(const Command &command)
{
    Context ctx;
    Arguments app;
    Run run = command.setup(app, ctx);
    add_common_options(app, ctx);
    DescribedCommand all = {&command, {}, {}};
    for (const Described &opt : app.described()) {
        if (opt.positional)
            all.arguments.push_back({opt.names, opt.many ? "..." : "", opt.words});
        else
            all.options.push_back({opt.names, upper(opt.takes), opt.words});
    }
    return all;
}

std::vector<DescribedCommand> describe_all()
{
    std::vector<DescribedCommand> all;
    for (const Command *command : commands())
        all.push_back(describe(*command));
    return all;
}

std::string join(const std::vector<std::string> &words)
{
    return fmt::format("{}", fmt::join(words, " "));
}

// ---- bash ----

std::string bash_script()
{
    std::string names, options, files, stores;
    for (const DescribedCommand &d : describe_all()) {
        std::vector<std::string> all;
        for (const Opt &opt : d.options) {
            all.insert(all.end(), opt.names.begin(), opt.names.end());
            if (opt.file())
                files += fmt::format("{}{}:{}", files.empty() ? "" : "|", d.command->name,
                                     fmt::join(opt.names, fmt::format("|{}:", d.command->name)));
        }
        names += std::string(names.empty() ? "" : " ") + d.command->name;
        options += fmt::format("    {}) options=\"{}\" ;;\n", d.command->name, join(all));
        if (!d.arguments.empty() && d.arguments[0].names[0] == "STORE")
            stores += std::string(stores.empty() ? "" : "|") + d.command->name;
    }
    return fmt::format(R"script(# bash completion for shkvctl, made by: shkvctl completion bash
_shkvctl() {{
    local word=${{COMP_WORDS[COMP_CWORD]}} command=${{COMP_WORDS[1]}} last=${{COMP_WORDS[COMP_CWORD-1]}} options=
    COMPREPLY=()
    if [ "$COMP_CWORD" = 1 ]; then
        COMPREPLY=($(compgen -W "{} help --help --version" -- "$word"))
        return
    fi
    case $command:$last in
    {}) COMPREPLY=($(compgen -f -- "$word")); return ;;
    esac
    case $command in
{}    help) options="{}" ;;
    esac
    case $command:$word in
    help:*|*:-*) COMPREPLY=($(compgen -W "$options" -- "$word")); return ;;
    esac
    case $command in
    {}) COMPREPLY=($(compgen -W "$(ls -- /dev/shm/shkvdb 2> /dev/null)" -- "$word") $(compgen -f -- "$word")) ;;
    esac
}}
complete -o filenames -F _shkvctl shkvctl
)script",
                       names, files, options, names, stores);
}

// ---- zsh ----

// A text between the single quotes of what _arguments takes.
std::string quoted(const std::string &words)
{
    std::string text;
    for (char c : words)
        text += c == '\'' ? "'\\''" : std::string(strchr("[]:\\", c) ? "\\" : "") + c;
    return text;
}

std::string zsh_option(const Opt &opt)
{
    std::string action = opt.takes.empty() ? "" : fmt::format(":{}:{}", opt.takes, opt.file() ? "_files" : " ");
    std::string text;
    for (const std::string &name : opt.names) {
        std::string others = opt.names.size() > 1 ? "(" + join(opt.names) + ")" : "";
        text += fmt::format("        '{}{}[{}]{}' \\\n", others, name, quoted(opt.words), action);
    }
    return text;
}

std::string zsh_script()
{
    std::string list, cases;
    for (const DescribedCommand &d : describe_all()) {
        list += fmt::format("        '{}:{}'\n", d.command->name, quoted(d.command->summary));
        cases += fmt::format("    {})\n        _arguments \\\n", d.command->name);
        for (const Opt &opt : d.options)
            cases += zsh_option(opt);
        bool store = !d.arguments.empty() && d.arguments[0].names[0] == "STORE";
        cases += fmt::format("        {}'*:file:_files'\n        ;;\n",
                             store ? "'1:store:($(ls -- /dev/shm/shkvdb 2> /dev/null))' " : "");
    }
    return fmt::format(R"script(#compdef shkvctl
# zsh completion for shkvctl, made by: shkvctl completion zsh
_shkvctl() {{
    local -a list=(
{}    )
    if (( CURRENT == 2 )); then
        _describe command list
        return
    fi
    shift words
    (( CURRENT-- ))
    case $words[1] in
{}    help) _describe command list ;;
    esac
}}
_shkvctl "$@"
)script",
                       list, cases);
}

// ---- The table, for programs ----

Json json_options(const std::vector<Opt> &options)
{
    Json list = Json::array();
    for (const Opt &opt : options) {
        Json obj = {{"names", opt.names}, {"words", opt.words}};
        if (!opt.takes.empty())
            obj["takes"] = opt.takes;
        list.push_back(obj);
    }
    return list;
}

Json json_table()
{
    Json list = Json::array();
    for (const DescribedCommand &d : describe_all()) {
        Json examples = Json::array();
        for (const Example &example : d.command->examples)
            examples.push_back({{"line", example.line}, {"does", example.does}});
        list.push_back({{"name", d.command->name},
                        {"group", d.command->group},
                        {"summary", d.command->summary},
                        {"about", d.command->about},
                        {"arguments", json_options(d.arguments)},
                        {"options", json_options(d.options)},
                        {"examples", examples}});
        if (d.command->alias)
            list.back()["alias"] = d.command->alias;
    }
    return list;
}

int completion(const Args &args, const Context &ctx)
{
    if (ctx.json)
        print_json({{"commands", json_table()}});
    else if (args.shell.empty())
        throw Failure::usage("which shell: bash or zsh? (or --json: the table of commands)");
    else
        fmt::print(out(), "{}", args.shell == "bash" ? bash_script() : zsh_script());
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("SHELL", args->shell, "bash or zsh").one_of({"bash", "zsh"});
    return [args, &ctx] { return completion(*args, ctx); };
}
} // namespace

const Command cmd_completion = {
    "completion",
    nullptr,
    "Other",
    "print a script that completes command lines, or the table of commands",
    "Packages install the scripts where the shells look for them. With --json it prints all commands,\n"
    "their arguments, options and examples, from which the manual pages are made.",
    {{"source <(shkvctl completion bash)", "complete in this shell from now on"},
     {"shkvctl completion zsh > ~/.zfunc/_shkvctl", "for zsh, with that folder in fpath"},
     {"shkvctl completion --json", "the table of commands"}},
    setup};
