// The demo's processes: one writer at a time, and readers beside it.
#include "demo/roles.h"

#include <errno.h>

#include <string_view>
#include <thread>

#include "shkv.h"

using std::chrono::steady_clock;

static shkv_buf buf_of(const std::string &bytes)
{
    return {const_cast<char *>(bytes.data()), (uint32_t)bytes.size()};
}

static int open_store(const Demo &demo, uint32_t mode)
{
    uint32_t err = 0;
    int handle = shkv_open(demo.uri.c_str(), demo.uuid, 0, mode, &err);
    if (handle <= 0)
        event("process {} cannot open the store: error {}", getpid(), err);
    return handle;
}

// Every acknowledged record must be there and be the input's. Returns the number of the first
// record that is not in the store, or -1 when one is missing or wrong before that.
static int64_t check_acknowledged(const Demo &demo, int handle, uint32_t acked)
{
    const auto &list = demo.packages.list;
    std::string room(4096, 0);
    for (uint32_t i = 0; i < list.size(); i++) {
        shkv_buf key = buf_of(list[i].name), value = buf_of(room);
        int err = shkv_lookup(handle, &key, &value);
        if (err == ENOENT && i >= acked)
            return i;
        if (err != 0 || std::string_view(room.data(), value.len) != list[i].value) {
            event("writer {}: record {} ({}) was acknowledged and is {}", getpid(), thousands(i + 1),
                  list[i].name,
                  err == ENOENT ? "missing"
                  : err         ? fmt::format("refused with error {}", err)
                                : "wrong");
            return -1;
        }
    }
    return (int64_t)list.size();
}

// When record number i is due, so that all of them take demo.seconds.
static steady_clock::time_point due(const Demo &demo, steady_clock::time_point start, uint64_t i)
{
    double share = (double)i / (double)demo.packages.list.size();
    return start + std::chrono::duration_cast<steady_clock::duration>(
                       std::chrono::duration<double>(demo.seconds * share));
}

static bool add_one(const Demo &demo, int handle, uint32_t i)
{
    const Package &package = demo.packages.list[i];
    shkv_buf key = buf_of(package.name), value = buf_of(package.value);
    int err = shkv_add(handle, &key, &value, 0);
    if (err != 0) {
        event("writer {}: record {} ({}) was refused with error {}", getpid(), thousands(i + 1), package.name,
              err);
        return false;
    }
    demo.shared->acked.store(i + 1, std::memory_order_release);
    return true;
}

static bool add_from(const Demo &demo, int handle, uint32_t first)
{
    constexpr uint32_t burst = 64;
    uint32_t total = (uint32_t)demo.packages.list.size();
    auto start = steady_clock::now();
    for (uint32_t i = first; i < total;) {
        auto before = steady_clock::now();
        for (uint32_t end = std::min(total, i + burst); i < end; i++)
            if (!add_one(demo, handle, i))
                return false;
        demo.shared->add_ns += (uint64_t)std::chrono::nanoseconds(steady_clock::now() - before).count();
        std::this_thread::sleep_until(due(demo, start, i - first));
    }
    return true;
}

int run_writer(const Demo &demo)
{
    uint32_t acked = demo.shared->acked.load(std::memory_order_acquire);
    int handle = open_store(demo, SHKV_AM_WRITE);
    if (handle <= 0)
        return 1;
    int64_t first = check_acknowledged(demo, handle, acked);
    if (first < 0)
        return 1;
    if (acked == 0)
        event("writer {} started: {} records to store", getpid(), thousands(demo.packages.list.size()));
    else
        event("writer {} took over: all {} acknowledged records are there and right{}", getpid(),
              thousands(acked), (uint64_t)first > acked ? ", and so is the one that was in hand" : "");
    if (!add_from(demo, handle, (uint32_t)first))
        return 1;
    event("writer {} finished: {} records stored", getpid(),
          thousands(demo.packages.list.size() - (uint64_t)first));
    return shkv_close(handle) == 0 ? 0 : 1;
}

static void look_up_one(const Demo &demo, int handle, uint32_t i, uint32_t acked, std::string &room,
                        ReaderCount &count)
{
    const std::string &name = demo.packages.list[i].name;
    shkv_buf key = buf_of(name), value = buf_of(room);
    int err = shkv_lookup(handle, &key, &value);
    auto add_to = [](std::atomic<uint64_t> &n) {
        n.store(n.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    };
    if (err == 0)
        add_to(value_is_whole({room.data(), value.len}, name) ? count.right : count.wrong);
    else if (err == ENOENT)
        add_to(i < acked ? count.missing : count.not_yet);
    else
        count.last_err = err, add_to(count.refused);
}

int run_reader(const Demo &demo, int number)
{
    int handle = open_store(demo, SHKV_AM_READ);
    if (handle <= 0)
        return 1;
    event("reader {} started", getpid());
    ReaderCount &count = demo.shared->reader[number];
    uint64_t random = 0x9e3779b97f4a7c15u * (uint64_t)(number + 1), total = demo.packages.list.size();
    std::string room(4096, 0);
    while (!demo.shared->stop) {
        // What is acknowledged now must be found below; one lookup in 16 asks for any package.
        uint32_t acked = demo.shared->acked.load(std::memory_order_acquire);
        random ^= random << 13;
        random ^= random >> 7;
        random ^= random << 17;
        bool any = acked == 0 || random % 16 == 0;
        look_up_one(demo, handle, (uint32_t)((random >> 8) % (any ? total : acked)), acked, room, count);
    }
    event("reader {} stopped after {} lookups", getpid(), thousands(count.lookups()));
    return shkv_close(handle) == 0 ? 0 : 1;
}
