// Writers of a store are thread ids; these say who that is.
#include "shkvctl/procs.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <fstream>

#include "shkvctl/text.h"

bool thread_lives(uint32_t tid)
{
    struct stat st;
    return stat(fmt::format("/proc/{}", (int32_t)tid).c_str(), &st) == 0;
}

std::string thread_name(uint32_t tid)
{
    std::string name;
    std::ifstream comm(fmt::format("/proc/{}/comm", tid));
    std::getline(comm, name);
    return escape(name);
}

std::string thread_words(uint32_t tid)
{
    if (!thread_lives(tid))
        return fmt::format("thread {}, which is gone", tid);
    return fmt::format("thread {} ({})", tid, thread_name(tid));
}
