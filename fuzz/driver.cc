// Runs a fuzz target without libFuzzer: replays files, then makes inputs of its own, some of them
// random, most of them mutations of the files and of earlier inputs. The same seed gives the same
// inputs. Ends at the first failure, which aborts; the input is then in the file named below.
//
//     TARGET [-runs=N] [-seconds=N] [-seed=N] [-save=FILE] [FILE or FOLDER]...
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <signal.h>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

using bytes = std::vector<uint8_t>;

static constexpr size_t LONGEST = 256;
static constexpr unsigned HANG_SECONDS = 10;
static uint64_t state = 1;
static bytes running;
static std::string save_path = "failing-input";

static uint32_t rnd(uint32_t below)
{
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;
    return (uint32_t)(state >> 16) % below;
}

static bytes made_up()
{
    bytes data(1 + rnd(LONGEST));
    for (uint8_t &byte : data)
        byte = (uint8_t)rnd(256);
    return data;
}

static void mutate(bytes *data_p, const std::vector<bytes> &pool)
{
    bytes &data = *data_p;
    for (uint32_t left = 1 + rnd(4); left && !data.empty(); --left) {
        size_t at = rnd((uint32_t)data.size());
        switch (rnd(5)) {
        case 0:
            data[at] = (uint8_t)rnd(256);
            break;
        case 1:
            data[at] ^= (uint8_t)(1u << rnd(8));
            break;
        case 2:
            data.insert(data.begin() + (long)at, (uint8_t)rnd(256));
            break;
        case 3:
            data.erase(data.begin() + (long)at);
            break;
        default: { // the tail of another input
            const bytes &other = pool[rnd((uint32_t)pool.size())];
            size_t from = other.empty() ? 0 : rnd((uint32_t)other.size());
            data.resize(at);
            data.insert(data.end(), other.begin() + (long)from, other.end());
        }
        }
    }
    data.resize(data.size() < LONGEST ? data.size() : LONGEST);
}

// A signal handler: only what is allowed in one.
static void on_failure(int sig)
{
    FILE *out = fopen(save_path.c_str(), "w");
    if (out) {
        fwrite(running.data(), 1, running.size(), out);
        fclose(out);
    }
    fprintf(stderr, "%s; the input is in %s\n", sig == SIGALRM ? "an input does not end" : "failed",
            save_path.c_str());
    signal(sig, SIG_DFL);
    raise(sig);
}

static void run(const bytes &data)
{
    running = data;
    alarm(HANG_SECONDS);
    LLVMFuzzerTestOneInput(data.data(), data.size());
}

static void read_files(const std::filesystem::path &path, std::vector<bytes> *pool_p)
{
    if (std::filesystem::is_directory(path)) {
        for (const auto &entry : std::filesystem::directory_iterator(path))
            read_files(entry.path(), pool_p);
        return;
    }
    std::ifstream in(path, std::ios::binary);
    pool_p->emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int main(int argc, char **argv)
{
    uint64_t runs = 0, seconds = 0;
    std::vector<bytes> pool;
    for (int i = 1; i < argc; ++i) {
        if (strncmp(argv[i], "-runs=", 6) == 0)
            runs = strtoull(argv[i] + 6, nullptr, 10);
        else if (strncmp(argv[i], "-seconds=", 9) == 0)
            seconds = strtoull(argv[i] + 9, nullptr, 10);
        else if (strncmp(argv[i], "-seed=", 6) == 0)
            state = strtoull(argv[i] + 6, nullptr, 10) * 2 + 1;
        else if (strncmp(argv[i], "-save=", 6) == 0)
            save_path = argv[i] + 6;
        else
            read_files(argv[i], &pool);
    }
    LLVMFuzzerInitialize(&argc, &argv);
    signal(SIGABRT, on_failure);
    signal(SIGALRM, on_failure);
    for (const bytes &data : pool)
        run(data);
    size_t replayed = pool.size();
    if (pool.empty())
        pool.push_back(made_up());
    uint64_t done = 0;
    time_t end = time(nullptr) + (time_t)seconds;
    for (; runs ? done < runs : seconds && time(nullptr) < end; ++done) {
        bytes data = rnd(4) ? pool[rnd((uint32_t)pool.size())] : made_up();
        mutate(&data, pool);
        run(data);
        if (rnd(64) == 0) { // the pool moves on, the files in front stay
            if (pool.size() < replayed + 256)
                pool.push_back(data);
            else
                pool[replayed + rnd(256)] = data;
        }
    }
    alarm(0);
    fprintf(stderr, "%zu inputs replayed, %lu made and run\n", replayed, (unsigned long)done);
    return 0;
}
