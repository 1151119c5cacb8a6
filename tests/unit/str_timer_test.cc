// The clock, the bounded string helpers and the text log.
#include <gtest/gtest.h>

#include <errno.h>
#include <fnmatch.h>
#include <fstream>
#include <sys/mount.h>
#include <unistd.h>

#include "diag/fail.h"
#include "diag/log.h"
#include "diag/str.h"
#include "diag/timer.h"

// A /proc/cpuinfo of our own, in this test's mount namespace.
struct clock_rate : testing::Test {
    int read_rate(const char *text)
    {
        std::ofstream("/dev/shm/cpuinfo") << text;
        EXPECT_EQ(mount("/dev/shm/cpuinfo", "/proc/cpuinfo", nullptr, MS_BIND, nullptr), 0);
        int result = init_cpu_hz();
        umount("/proc/cpuinfo");
        return result;
    }
    void TearDown() override { EXPECT_EQ(init_cpu_hz(), 1); }
};

TEST_F(clock_rate, comes_from_the_first_processor)
{
    ASSERT_EQ(read_rate("model\t: x\ncpu MHz\t\t: 2000.000\ncpu MHz\t\t: 5.0\n"), 1);
    EXPECT_EQ(timer_diff_cycle_in_msec(2000000, 0), 1u);
    EXPECT_EQ(timer_diff_cycle_in_usec(7000, 1000), 3u);
    EXPECT_EQ(timer_diff_cycle_in_msec(0, 1), ~0ull / 2000000); // backwards is enormous
    EXPECT_EQ(read_rate(" cpu MHz: 5\ncpu MHz 2000.0\n"), 0);
    EXPECT_EQ(timer_diff_cycle_in_msec(2000000, 0), 1u); // a failure keeps what was known
    ASSERT_EQ(read_rate("cpu MHz : none\n"), 1);
    EXPECT_EQ(timer_diff_cycle_in_msec(1, 1), ~0ull); // every wait counts as over
    EXPECT_EQ(timer_diff_cycle_in_usec(2, 1), ~0ull);
}

TEST(str, copies_end_at_the_nul_the_limit_or_the_other_buffer)
{
    char buf[32];
    const struct { int dst, src; uint32_t n; int want; const char *left; } cases[] = {
        {16, 0, 1, 0, "a"}, {16, 0, 15, 0, "abcdefghij"}, {4, 0, 15, 404, "abcdij"}, {0, 4, 15, 404, "efghefghij"}};
    for (const auto &each : cases) {
        memset(buf, 0, sizeof buf);
        strcpy(buf, "abcdefghij");
        EXPECT_EQ(shkv_sstrncpy(buf + each.dst, buf + each.src, each.n), each.want);
        EXPECT_STREQ(buf + each.dst, each.left);
    }
    int out = 7;
    EXPECT_EQ(shkv_sstrncpy(nullptr, "a", 1) + shkv_smemcmp("a", nullptr, 1, &out), 800);
    EXPECT_EQ(shkv_smemcmp("a\x01", "a\xff", 2, &out), 0);
    EXPECT_EQ(out, -1);
}

TEST(log, lines_have_a_short_or_a_dated_prefix)
{
    shkv_debug_cmd cmd = {0, 2, "/dev/shm/own.log", 1};
    shkv_debug_cmd_handler(&cmd);
    EXPECT_EQ(shkv_dbg_en, 0); // a command of 2 is none
    cmd.cmd = 1;
    shkv_debug_cmd_handler(&cmd);
    ASSERT_EQ(shkv_dbg_en, 1);
    uint32_t err = 0;
    errno = 123;
    EXPECT_EQ(fail(nullptr, 0x10, 1, 22, "one %d", 1), 22);
    EXPECT_EQ(fail_err(nullptr, 0x10, 1, &err, 12, "two"), 0);
    EXPECT_EQ(err, 12u);
    EXPECT_EQ(errno, 123);
    cmd.unformat = 0;
    strcpy(cmd.path, "/dev/shm/other.log"); // the form changes, the file stays
    shkv_debug_cmd_handler(&cmd);
    LOG("three\n");
    cmd.cmd = 0;
    shkv_debug_cmd_handler(&cmd);
    LOG("four");
    EXPECT_TRUE(shkv_dbg_en == 0 && shkv_dbg_fp == nullptr);
    std::ifstream file("/dev/shm/own.log");
    std::string text, dated = "####-##-## ##:##:##.######";
    std::getline(file, text, '\0');
    std::string want = "[0-9]*:[0-9]* one 1[0-9]*:[0-9]* two\n" + dated + " three\n";
    for (size_t at; (at = want.find('#')) != std::string::npos;)
        want.replace(at, 1, "[0-9]");
    EXPECT_EQ(fnmatch(want.c_str(), text.c_str(), 0), 0) << text;
    EXPECT_NE(access("/dev/shm/other.log", F_OK), 0);
    EXPECT_EQ(shkv_debugs_on("/nowhere/at/all"), -1);
    EXPECT_EQ(shkv_dbg_en, 0);
}

// The default file goes to the first directory that can be written.
TEST(log, default_file_is_the_process_s_own_and_can_be_removed)
{
    std::string name = "/" + std::to_string(getpid()) + ".shkvdbg.log";
    bool external = access("/var/log/external", W_OK) == 0;
    std::string path = (external ? "/var/log/external" : "/var/tmp") + name;
    for (uint32_t remove : {0u, 1u}) {
        ASSERT_EQ(shkv_debugs_on(nullptr), 0);
        EXPECT_EQ(shkv_debugs_on("/dev/shm/ignored"), 0);
        LOG("line");
        shkv_debug_off(remove);
        EXPECT_EQ(access(path.c_str(), F_OK) == 0, remove == 0);
    }
    EXPECT_NE(access("/dev/shm/ignored", F_OK), 0);
}
