// A write outside of a reshape takes no lock and leaves no mark, so nobody can see one begin or end.
// It is over after 50 ms, the time for which the library keeps a freed node for those who may stand
// on it; unless the machine has not let its thread run for so long. Hence the second look: each thread
// of the writer's process has to be found asleep, or to have had a processor since. A thread that
// waits for wr_ksem is asleep. What cannot be told within two seconds, a stopped process, or one whose
// threads we may not see, counts as over.
#include "reshape/quiet.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "shkv_intf/word.h"

namespace {

constexpr uint32_t WRITE_OVER_US = 50000;
constexpr int LOOKS = 40;
constexpr int TASKS_MAX = 256;
constexpr uint64_t TICKS_RUN = 2; // of processor time; a write takes microseconds

struct task {
    int tid;
    uint64_t ticks;
};

// The state letter and the processor time of a thread. False when it is gone.
bool look_at(uint32_t pid, int tid, char *state_p, uint64_t *ticks_p)
{
    char path[64], text[512];
    snprintf(path, sizeof path, "/proc/%u/task/%d/stat", pid, tid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return false;
    ssize_t len = read(fd, text, sizeof text - 1);
    close(fd);
    text[len > 0 ? len : 0] = 0;
    const char *at_p = strrchr(text, ')'); // behind the name, which may hold anything
    unsigned long user = 0, system = 0;
    if (!at_p || sscanf(at_p + 1, " %c %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %lu %lu", state_p, &user, &system) != 3)
        return false;
    *ticks_p = user + system;
    return true;
}

int list_tasks(uint32_t pid, task *tasks)
{
    char path[64], state;
    snprintf(path, sizeof path, "/proc/%u/task", pid);
    DIR *dir = opendir(path);
    int cnt = 0;
    for (dirent *entry; dir && cnt < TASKS_MAX && (entry = readdir(dir));) {
        tasks[cnt].tid = atoi(entry->d_name);
        if (tasks[cnt].tid && look_at(pid, tasks[cnt].tid, &state, &tasks[cnt].ticks))
            cnt++;
    }
    if (dir)
        closedir(dir);
    return cnt;
}

// Runnable, in the kernel for a page, or stopped: it may be in the middle of a write.
bool may_be_in_write(uint32_t pid, const task *task_p)
{
    char state;
    uint64_t ticks;
    return task_p->tid != gettid() && look_at(pid, task_p->tid, &state, &ticks) && strchr("RDTt", state) &&
           ticks < task_p->ticks + TICKS_RUN;
}

} // namespace

void wait_for_writes_to_end(const supernode *sn)
{
    task tasks[TASKS_MAX];
    uint32_t pid = get32(&sn->wr_tid[0]);
    int cnt = sn->conf_flg & CONF_MULTIWR || !pid ? 0 : list_tasks(pid, tasks);
    usleep(WRITE_OVER_US);
    for (int look = 0, at = 0; look < LOOKS && at < cnt;) {
        if (!may_be_in_write(pid, &tasks[at])) {
            at++;
        } else {
            usleep(WRITE_OVER_US);
            look++;
        }
    }
}
