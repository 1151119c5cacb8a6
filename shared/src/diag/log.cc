// The text log of a process: one stream, switched on and off at run time, no levels. A log site
// never changes the result of the operation around it, nor the errno that the next site prints.
#include "diag/log.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

int shkv_dbg_en;
int shkv_dbg_unformat;
FILE *shkv_dbg_fp;

static const char *const log_dirs[] = {"/var/log/external", "/var/tmp"};

static void default_path(char *path, size_t path_sz, const char *dir)
{
    snprintf(path, path_sz, "%s/%d.shkvdbg.log", dir, (int)getpid());
}

// The dated form starts with a newline and the short form has none at all: short lines run
// together unless the message ends one. Tools rely on both.
static void print_prefix(FILE *out_p)
{
    timeval now;
    gettimeofday(&now, nullptr);
    if (shkv_dbg_unformat) {
        fprintf(out_p, "%lu:%ld ", (unsigned long)now.tv_sec, (long)now.tv_usec);
        return;
    }
    tm day;
    localtime_r(&now.tv_sec, &day);
    fprintf(out_p, "\n%04d-%02d-%02d %02d:%02d:%02d.%06u ", day.tm_year + 1900, day.tm_mon + 1, day.tm_mday,
            day.tm_hour, day.tm_min, day.tm_sec, (unsigned)now.tv_usec);
}

void log_vline(const char *fmt, va_list args)
{
    FILE *out_p = shkv_dbg_fp;
    if (!out_p)
        return;
    int keep_errno = errno;
    flockfile(out_p); // prefix and message stay together
    print_prefix(out_p);
    vfprintf(out_p, fmt, args);
    fflush(out_p);
    funlockfile(out_p);
    errno = keep_errno;
}

void log_line(const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    log_vline(fmt, args);
    va_end(args);
}

int shkv_debugs_on(const char *path)
{
    if (shkv_dbg_en)
        return 0;
    if (path) {
        shkv_dbg_fp = fopen(path, "a");
    } else {
        char name[4096];
        default_path(name, sizeof name, log_dirs[0]);
        if (!(shkv_dbg_fp = fopen(name, "a"))) {
            default_path(name, sizeof name, log_dirs[1]);
            shkv_dbg_fp = fopen(name, "a");
        }
    }
    if (!shkv_dbg_fp)
        return -1;
    shkv_dbg_en = 1;
    return 0;
}

static void unlink_default_files()
{
    for (const char *dir : log_dirs) {
        char name[4096];
        default_path(name, sizeof name, dir);
        unlink(name);
    }
}

// remove 1 takes both default files of this process away, never a caller's own path.
int shkv_debug_off(uint32_t remove)
{
    if (shkv_dbg_fp) {
        fclose(shkv_dbg_fp);
        shkv_dbg_fp = nullptr;
        if (remove == 1)
            unlink_default_files();
    }
    shkv_dbg_en = 0;
    return 0;
}

void shkv_debug_cmd_handler(const void *cmd_record)
{
    const shkv_debug_cmd *cmd_p = (const shkv_debug_cmd *)cmd_record;
    if (cmd_p->cmd == 0) {
        shkv_debug_off(0);
    } else if (cmd_p->cmd == 1) {
        shkv_dbg_unformat = cmd_p->unformat & 1; // also when logging is on: the form can change
        shkv_debugs_on(cmd_p->path[0] ? cmd_p->path : nullptr);
    }
}
