// Arguments, over CLI11.
#include "args/arguments.h"

#include <errno.h>
#include <stdlib.h>

#include <CLI/CLI.hpp>

Argument Argument::required()
{
    opt_->required();
    return *this;
}

Argument Argument::type_name(const std::string &name)
{
    opt_->type_name(name);
    return *this;
}

Argument Argument::range(int least, int most)
{
    opt_->check(CLI::Range(least, most));
    return *this;
}

Argument Argument::range(uint64_t least, uint64_t most)
{
    opt_->check(CLI::Range(least, most));
    return *this;
}

Argument Argument::range(double least, double most)
{
    opt_->check(CLI::Range(least, most));
    return *this;
}

Argument Argument::one_of(const std::vector<std::string> &words)
{
    opt_->check(CLI::IsMember(words));
    return *this;
}

bool Argument::given() const
{
    return opt_->count() > 0;
}

Arguments::Arguments(const std::string &about, const std::string &program)
    : app_(std::make_unique<CLI::App>(about, program))
{
}

Arguments::~Arguments() = default;

Argument Arguments::add_option(const std::string &names, std::string &into, const std::string &words)
{
    return Argument(app_->add_option(names, into, words));
}

Argument Arguments::add_option(const std::string &names, std::vector<std::string> &into,
                               const std::string &words)
{
    return Argument(app_->add_option(names, into, words));
}

Argument Arguments::add_option(const std::string &names, int &into, const std::string &words)
{
    return Argument(app_->add_option(names, into, words));
}

// CLI11 reads with strtoull and looks neither at its errno nor for a sign: -1 and 2^64 are the largest number.
static std::string check_unsigned(const std::string &text)
{
    errno = 0;
    strtoull(text.c_str(), nullptr, 0);
    return errno == ERANGE || text.find('-') != std::string::npos ? text + " is out of range" : "";
}

Argument Arguments::add_option(const std::string &names, uint32_t &into, const std::string &words)
{
    return Argument(app_->add_option(names, into, words)->check(check_unsigned));
}

Argument Arguments::add_option(const std::string &names, uint64_t &into, const std::string &words)
{
    return Argument(app_->add_option(names, into, words)->check(check_unsigned));
}

Argument Arguments::add_option(const std::string &names, double &into, const std::string &words)
{
    return Argument(app_->add_option(names, into, words));
}

void Arguments::add_flag(const std::string &names, bool &into, const std::string &words)
{
    app_->add_flag(names, into, words);
}

void Arguments::add_help(const std::string &words)
{
    app_->set_help_flag("-h,--help", words);
}

// An option that does not exist explains more than the argument that is missing because of it.
static std::string parse_words(const CLI::App &app, const CLI::ParseError &error)
{
    for (const std::string &rest : app.remaining())
        if (rest.size() > 1 && rest[0] == '-')
            return "there is no option '" + rest + "' (a text that begins so goes behind --)";
    return error.what();
}

Arguments::Parsed Arguments::parse(int argc, char **argv, std::string *why)
{
    try {
        app_->parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        return HELP_WANTED;
    } catch (const CLI::ParseError &error) {
        *why = parse_words(*app_, error);
        return WRONG;
    }
    return GOOD;
}

static Described describe(const CLI::Option &opt)
{
    Described one = {{},
                     opt.get_type_size() == 0 ? "" : opt.get_type_name(),
                     opt.get_description(),
                     opt.get_positional(),
                     opt.get_required(),
                     opt.get_expected_max() > 1};
    if (one.positional)
        one.names.push_back(opt.get_name(true, false));
    for (const std::string &name : opt.get_snames())
        one.names.push_back("-" + name);
    for (const std::string &name : opt.get_lnames())
        one.names.push_back("--" + name);
    return one;
}

std::vector<Described> Arguments::described() const
{
    std::vector<Described> all;
    for (const CLI::Option *opt : app_->get_options())
        all.push_back(describe(*opt));
    return all;
}

std::string Arguments::help() const
{
    return app_->help();
}
