// Runs a fuzz target without libFuzzer: replays files, then makes inputs of its own, some of them
// random, most of them mutations of the files and of earlier inputs. The same seed gives the same
// inputs. Ends at the first failure, which aborts; the input is then in the file failing-input.
//
//     TARGET [-runs=N] [-seed=N] [FILE or FOLDER]...
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

using bytes = std::vector<uint8_t>;

static constexpr size_t LONGEST = 128, POOL = 256;
static constexpr unsigned HANG_SECONDS = 10;
static std::mt19937 rng;
static bytes running;

static size_t rnd(size_t below)
{
    return rng() % below;
}

static bytes made_up()
{
    bytes data(1 + rnd(LONGEST));
    for (uint8_t &byte : data)
        byte = (uint8_t)rnd(256);
    return data;
}

static void mutate(bytes &data, const std::vector<bytes> &pool)
{
    for (size_t left = 1 + rnd(4); left && !data.empty(); --left) {
        auto at = data.begin() + (long)rnd(data.size());
        switch (rnd(5)) {
        case 0:
            *at = (uint8_t)rnd(256);
            break;
        case 1:
            *at ^= (uint8_t)(1u << rnd(8));
            break;
        case 2:
            data.insert(at, (uint8_t)rnd(256));
            break;
        case 3:
            data.erase(at);
            break;
        default: // the tail of another input
            const bytes &other = pool[rnd(pool.size())];
            data.erase(at, data.end());
            data.insert(data.end(), other.begin() + (long)rnd(other.size() + 1), other.end());
        }
    }
    if (data.size() > LONGEST)
        data.resize(LONGEST);
}

static void on_failure(int sig)
{
    if (FILE *out = fopen("failing-input", "w")) {
        fwrite(running.data(), 1, running.size(), out);
        fclose(out);
    }
    fprintf(stderr, "%s; the input is in failing-input\n", sig == SIGALRM ? "an input does not end" : "failed");
    signal(sig, SIG_DFL);
    raise(sig);
}

static void run(const bytes &data)
{
    running = data;
    alarm(HANG_SECONDS);
    LLVMFuzzerTestOneInput(data.data(), data.size());
}

static void read_files(const std::filesystem::path &path, std::vector<bytes> &pool)
{
    if (std::filesystem::is_directory(path)) {
        for (const auto &entry : std::filesystem::directory_iterator(path))
            read_files(entry.path(), pool);
        return;
    }
    std::ifstream in(path, std::ios::binary);
    pool.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

int main(int argc, char **argv)
{
    unsigned long runs = 0, seed = 1;
    std::vector<bytes> pool;
    for (int i = 1; i < argc; ++i)
        if (sscanf(argv[i], "-runs=%lu", &runs) != 1 && sscanf(argv[i], "-seed=%lu", &seed) != 1)
            read_files(argv[i], pool);
    LLVMFuzzerInitialize(&argc, &argv);
    for (int sig : {SIGABRT, SIGALRM})
        signal(sig, on_failure);
    rng.seed((unsigned)seed);
    for (const bytes &data : pool)
        run(data);
    size_t replayed = pool.size();
    pool.push_back(made_up());
    for (unsigned long done = 0; done < runs; ++done) {
        bytes data = rnd(4) ? pool[rnd(pool.size())] : made_up();
        mutate(data, pool);
        run(data);
        if (rnd(64) == 0) // the pool moves on, the files in front stay
            pool.size() < replayed + POOL ? pool.push_back(data) : void(pool[replayed + rnd(POOL)] = data);
    }
    alarm(0);
    fprintf(stderr, "%zu inputs replayed, %lu made and run\n", replayed, runs);
    return 0;
}
