#include <random>
#include <sys/mman.h>
#include <time.h>

#include "support/kv.h"

namespace
{

// A value that tells whether it is whole: its key's number, a round, and bytes that follow from both.
void fill(uint32_t *words, uint32_t cnt, uint32_t key, uint32_t round)
{
    words[0] = key;
    words[1] = round;
    for (uint32_t i = 2; i < cnt; i++)
        words[i] = (key * 0x9e3779b1u + round) * (2 * i + 1) ^ round >> (i % 7);
}

// What a reader counts, in memory that its parent shares.
struct tally {
    volatile bool stop;
    uint64_t looks[2], torn[2], missing[2], refused[2];
};

double now()
{
    timespec at;
    clock_gettime(CLOCK_MONOTONIC, &at);
    return (double)at.tv_sec + 1e-9 * (double)at.tv_nsec;
}

enum way { SINGLE, GROUP };

struct scene {
    const char *name;
    shkv_params params;
    uint32_t keys;
    uint32_t words_max; // of a value
};

// Every key is there all the while, so whatever is not a whole value of that key is a fault.
void judge(tally *sums, int who, int ret, const uint32_t *words, uint32_t len, uint32_t key)
{
    uint32_t want[512];
    sums->looks[who]++;
    if (ret == ENOENT)
        sums->missing[who]++;
    else if (ret != 0)
        sums->refused[who]++;
    else if (fill(want, len / 4, key, words[1]); len < 8 || memcmp(want, words, len) != 0)
        sums->torn[who]++;
}

int read_all_the_while(const scene &what, way how, tally *sums, int who)
{
    kv reader = open_kv(what.name, SHKV_AM_READ);
    std::mt19937 random((unsigned)who);
    static uint32_t rooms[16][512];
    while (!sums->stop) {
        std::string names[16];
        shkv_buf keys[16], vals[16];
        uint32_t numbers[16];
        int results[16];
        for (int i = 0; i < 16; i++) {
            numbers[i] = random() % what.keys;
            names[i] = "key" + std::to_string(numbers[i]);
            keys[i] = buf_of(names[i]);
            vals[i] = {rooms[i], sizeof rooms[i]};
            if (how != GROUP) {
                results[i] = shkv_lookup(reader.handle, &keys[i], &vals[i]);
                judge(sums, who, results[i], rooms[i], vals[i].len, numbers[i]);
            }
        }
        if (how == GROUP) {
            shkv_m_lookup(reader.handle, keys, vals, results, 16);
            for (int i = 0; i < 16; i++)
                judge(sums, who, results[i], rooms[i], vals[i].len, numbers[i]);
        }
    }
    return shkv_close(reader.handle);
}

void put_round(const kv &writer, const scene &what, std::mt19937 &random, uint32_t round)
{
    uint32_t words[512], number = random() % what.keys, cnt = 2 + random() % (what.words_max - 1);
    fill(words, cnt, number, round);
    std::string value((const char *)words, cnt * 4);
    ASSERT_EQ(writer.add("key" + std::to_string(number), value), 0);
}

} // namespace

// The smallest record space, so that what is replaced is handed out again at once; a few keys, so
// that a reader meets the reuse; a writer at full speed beside two readers on as few processors.
TEST(readers, never_see_a_torn_value_or_miss_a_key_beside_a_writer)
{
    const scene scenes[] = {
        {"rd_fixed", {16, 64, 1000, CONF_FIXEDMM, 0}, 1000, 16},
        {"rd_hot", {16, 64, 100, CONF_FIXEDMM, 0}, 2, 16},
        {"rd_vector", {0, 0, 3000, CONF_VECTORMM, 0}, 1000, 100},
        {"rd_vec_hot", {0, 0, 400, CONF_VECTORMM, 0}, 3, 500},
    };
    for (const scene &what : scenes) {
        SCOPED_TRACE(what.name);
        tally *sums =
            (tally *)mmap(nullptr, sizeof(tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        kv writer = make_kv(what.name, what.params);
        std::mt19937 random(1);
        uint32_t round = 0, words[2];
        for (uint32_t number = 0; number < what.keys; number++) {
            fill(words, 2, number, round++);
            ASSERT_EQ(writer.add("key" + std::to_string(number), std::string((const char *)words, 8)), 0);
        }
        pid_t readers[2];
        for (int who = 0; who < 2; who++) {
            fflush(stdout);
            readers[who] = fork();
            if (readers[who] == 0)
                _exit(read_all_the_while(what, who ? GROUP : SINGLE, sums, who));
        }
        for (double end = now() + 2.5; now() < end && !testing::Test::HasFatalFailure();)
            for (int i = 0; i < 256; i++)
                put_round(writer, what, random, round++);
        sums->stop = true;
        for (int who = 0; who < 2; who++) {
            int status = -1;
            waitpid(readers[who], &status, 0);
            EXPECT_EQ(status, 0) << who;
            EXPECT_GT(sums->looks[who], 1000u) << who;
            EXPECT_EQ(sums->torn[who], 0u) << who << " of " << sums->looks[who];
            EXPECT_EQ(sums->missing[who], 0u) << who << " of " << sums->looks[who];
            EXPECT_EQ(sums->refused[who], 0u) << who << " of " << sums->looks[who];
        }
        EXPECT_EQ(faults_of(what.name), "");
        EXPECT_EQ(shkv_destroy(writer.handle), 0);
        munmap(sums, sizeof(tally));
    }
}
