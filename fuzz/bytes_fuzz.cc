// Damage to a store under its readers: an input overwrites bytes of a valid store, before or behind
// a reader's open. Then every reading call is made, the raw readers of shkvctl look, and the checker
// judges the bytes. Nothing may crash, read past a mapping (tight_map.cc) or go on for ever.
//
// Two ends are by design and are caught here: iterate asserts a table in force, and iterate and
// lookup_lite go round until a mapping that is out of step has been brought in step.
#include <errno.h>
#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <time.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "shkv_intf/proc.h"
#include "shkvctl/raw_stats.h"
#include "target.h"

extern bool tight_tails;
extern unsigned tight_calls;
void tight_forget(bool (*in_use)(const void *));

namespace {

constexpr unsigned KEYS = 24, ROUNDS_MAX = 300, DAMAGES_MAX = 16;
const char *const NAMES[] = {"dmg_fixed", "dmg_vector", "dmg_shmap", "dmg_txn"};
constexpr uint32_t CONF[] = {CONF_FIXEDMM, CONF_VECTORMM, CONF_VECTORMM | CONF_SHMAP, CONF_FIXEDMM};

struct object {
    char *at = nullptr;
    size_t size = 0;
    int fd = -1;
};
struct damaged_store {
    object objs[OBJ_MD_TXN + 1];
};
damaged_store stores[4];

// What a damaged byte was before. Readers change nothing, so this puts a store right again.
struct undo {
    char *at, was;
};
std::vector<undo> undo_log;

sigjmp_buf out_of_call;
volatile bool may_go_round, may_assert; // the clock looks at any moment
bool left_by_clock; // out of the middle of a call: its handle may be half in step, and serves no more
unsigned rounds, calls;

// Short keys, and some that take several units.
const std::string &key_of(unsigned no)
{
    static std::string keys[KEYS];
    if (keys[no].empty())
        keys[no] = "key" + std::to_string(no) + (no % 5 ? "" : std::string("-long-one"));
    return keys[no];
}

// ---- The stores ---------------------------------------------------------------------------------

void fill(int handle, bool vector)
{
    for (unsigned round = 0; round < 3; ++round)
        for (unsigned no = 0; no < KEYS - 4; ++no) {
            std::string value(vector ? no * 37 + round : no + round, (char)('a' + no));
            shkv_buf key = buf_of(key_of(no)), val = buf_of(value);
            shkv_add(handle, &key, &val, 0);
            if ((no + round) % 7 == 0)
                shkv_delete(handle, &key);
        }
}

// The objects mapped by the program itself: what an input damages and what puts it right.
void map_objects(damaged_store *store_p, const char *name)
{
    for (int obj_t = OBJ_MD1; obj_t <= OBJ_MD_TXN; ++obj_t) {
        int fd = open(object_path(name, obj_t).c_str(), O_RDWR | O_CLOEXEC);
        struct stat st = {};
        if (fd < 0 || fstat(fd, &st) != 0)
            continue;
        object *obj_p = &store_p->objs[obj_t];
        obj_p->fd = fd;
        obj_p->size = (size_t)st.st_size;
        if (obj_p->size == 0)
            continue;
        obj_p->at = (char *)mmap(nullptr, obj_p->size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        MUST(obj_p->at != MAP_FAILED, "cannot map an object");
    }
}

void make_store(int which)
{
    uint32_t err = 0;
    shkv_params params = {16, 40, 30, CONF[which], 0};
    int handle = shkv_create(NAMES[which], 0, &params, 0, &err);
    MUST(handle, "cannot create");
    fill(handle, CONF[which] & CONF_VECTORMM);
    if (which == 3) {
        MUST(shkv_txn_start(handle, nullptr) == 0, "cannot start a transaction");
        fill(handle, false);
    }
    MUST(shkv_close(handle) == 0, "cannot close");
    map_objects(&stores[which], NAMES[which]);
}

// An open makes an object as long as its descriptor says.
void cut_objects(const damaged_store &store)
{
    struct stat st;
    for (const object &obj : store.objs)
        if (obj.fd >= 0 && fstat(obj.fd, &st) == 0 && (size_t)st.st_size != obj.size)
            MUST(ftruncate(obj.fd, (off_t)obj.size) == 0, "cannot cut an object");
}

// ---- The damage ---------------------------------------------------------------------------------

// Bytes of locks are left alone: who damages a lock hangs whom he likes.
bool is_lock(int obj_t, size_t off)
{
    if (obj_t != OBJ_SN)
        return false;
    size_t ring_mutex = SHKV_PAGE_SIZE + offsetof(trace_ring, mutex);
    return (off >= offsetof(supernode, wr_ksem) && off < offsetof(supernode, comm_flg)) ||
           (off >= ring_mutex && off < ring_mutex + sizeof(pthread_mutex_t));
}

uint32_t damage_word(input *in_p, const object &ud)
{
    uint32_t near[] = {0, 1, 4, 20, 128, 255, 256, 257, 0x7fffffff, 0x80000000, 0xffffffff, (uint32_t)ud.size,
                       (uint32_t)ud.size - 4, (uint32_t)ud.size - 20, (uint32_t)ud.size - 128, SHKV_PAGE_SIZE};
    uint8_t how = in_p->byte();
    if (how < 128)
        return near[how % 16];
    return how < 160 ? (uint32_t)(256 + in_p->byte() * 4) : in_p->word();
}

void damage(const damaged_store *store_p, input *in_p)
{
    static const int KINDS[] = {OBJ_SN, OBJ_SN, OBJ_MD1, OBJ_UD1, OBJ_UD1, OBJ_UD1, OBJ_MD_TXN, OBJ_MD2};
    for (unsigned left = DAMAGES_MAX; left && in_p->left(); --left) {
        uint8_t what = in_p->byte();
        int obj_t = KINDS[what % 8];
        object obj = store_p->objs[obj_t];
        size_t off = in_p->byte(), width = (size_t)1 << (what >> 3 & 3);
        off |= (size_t)in_p->byte() << 8;
        width = width > 4 ? 4 : width;
        uint32_t word = damage_word(in_p, store_p->objs[OBJ_UD1]);
        if (!obj.at)
            continue;
        // The words in front are what matters: of the supernode, of a space its header.
        off = what & 0x80 ? off % obj.size : off % (obj.size < 1024 ? obj.size : 1024);
        if (obj_t == OBJ_SN && !(what & 0x80))
            off = offsetof(supernode, comm_flg) + off % (sizeof(supernode) - offsetof(supernode, comm_flg));
        if (what & 0x40)
            off &= ~(size_t)3;
        for (size_t i = 0; i < width && off + i < obj.size; ++i)
            if (!is_lock(obj_t, off + i)) {
                undo_log.push_back({obj.at + off + i, obj.at[off + i]});
                obj.at[off + i] = (char)(word >> 8 * i);
            }
    }
}

// ---- The readers --------------------------------------------------------------------------------

// No guard of an earlier call serves a later one.
void no_guard()
{
    memset(sigbus_jmp, 0, sizeof sigbus_jmp);
}

// Makes one call, which may leave by the two ways that are by design. False when it did.
template <typename F> bool call(bool goes_round, bool asserts, F what)
{
    rounds = 0;
    ++calls;
    no_guard();
    bool ended = sigsetjmp(out_of_call, 0) == 0;
    if (ended) {
        may_go_round = goes_round; // not before: until here the way out led into the frame of an earlier call
        may_assert = asserts;
        what();
    }
    may_go_round = false;
    may_assert = false;
    return ended;
}

// A table that claims more buckets than it has, in a mapping that is in step: lookup_lite waits for
// one that is not.
bool lite_would_stay(int handle)
{
    const shkv_head *head = &shkv_db_heads[handle - 1];
    bool md1 = head->sn->comm_flg & CF_MD1;
    const md_rec &rec = md1 ? head->md1 : head->md2;
    return (md1 ? head->sn->md1.hashsz : head->sn->md2.hashsz) > rec.mapped_sz / sizeof(mdn);
}

// Every step-th key.
void look_at_keys(int handle, unsigned step)
{
    static char room[65536];
    shkv_buf keys[KEYS], vals[KEYS];
    int results[KEYS];
    uint16_t cnt = 0;
    for (unsigned no = 0; no < KEYS; no += step, ++cnt) {
        keys[cnt] = buf_of(key_of(no));
        shkv_buf val = {room, (no & 1) ? (uint32_t)sizeof room : no};
        call(false, false, [&] { shkv_lookup(handle, &keys[cnt], &val); });
        vals[cnt] = {room, sizeof room};
    }
    call(false, false, [&] { shkv_m_lookup(handle, keys, vals, results, cnt); });
    if (lite_would_stay(handle))
        return;
    auto lite = [&](const shkv_buf &key) {
        shkv_buf val = {nullptr, 0};
        // The value lies where it lies: of an object that was cut its reader has to be guarded himself.
        if (shkv_lookup_lite(handle, &key, &val) == 0 && sigsetjmp(sigbus_jmp, 0) == 0)
            room[0] ^= (char)std::count((const char *)val.ptr, (const char *)val.ptr + val.len, 'x');
    };
    for (const shkv_buf *key = keys; key < keys + cnt; ++key)
        if (!call(true, false, [&] { lite(*key); }))
            return;
}

void iterate(int handle)
{
    static char key_room[4096], val_room[65536];
    int ret = EINVAL;
    call(true, true, [&] { ret = shkv_iterate(handle, nullptr, nullptr, nullptr, 1); });
    for (unsigned left = 500; ret == 0 && left; --left) {
        shkv_buf key = {key_room, sizeof key_room}, val = {val_room, sizeof val_room};
        shkv_iter_pos pos;
        if (!call(true, true, [&] { ret = shkv_iterate(handle, &key, &val, &pos, 0); }))
            return;
    }
}

void ask(int handle)
{
    shkv_params params;
    reg_rec rec;
    char line[256];
    no_guard();
    shkv_get_params(handle, &params);
    shkv_get_hashfn(handle);
    shkv_txn_is_active(handle);
    snprintf(line, sizeof line, "%.200s", shkv_get_dbname(handle) ? shkv_get_dbname(handle) : "");
    check_shkv_uri("dmg_fixed", &rec);
}

void look_raw(const char *name)
{
    RawStore raw(name);
    if (!raw.complete())
        return;
    ChainStats active;
    for (int md : {OBJ_MD1, OBJ_MD2})
        for (int ud : {OBJ_UD1, OBJ_UD2})
            active = chain_stats(raw, md, link_of(md), ud);
    space_stats(raw, OBJ_UD1);
    txn_stats(raw);
    rebuild_stats(raw, active);
    reshape_stats(raw);
    trace_stats(raw);
}

int open_reader(const char *name)
{
    uint32_t err = 0;
    no_guard();
    return shkv_open(name, 0, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
}

// A reader from before the damage. It stays for the next input unless it has followed some damage with
// its mappings, which shows in its head.
int standing[4]; // its handles
int standing_reader(int which)
{
    static shkv_head fresh[4];
    static ud_map fresh_map[4];
    shkv_head *head = &shkv_db_heads[standing[which] ? standing[which] - 1 : 0];
    head->iter_off = head->iter_bkt = head->iter_cnt = 0;
    if (standing[which] && memcmp(head, &fresh[which], sizeof *head) == 0 &&
        memcmp(head->ud1_map, &fresh_map[which], sizeof(ud_map)) == 0)
        return standing[which];
    no_guard();
    if (standing[which])
        shkv_close(standing[which]);
    standing[which] = open_reader(NAMES[which]);
    MUST(standing[which], "cannot open");
    fresh[which] = shkv_db_heads[standing[which] - 1];
    fresh_map[which] = *fresh[which].ud1_map;
    return standing[which];
}

bool in_use(const void *at)
{
    for (const damaged_store &store : stores)
        for (const object &obj : store.objs)
            if (obj.at == at)
                return true;
    for (int i = 0; i < 32; ++i) {
        const shkv_head &head = shkv_db_heads[i];
        if (head.access_mode &&
            (head.sn == at || head.md1.base == at || head.md2.base == at || head.md_txn.base == at))
            return true;
        for (const ud_map *map_p : {head.ud1_map, head.ud2_map})
            for (uint32_t no = 0; head.access_mode && map_p && no < sizeof map_p->map / sizeof map_p->map[0];
                 ++no)
                if (map_p->map[no] == at)
                    return true;
    }
    return false;
}

// A reader makes an object as long as its descriptor says, and then walks all of it. Most inputs are not to
// take that long.
void limit_objects(rlim_t size)
{
    rlimit limit = {size, RLIM_INFINITY};
    signal(SIGXFSZ, SIG_IGN); // the fuzzer ends at it
    setrlimit(RLIMIT_FSIZE, &limit);
}

void run(input in)
{
    static uint32_t inputs;
    uint8_t first = in.byte();
    // The objects of the shared-chunk store are long to walk: one input in sixteen, a few keys of it.
    int which = (first & 15) == 2 ? 2 : (int)((first & 15) % 3) + ((first & 15) % 3 == 2);
    damaged_store *store_p = &stores[which];
    bool before = first & 0x80;
    int handle = before ? standing_reader(which) : 0;
    damage(store_p, &in);
    left_by_clock = false;
    if (inputs % 256)
        limit_objects(which == 2 ? 33u << 20 : 64u << 10); // what they are at most, and a little
    if (!handle)
        call(false, false, [&] { handle = open_reader(NAMES[which]); });
    const unsigned step = which == 2 ? 7 : 1;
    if (handle) {
        look_at_keys(handle, step);
        if (!left_by_clock && (which != 2 || inputs % 8 == 0))
            iterate(handle);
        if (!left_by_clock)
            ask(handle);
    }
    no_guard();
    limit_objects(RLIM_INFINITY);
    cut_objects(*store_p);
    if (++inputs % (which == 2 ? 256 : 16) == 0) { // its space is a whole chunk
        look_raw(NAMES[which]);
        image_faults(NAMES[which], inputs & 512);
    }
    if (handle && left_by_clock) {
        shkv_close(handle);
        if (before)
            standing[which] = 0;
        handle = 0;
    }
    if (handle) {
        look_at_keys(handle, step); // with objects that are shorter than they were
        if (!before)
            shkv_close(handle);
    }
    for (; !undo_log.empty(); undo_log.pop_back())
        *undo_log.back().at = undo_log.back().was;
    tight_forget(in_use);
}

} // namespace

// A call that goes round writes an event in every round.
extern "C" void __real__Z10trace_pairPvjjjj(void *, uint32_t, uint32_t, uint32_t, uint32_t);
extern "C" void __wrap__Z10trace_pairPvjjjj(void *ring_p, uint32_t event, uint32_t arg, uint32_t arg2,
                                            uint32_t word3)
{
    if (may_go_round && ++rounds > ROUNDS_MAX)
        siglongjmp(out_of_call, 1);
    __real__Z10trace_pairPvjjjj(ring_p, event, arg, arg2, word3);
}

extern "C" [[noreturn]] void __real___assert_fail(const char *, const char *, unsigned, const char *);
extern "C" [[noreturn]] void __wrap___assert_fail(const char *expr, const char *file, unsigned line,
                                                  const char *func)
{
    bool known = !strcmp(expr, "md_base") || !strcmp(expr, "curr_md");
    if (known && may_assert)
        siglongjmp(out_of_call, 1);
    __real___assert_fail(expr, file, line, func);
}

// One that faults in every round jumps out of the fault's handler each time.
extern "C" [[noreturn]] void __real_siglongjmp(sigjmp_buf to, int val);
extern "C" [[noreturn]] void __wrap_siglongjmp(sigjmp_buf to, int val)
{
    bool enough = to != out_of_call && may_go_round && ++rounds > ROUNDS_MAX;
    __real_siglongjmp(enough ? out_of_call : to, val);
}

// Whether the call that is under way holds a lock, which a jump would leave taken.
static bool holds_lock()
{
    int free_cnt = 1, free_heads = 1;
    sem_getvalue(&obj_sem, &free_cnt);
    sem_getvalue(&hd_sem, &free_heads);
    bool held = free_cnt == 0 || free_heads == 0;
    for (const damaged_store &store : stores) {
        const char *ring_mutex = store.objs[OBJ_SN].at + SHKV_PAGE_SIZE + offsetof(trace_ring, mutex);
        held |= ((const pthread_mutex_t *)(const void *)ring_mutex)->__data.__lock != 0;
    }
    return held;
}

// One that goes round without either is met by the clock: the same call for 2 ms of this thread, the last of
// them without the exchange of a mapping, in whose middle nobody could leave.
static void on_tick(int)
{
    static volatile bool under_way;
    static unsigned seen, mapped;
    static uint64_t begin_ns;
    if (under_way) // a tick in a tick would see time go back and an exchange as over
        return;
    under_way = true;
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    uint64_t now_ns = (uint64_t)now.tv_sec * 1000000000 + (uint64_t)now.tv_nsec;
    if (seen != calls)
        begin_ns = now_ns;
    seen = calls;
    bool maps = mapped != tight_calls;
    mapped = tight_calls;
    bool leave = may_go_round && !maps && now_ns - begin_ns > 2000000 && !holds_lock();
    under_way = false;
    if (leave) {
        left_by_clock = true;
        siglongjmp(out_of_call, 1);
    }
}

// A raw reader waits before it looks again.
extern "C" int __wrap_usleep(unsigned)
{
    return 0;
}

// A guard whose function has returned is none: the way back leads into a frame that is gone. What shkvctl
// guards does not come here.
static uint64_t faulted_sp;
static struct sigaction raw_sigbus;
static void note_fault(int sig, siginfo_t *, void *context)
{
    faulted_sp = (uint64_t)((ucontext_t *)context)->uc_mcontext.gregs[REG_RSP];
    raw_sigbus.sa_handler(sig);
}
extern "C" void __real_shkv_sigbus_handler(int);
extern "C" void __wrap_shkv_sigbus_handler(int sig)
{
    uint64_t key, kept = (uint64_t)sigbus_jmp[0].__jmpbuf[6]; // the stack pointer, as the C library keeps it
    asm("movq %%fs:0x30, %0" : "=r"(key));
    MUST(kept, "a read without a guard");
    kept = (kept >> 17 | kept << 47) ^ key;
    MUST(kept >= faulted_sp, "a read behind a guard that is gone");
    __real_shkv_sigbus_handler(sig);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    enter_private_place();
    for (int which = 0; which < 4; ++which)
        make_store(which);
    look_raw(NAMES[0]); // its handler stands in front of the library's from here on
    tight_tails = true;
    struct sigaction action = {};
    action.sa_handler = on_tick;
    action.sa_flags = SA_NODEFER | SA_RESTART; // left by a jump
    sigaction(SIGVTALRM, &action, nullptr);
    struct sigaction noting = {};
    noting.sa_sigaction = note_fault;
    noting.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGBUS, &noting, &raw_sigbus);
    // A crash is reported to its end: no tick leaves the report.
    struct sigaction crash;
    MUST(sigaction(SIGSEGV, nullptr, &crash) == 0, "no handler");
    sigaddset(&crash.sa_mask, SIGVTALRM);
    sigaction(SIGSEGV, &crash, nullptr);
    sigevent event = {};
    event.sigev_notify = SIGEV_THREAD_ID; // the fuzzer has a thread of its own
    event._sigev_un._tid = gettid();
    event.sigev_signo = SIGVTALRM;
    timer_t timer;
    itimerspec every = {{0, 1000000}, {0, 1000000}};
    MUST(timer_create(CLOCK_MONOTONIC, &event, &timer) == 0, "no timer");
    timer_settime(timer, 0, &every, nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    run({data, data + size});
    return 0;
}
