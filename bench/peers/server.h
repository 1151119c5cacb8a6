// Starts a server of a peer that is one, and ends exactly that process.
#pragma once
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

// argv ends with a null. The server dies with the process that started it. One that serves this
// process alone stays on processor 0, where its client goes too while it is timed: a question and
// its answer on one processor take a third of what a wake-up of the other one costs.
static inline pid_t server_start(const char *const argv[], bool shared)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    cpu_set_t first;
    CPU_ZERO(&first);
    CPU_SET(0, &first);
    if (!shared)
        sched_setaffinity(0, sizeof first, &first);
    const int sink = open("/dev/null", O_RDWR);
    dup2(sink, 0), dup2(sink, 1), dup2(sink, 2);
    execvp(argv[0], const_cast<char *const *>(argv));
    _exit(127);
}

static inline void server_stop(pid_t pid)
{
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

template <class Try> static inline bool server_wait(Try connected)
{
    for (int i = 0; i < 400; i++, usleep(5000))
        if (connected())
            return true;
    return false;
}
