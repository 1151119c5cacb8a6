// Fault injection. Of every operation of the scenarios, the n-th call of each system or library
// call that the library makes fails: once, and from then on, for every n. The operation must say
// so with one of its values, the process lives, a failed create leaves no name, what was
// committed is there for the next process, and the store goes on working. Without memory a failed
// create leaves no supernode, the objects behind it stay.
//
//     fault_inject short|long [SCENARIO [CALL]]
#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <set>
#include <stdarg.h>
#include <sys/stat.h>

#include "support/scenario.h"

namespace {

enum call_no { OPEN, FTRUNCATE, MMAP, MUNMAP, FSTAT, MPROTECT, MKDIR, UNLINK, SEM_WAIT, SEM_POST, LOCK, UNLOCK,
               CALLOC, FOPEN, OPENDIR, CALLS };
const char *const CALL_NAMES[] = {"open", "ftruncate", "mmap", "munmap", "fstat", "mprotect", "mkdir", "unlink",
                                  "sem_wait", "sem_post", "mutex lock", "mutex unlock", "calloc", "fopen", "opendir"};

call_no target;
bool armed, for_good;
int countdown; // fails when it reaches 0
int injected;

bool fails(call_no which)
{
    if (!armed || which != target)
        return false;
    if (countdown > 0)
        --countdown;
    if (countdown > 0 || (!for_good && injected))
        return false;
    ++injected;
    return true;
}

} // namespace

#define WRAP(no, type, name, params, args, error, bad)      \
    extern "C" type __real_##name params;                   \
    extern "C" type __wrap_##name params                    \
    {                                                       \
        if (fails(no)) {                                    \
            errno = error;                                  \
            return bad;                                     \
        }                                                   \
        return __real_##name args;                          \
    }
WRAP(FTRUNCATE, int, ftruncate, (int fd, off_t len), (fd, len), ENOSPC, -1)
WRAP(MMAP, void *, mmap, (void *hint, size_t len, int prot, int flags, int fd, off_t off),
     (hint, len, prot, flags, fd, off), ENOMEM, MAP_FAILED)
WRAP(MUNMAP, int, munmap, (void *base, size_t len), (base, len), EINVAL, -1)
WRAP(FSTAT, int, fstat, (int fd, struct stat *st), (fd, st), EIO, -1)
WRAP(MPROTECT, int, mprotect, (void *base, size_t len, int prot), (base, len, prot), ENOMEM, -1)
WRAP(MKDIR, int, mkdir, (const char *path, mode_t mode), (path, mode), EACCES, -1)
WRAP(UNLINK, int, unlink, (const char *path), (path), EACCES, -1)
WRAP(SEM_WAIT, int, sem_wait, (sem_t *sem), (sem), EINVAL, -1)
WRAP(LOCK, int, pthread_mutex_lock, (pthread_mutex_t *mutex), (mutex), EINVAL, -1)
WRAP(CALLOC, void *, calloc, (size_t cnt, size_t size), (cnt, size), ENOMEM, nullptr)
WRAP(FOPEN, FILE *, fopen, (const char *path, const char *mode), (path, mode), EMFILE, nullptr)
WRAP(OPENDIR, DIR *, opendir, (const char *path), (path), EMFILE, nullptr)

// A post and an unlock that fail are done all the same: else the next wait would be for ever.
extern "C" int __real_sem_post(sem_t *sem);
extern "C" int __wrap_sem_post(sem_t *sem)
{
    int result = __real_sem_post(sem);
    return fails(SEM_POST) ? (errno = EOVERFLOW, -1) : result;
}
extern "C" int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);
extern "C" int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex)
{
    int result = __real_pthread_mutex_unlock(mutex);
    return fails(UNLOCK) ? -1 : result;
}
extern "C" int __real_open(const char *path, int flags, ...);
extern "C" int __wrap_open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    unsigned mode = flags & O_CREAT ? va_arg(args, unsigned) : 0;
    va_end(args);
    return fails(OPEN) ? (errno = EMFILE, -1) : __real_open(path, flags, mode);
}
extern "C" int __wrap_usleep(unsigned)
{
    return 0;
}

namespace {

struct outcome {
    int injected;
    bool done; // every step returned 0
    int odd;   // a result that is none of the library's
    int after; // of an add and a lookup in the same process, once nothing fails any more
    op_result ops[8];
};

// In the child that meets the fault.
int run_faulty(const scenario &scene, const prepared &state, outcome *out_p)
{
    std::vector<op_result> results;
    alarm(20); // a hang is a failure
    armed = true;
    int handle = act(scene, state, &results);
    armed = false;
    *out_p = {injected, true, 0, 0, {}};
    std::copy(results.begin(), results.end(), out_p->ops);
    for (auto [result, done] : results) {
        out_p->done = out_p->done && result == 0;
        static const std::set<int> known = {0, ENOENT, EBADF, ENOMEM, EFAULT, EEXIST, EINVAL, ENOSPC};
        if (!known.count(result))
            out_p->odd = result;
    }
    if (handle > 0 && scene.act[0].kind != DESTROY && scene.act[0].kind != RESHAPE && scene.act[0].kind != CREATE) {
        for (const op &what : {op{ADD, 20, 20}, op{LOOKUP, 21, 21}}) {
            int result = run_op(handle, what);
            // A process may have lost its mapping; then it says so and the next one goes on.
            if (result != 0 && result != ENOMEM && result != EBADF && result != ENOENT)
                out_p->after = result;
        }
    }
    return 0;
}

// The names that a failed create must not have added to.
long names_of(const snapshot &snap)
{
    return std::count_if(snap.files.begin(), snap.files.end(), [](const auto &file) {
        return target != CALLS || file.first.find("/shkvdb/") != std::string::npos;
    });
}

// What the next process may find, by the results: what returned 0 is there; of what did not, the
// step that failed may have gone through, nothing behind it.
std::vector<contents> told_by_results(const scenario &scene, const prepared &state, const outcome &out)
{
    std::vector<model> models = {state.base};
    auto step = [&](const op &what, int round, bool sure) {
        for (size_t i = 0, cnt = models.size(); i < cnt; ++i) {
            if (!sure)
                models.push_back(models[i]);
            models[i].apply(what, round);
        }
    };
    int round = state.base_round;
    for (size_t no = 0; no < scene.act.size(); ++no) {
        op what = scene.act[no];
        auto [result, done] = out.ops[no];
        ++round;
        if (what.kind == ADD || what.kind == DEL) {
            op first = {what.kind, what.first, what.first + done - 1, what.val_sz};
            op next = {what.kind, first.last + 1, first.last + 1, what.val_sz};
            step(first, round, true);
            if (result)
                step(next, round, false);
        } else {
            step(what, round, result == 0);
        }
    }
    step({ADD, 20, 20}, round + 1, false); // of run_faulty
    std::vector<contents> allowed;
    for (const model &each : models)
        allowed.push_back(each.now);
    return allowed;
}

std::string complaint(const scenario &scene, const prepared &state, int end, const outcome &out)
{
    if (end)
        return end == -SIGALRM ? "hangs" : "ends with " + std::to_string(end);
    if (out.odd)
        return "gives " + std::to_string(out.odd);
    if (out.after)
        return "afterwards gives " + std::to_string(out.after);
    // Without the semaphore, or when it cannot unlink, a create cannot clean up.
    bool can_clean = target != UNLINK && target != OPEN && !(target == SEM_WAIT && for_good);
    if (scene.act[0].kind == CREATE && !out.done && can_clean &&
        names_of(take_snapshot()) != names_of(state.at_rest))
        return "a failed create leaves a name";
    prepared told = state;
    told.allowed = told_by_results(scene, state, out);
    return judge_state(scene, told);
}

// One run of what, which meets a fault. True when it met one.
template <typename F>
bool try_one(const scenario &scene, const prepared &state, tally *tally_p, outcome *out_p, const std::string &fault, F what)
{
    restore_snapshot(state.at_rest);
    *out_p = {};
    int end = in_child(what);
    if (end == 0 && (target == CALLS ? out_p->done : !out_p->injected))
        return false;
    ++tally_p->runs;
    std::string why = complaint(scene, state, end, *out_p);
    if (!why.empty())
        tally_p->fail(scene, fault, why);
    return true;
}

void inject(const scenario &scene, const prepared &state, tally *tally_p, outcome *out_p)
{
    for (int all = 0; all < 2; ++all) {
        for_good = all;
        for (int n = 1; n < 200; ++n) {
            countdown = n;
            if (!try_one(scene, state, tally_p, out_p, CALL_NAMES[target] + (" number " + std::to_string(n)) + (all ? " and on" : ""),
                         [&] { return run_faulty(scene, state, out_p); }))
                break; // the operation makes fewer such calls
        }
    }
}

// Memory that is not there: the same on a /dev/shm with 0 to k free pages, for each k.
void starve(const scenario &scene, const prepared &state, tally *tally_p, outcome *out_p)
{
    const char *ballast = "/dev/shm/ballast"; // all but so many pages go to a file of no store
    target = CALLS;
    for (int pages = 0, more = 1; more && pages < 200; ++pages) {
        more = try_one(scene, state, tally_p, out_p, std::to_string(pages) + " pages of memory", [&] {
            int fd = __real_open(ballast, O_RDWR | O_CREAT | O_TRUNC, 0600);
            std::string page(4096, 'x');
            off_t size = 0;
            while (write(fd, page.data(), page.size()) == (ssize_t)page.size())
                size += 4096;
            __real_ftruncate(fd, std::max<off_t>(0, size - (off_t)pages * 4096));
            int result = run_faulty(scene, state, out_p);
            __real_unlink(ballast);
            return result;
        });
        __real_unlink(ballast);
    }
}

} // namespace

int main(int argc, char **argv)
{
    std::string mode = argc > 1 ? argv[1] : "short", call = argc > 3 ? argv[3] : "";
    if (!private_shm() || !remount_shm("6m"))
        return 1;
    outcome *out_p = shared_memory<outcome>();
    std::vector<scenario> list = scenarios();
    std::erase_if(list, [&](const scenario &scene) { return mode == "short" && !scene.in_short; });
    auto run = [&](const scenario &scene, const prepared &state, tally *tally_p) {
        for (int no = 0; no < CALLS; ++no) {
            target = (call_no)no;
            if (call.empty() || call == CALL_NAMES[no])
                inject(scene, state, tally_p, out_p);
        }
        if (call.empty() || call == "memory")
            starve(scene, state, tally_p, out_p);
    };
    return run_scenarios(list, argc > 2 ? argv[2] : "", {"faults", "injected"}, run);
}
