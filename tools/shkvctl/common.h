// What all subcommands share: failures with their exit codes, output, arguments that are bytes,
// and a store's handle.
#pragma once

#include <fmt/format.h>
#include <stdio.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "shkv.h"
#include "shkvctl/commands.h"
#include "shkvctl/json.h"
#include "shkvctl/text.h"

enum { EXIT_OK = 0, EXIT_NOT_FOUND = 1, EXIT_USAGE = 2, EXIT_ERROR = 3, EXIT_INTERRUPTED = 130 };

// What ends a command: an exit code, the errno-style value behind it (0: none), what happened,
// and what to do about it.
struct Failure : std::runtime_error {
    int exit_code;
    int err;
    std::string hint;

    Failure(int exit, int errno_value, const std::string &what, std::string todo = "")
        : std::runtime_error(what), exit_code(exit), err(errno_value), hint(std::move(todo))
    {
    }
    template <typename... Args> static Failure usage(fmt::format_string<Args...> text, Args &&...args)
    {
        return {EXIT_USAGE, 0, fmt::format(text, std::forward<Args>(args)...)};
    }
};

std::string errno_name(int err);  // "EINVAL"
std::string errno_words(int err); // "EINVAL, bad argument or refused"

// The process's standard output as the tool found it. Descriptor 1 itself leads nowhere from
// start-up on: a delete of a missing key writes a line there that is not for the tool's readers.
FILE *out();
void take_over_stdout();
Failure output_failure(); // errno says why
void finish_output();     // throws when some of it is lost
template <typename... Args> void say(const Context &ctx, fmt::format_string<Args...> text, Args &&...args)
{
    if (!ctx.quiet && !ctx.json)
        fmt::print(out(), text, std::forward<Args>(args)...);
}
void print_json(const Json &value); // one line
void warn(const std::string &text); // "shkvctl get: text" on standard error
void name_command(const char *name);

// Set by SIGINT and SIGTERM once catch_interrupts was called: a command that has something to
// take back looks at it between two records.
extern std::atomic<bool> interrupted;
void catch_interrupts();

// An argument that stands for bytes: text as it is, hex with hex, the contents of a file with
// @FILE, of standard input with @-, and @@... for text that begins with '@'.
std::string bytes_argument(const std::string &arg, bool hex);
std::string read_file(const std::string &path); // "-" is standard input

inline shkv_buf buf_of(const std::string &bytes)
{
    return {const_cast<char *>(bytes.data()), (uint32_t)bytes.size()};
}

std::string dbname_of(const std::string &uri); // throws when the uri names no store
bool registry_exists();
void refuse_registry(const std::string &uri); // throws when the library alone may change the store

class RawStore;
struct WalkSum;
// Throws what keeps the store from being read, before the library comes near it: a store that is
// damaged is to stay as it is, and opening one notes the failure in its trace ring.
void check_readable(const std::string &uri, const RawStore &raw);
Failure damage(const std::string &uri, const WalkSum &sum); // what a walk had to leave out

// Throws before a store would refuse the record for its size.
void check_sizes(const std::string &uri, const supernode &sn, const std::string &key, const std::string &value);

// Why the store does not open, from what lies there; words are the library's own, for what that
// does not tell.
Failure open_failure(const std::string &uri, bool write, uint32_t err, const std::string &words);

// An open store. The constructor throws a Failure that says in words why the store does not
// open; the destructor closes.
class Store
{
  public:
    enum Mode { READ, WRITE };

    Store(const std::string &uri, Mode mode);
    Store(const std::string &uri, uint32_t uuid, uint32_t access_mode); // as another service
    ~Store();
    Store(const Store &) = delete;

    int handle() const
    {
        return handle_;
    }
    int release(); // the handle is the caller's now
    const std::string &uri() const
    {
        return uri_;
    }
    const supernode &sn() const
    {
        return *check_shkv_hdl(handle_)->sn;
    }
    bool in_txn() const
    {
        return (__atomic_load_n(&sn().comm_flg, __ATOMIC_ACQUIRE) & CF_TXN) != 0;
    }

    // Value of key, or false when there is none. Throws on anything else.
    bool lookup(const std::string &key, std::string *value) const;
    void add(const std::string &key, const std::string &value) const;
    bool remove(const std::string &key) const; // false: there was no such key
    void check_sizes(const std::string &key, const std::string &value) const;

    // What an operation of this store that returned err means, and what to do.
    Failure failure(const std::string &doing, int err) const;
    Failure lookup_failure(const std::string &key, int err) const;

  private:
    std::string uri_;
    int handle_ = 0;
};

// The library works out what this process may use at its first create; a tool that only opens
// asks for it here (SYSMGR_MMAP_LIMIT), before it lets a store grow.
void work_out_limits();

bool has_budget(uint32_t uuid); // shared by the stores of this service

constexpr uint32_t MAX_KEY = 2048, MAX_VALUE = 65000; // what any store takes
