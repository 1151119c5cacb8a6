// The arguments of a program, or of one command of it. What parses them is CLI11, whose headers take
// longer to compile than most of what would include them: arguments.cc alone does.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;
class Option;
} // namespace CLI

// One of them, to say more of it: arguments.add_option(...).required().
class Argument
{
  public:
    explicit Argument(CLI::Option *opt) : opt_(opt) {}
    Argument required();
    Argument type_name(const std::string &name); // what help calls its value
    Argument range(int least, int most);
    Argument range(uint64_t least, uint64_t most);
    Argument range(double least, double most);
    Argument one_of(const std::vector<std::string> &words);
    bool given() const; // once parsed

  private:
    CLI::Option *opt_;
};

// What help and completion tell of one.
struct Described {
    std::vector<std::string> names; // "-f", "--follow"; a positional one has one name, without dashes
    std::string takes, words;       // takes: "" for a flag
    bool positional, required, many;
};

class Arguments
{
  public:
    explicit Arguments(const std::string &about = "", const std::string &program = "");
    ~Arguments();

    // names: "-f,--follow", or a plain word for a positional one. Parsing stores into the variable.
    Argument add_option(const std::string &names, std::string &into, const std::string &words);
    Argument add_option(const std::string &names, std::vector<std::string> &into, const std::string &words);
    Argument add_option(const std::string &names, int &into, const std::string &words);
    Argument add_option(const std::string &names, uint32_t &into, const std::string &words);
    Argument add_option(const std::string &names, uint64_t &into, const std::string &words);
    Argument add_option(const std::string &names, double &into, const std::string &words);
    void add_flag(const std::string &names, bool &into, const std::string &words);
    void add_help(const std::string &words); // -h, --help; there without words of its own anyway

    enum Parsed { GOOD, HELP_WANTED, WRONG };
    Parsed parse(int argc, char **argv, std::string *why); // why: of WRONG
    std::vector<Described> described() const;              // in the order of their adding
    std::string help() const;                              // as the parser itself words it

  private:
    std::unique_ptr<CLI::App> app_;
};
