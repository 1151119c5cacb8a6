// Failures, output, arguments and interrupts; store handles are in store.cc.
#include "shkvctl/common.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

std::string errno_name(int err)
{
    const char *name = strerrorname_np(err);
    return name ? name : fmt::format("error {}", err);
}

std::string errno_words(int err)
{
    switch (err) {
    case ENOENT:
        return "ENOENT, no such key, store or object";
    case EBADF:
        return "EBADF, bad handle or destroyed store";
    case ENOMEM:
        return "ENOMEM, out of memory or over a limit";
    case EFAULT:
        return "EFAULT, a lock or a system call failed";
    case EEXIST:
        return "EEXIST, already there or already in that state";
    case EINVAL:
        return "EINVAL, bad argument or refused";
    }
    const char *words = strerrordesc_np(err);
    return words ? fmt::format("{}, {}", errno_name(err), words) : errno_name(err);
}

static FILE *real_stdout = stdout;

FILE *out()
{
    return real_stdout;
}

// Whatever is printed where no standard output is open is lost, and must not pass for written.
static FILE *closed_stdout()
{
    cookie_io_functions_t refuse = {};
    refuse.write = [](void *, const char *, size_t) -> ssize_t {
        errno = EBADF;
        return 0;
    };
    return fopencookie(nullptr, "w", refuse);
}

void take_over_stdout()
{
    int real = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    FILE *stream = real >= 0 ? fdopen(real, "w") : closed_stdout();
    if (stream && null >= 0) {
        real_stdout = stream;
        dup2(null, STDOUT_FILENO);
    }
    if (null > STDERR_FILENO)
        close(null);
}

Failure output_failure()
{
    int err = errno;
    return {EXIT_ERROR, err, fmt::format("cannot write the output: {}", strerror(err))};
}

void finish_output()
{
    if (fflush(out()) != 0)
        throw output_failure();
    if (ferror(out()))
        throw Failure(EXIT_ERROR, 0, "some of the output could not be written");
}

void print_json(const Json &value)
{
    fmt::print(out(), "{}\n", value.dump());
}

static const char *command_name;

void name_command(const char *name)
{
    command_name = name;
}

void warn(const std::string &text)
{
    fflush(out());
    std::string who = command_name ? fmt::format("shkvctl {}", command_name) : "shkvctl";
    fputs(fmt::format("{}: {}\n", who, text).c_str(), stderr); // which may be closed: no failure of its own
}

std::atomic<bool> interrupted;

void catch_interrupts()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { interrupted = true; };
    sigaction(SIGINT, &action, nullptr); // without SA_RESTART: a read of standard input ends
    sigaction(SIGTERM, &action, nullptr);
}

std::string read_file(const std::string &path)
{
    FILE *in = path == "-" ? stdin : fopen(path.c_str(), "re");
    if (!in)
        throw Failure(EXIT_ERROR, errno, fmt::format("cannot read {}: {}", path, strerror(errno)));
    std::string bytes;
    char part[65536];
    for (size_t n; (n = fread(part, 1, sizeof part, in)) > 0;)
        bytes.append(part, n);
    int err = ferror(in) ? errno : 0;
    if (in != stdin)
        fclose(in);
    if (err)
        throw Failure(EXIT_ERROR, err, fmt::format("cannot read {}: {}", path, strerror(err)));
    return bytes;
}

std::string bytes_argument(const std::string &arg, bool hex)
{
    if (arg.starts_with("@@"))
        return arg.substr(1);
    if (arg.starts_with("@"))
        return read_file(arg.substr(1));
    return hex ? from_hex(arg) : arg;
}
