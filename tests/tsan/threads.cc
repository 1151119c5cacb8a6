// Threads of one process under the thread checker: a writer that adds, deletes, commits and makes
// the store grow, and readers of every kind, on handles of their own and on a shared one. What the
// checker may report is listed, each with its reason, in suppressions.txt.
//
//     tsan_threads SECONDS
#include <atomic>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <string.h>
#include <thread>
#include <time.h>
#include <vector>

#include "shkv.h"
#include "support/main.h"

static constexpr unsigned KEYS = 600, SURE = 50;
static std::atomic<bool> stop, wrong;
static std::atomic<unsigned long> lookups, writes;

static shkv_buf buf_of(const std::string &text)
{
    return {const_cast<char *>(text.data()), (uint32_t)text.size()};
}

static std::string key_of(unsigned no)
{
    return "key" + std::to_string(no);
}

static void check(bool good, const char *what, unsigned no, int result)
{
    if (!good && !wrong.exchange(true))
        fprintf(stderr, "%s of key %u: %d\n", what, no, result);
}

// A value is its key's number in every byte.
static void look(int handle, bool lite, unsigned seed)
{
    for (unsigned step = seed; !stop; step = step * 1103515245u + 12345u) {
        unsigned no = step >> 16 & 1 ? (step >> 8) % SURE : (step >> 8) % KEYS;
        std::string key = key_of(no);
        char room[4][400];
        shkv_buf keys[4] = {buf_of(key), buf_of(key), buf_of(key), buf_of(key)}, vals[4];
        int results[4];
        for (int i = 0; i < 4; ++i)
            vals[i] = {room[i], sizeof room[i]};
        bool group = step >> 17 & 1;
        if (lite)
            results[0] = shkv_lookup_lite(handle, &keys[0], &vals[0]);
        else if (group)
            shkv_m_lookup(handle, keys, vals, results, 4);
        else
            results[0] = shkv_lookup(handle, &keys[0], &vals[0]);
        check(results[0] == 0 || (results[0] == 2 && no >= SURE), "a lookup", no, results[0]);
        // What the lite form points at is the store's own memory, and reused in time.
        for (uint32_t i = 0; !lite && results[0] == 0 && i < vals[0].len; ++i)
            check(((char *)vals[0].ptr)[i] == (char)no, "the value", no, (int)i);
        lookups++;
    }
}

static void iterate(int handle)
{
    while (!stop) {
        shkv_iterate(handle, nullptr, nullptr, nullptr, 1);
        int result = 0;
        while (result == 0) {
            char key[32], val[400];
            shkv_buf key_buf = {key, sizeof key}, val_buf = {val, sizeof val};
            result = shkv_iterate(handle, &key_buf, &val_buf, nullptr, 0);
            lookups++;
        }
    }
}

static void write_on(int handle)
{
    for (unsigned step = 1; !stop; ++step) {
        unsigned no = step * 7 % KEYS;
        std::string key = key_of(no), value(step % 32, (char)no);
        shkv_buf key_buf = buf_of(key), val = buf_of(value);
        if (step % 97 == 0)
            shkv_txn_start(handle, nullptr);
        int result = no >= SURE && step % 3 == 0 ? shkv_delete(handle, &key_buf) : shkv_add(handle, &key_buf, &val, 0);
        check(result == 0 || result == 2, "a write", no, result);
        if (step % 97 == 20)
            step % 2 ? shkv_txn_commit(handle, nullptr) : shkv_txn_abort(handle);
        if (step % 997 == 0)
            check(shkv_m_add(handle, &key_buf, &val, 1, 1) == 0 || shkv_txn_is_active(handle) != 0, "a batch", no, 0);
        writes++;
    }
    shkv_txn_commit(handle, nullptr);
}

static void run(const char *name, uint32_t conf_flg, unsigned seconds)
{
    uint32_t err = 0;
    shkv_params params = {16, 32, 40, conf_flg, 0}; // grows several times
    int writer = shkv_create(name, 0, &params, 0, &err);
    shkv_opts opts = {0, 1, 20};
    shkv_db_set_opts(writer, 1, &opts);
    for (unsigned no = 0; no < SURE; ++no) {
        std::string key = key_of(no), value(8, (char)no);
        shkv_buf key_buf = buf_of(key), val = buf_of(value);
        check(shkv_add(writer, &key_buf, &val, 0) == 0, "the first add", no, 0);
    }
    int shared = shkv_open(name, 0, 0, SHKV_AM_READ | SHKV_AM_ITER, &err);
    int own = shkv_open(name, 0, 0, SHKV_AM_READ, &err);
    stop = false;
    std::vector<std::thread> threads;
    threads.emplace_back(write_on, writer);
    threads.emplace_back(look, shared, false, 1u);
    threads.emplace_back(look, shared, false, 2u);
    threads.emplace_back(look, own, conf_flg == CONF_FIXEDMM, 3u);
    threads.emplace_back(iterate, shared);
    timespec span = {(time_t)seconds, 0};
    nanosleep(&span, nullptr);
    stop = true;
    for (std::thread &thread : threads)
        thread.join();
    shkv_close(shared);
    shkv_close(own);
    shkv_destroy(writer);
}

int main(int argc, char **argv)
{
    unsigned seconds = argc > 1 ? (unsigned)atoi(argv[1]) : 2;
    if (!private_shm())
        return fprintf(stderr, "cannot make a mount namespace with a /dev/shm of its own\n"), 1;
    freopen("/dev/null", "w", stdout); // "key not found" of the deletes
    run("threads_fixed", CONF_FIXEDMM, seconds);
    run("threads_vector", CONF_VECTORMM, seconds);
    fprintf(stderr, "%lu lookups and %lu writes by threads of one process\n", lookups.load(), writes.load());
    return wrong;
}
