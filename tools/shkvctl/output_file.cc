// Files that commands write.
#include "shkvctl/output_file.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "shkvctl/common.h"

bool is_stdout(const std::string &path)
{
    return path == "-" || path == "/dev/stdout"; // descriptor 1 itself leads nowhere
}

static Failure failure(const std::string &path)
{
    int err = errno;
    return {interrupted ? EXIT_INTERRUPTED : EXIT_ERROR, err,
            fmt::format("cannot write {}: {}", is_stdout(path) ? "standard output" : path, strerror(err))};
}

// The file that a new one takes the place of, or "" when path is to be opened and written as it is.
static std::string place_of(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) // the open follows a link that leads nowhere yet
        return lstat(path.c_str(), &st) == 0 ? "" : path;
    if (!S_ISREG(st.st_mode))
        return "";
    char *real = realpath(path.c_str(), nullptr);
    std::string place = real ? real : "";
    free(real);
    return place;
}

OutputFile::OutputFile(const std::string &path) : path_(path), place_(is_stdout(path) ? "" : place_of(path))
{
    // Collectors read all files *.prom of a directory at any moment: this one has another ending.
    if (!place_.empty())
        part_ = fmt::format("{}.{}.part", place_, getpid());
    file_ = is_stdout(path) ? out() : fopen((part_.empty() ? path : part_).c_str(), "we");
    if (!file_)
        throw failure(path);
}

OutputFile::~OutputFile()
{
    if (file_ && !is_stdout(path_))
        fclose(file_);
    if (!part_.empty())
        unlink(part_.c_str());
}

void OutputFile::write(std::string_view bytes)
{
    if (fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size())
        throw failure(path_);
}

void OutputFile::let_all_read()
{
    if (!part_.empty() && fchmod(fileno(file_), 0644) != 0)
        throw failure(path_);
}

void OutputFile::finish()
{
    if (fflush(file_) != 0)
        throw failure(path_);
    FILE *file = std::exchange(file_, nullptr);
    if (!is_stdout(path_) && fclose(file) != 0)
        throw failure(path_);
    if (!part_.empty() && rename(part_.c_str(), place_.c_str()) != 0)
        throw failure(path_);
    part_.clear();
}

void write_whole(const std::string &path, const std::string &text)
{
    OutputFile file(path);
    file.let_all_read();
    file.write(text);
    file.finish();
}
