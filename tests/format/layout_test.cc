// A store byte by byte, from the files under /dev/shm, by code that knows none of the library's
// records: every offset below is a literal.
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/store.h"

namespace {

struct bytes {
    std::string all;

    explicit bytes(const std::string &path)
    {
        std::ifstream in(path, std::ios::binary);
        EXPECT_TRUE(in.good()) << path;
        all.assign(std::istreambuf_iterator<char>(in), {});
    }
    template <typename T> T at(size_t off) const
    {
        T val = 0;
        EXPECT_LE(off + sizeof val, all.size());
        if (off + sizeof val <= all.size())
            memcpy(&val, &all[off], sizeof val);
        return val;
    }
    uint32_t u32(size_t off) const { return at<uint32_t>(off); }
    uint32_t u16(size_t off) const { return at<uint16_t>(off); }
    uint32_t u8(size_t off) const { return at<uint8_t>(off); }
    // Whether [from, to) holds nothing but zero.
    bool zero(size_t from, size_t to) const
    {
        return to <= all.size() && all.find_first_not_of('\0', from) >= to;
    }
};

uint32_t users_hash(const void *, uint32_t len)
{
    return 0x1000 + len;
}

struct variant {
    const char *what;
    mode_t mask;
    uint32_t conf_flg;
    uint64_t hashfn;
    // expected
    uint32_t desc_hashfn, user_hash, auto_rz, sn_flg, dn_sz;
};

const variant VARIANTS[] = {
    {"fixed", 022, 0x0001, 0, 7, 0, 1, 0, 68},
    {"fixed, several writers", 0, 0x1001, 1, 0, 0, 0, 0, 68},
    {"fixed, protected, registry bits", 077, 0x0321, 11, 10, 0, 1, 0x10, 68},
    {"vector", 0777, 0x0002, (uint64_t)users_hash, 0xa6b7, 0x102c, 1, 0, 128},
    {"vector, by chunks", 022, 0x2002, 8, 7, 0, 1, 0, 128},
};

class Layout : public testing::TestWithParam<variant> {};

void check_modes()
{
    const struct { const char *path; mode_t mode; off_t size; } files[] = {
        {"/dev/shm/shkvdb", S_IFDIR | 0777, -1},
        {"/dev/shm/shkvmu", S_IFDIR | 0777, -1},
        {"/dev/shm/shkvdb/a_b", S_IFREG | 0666, 4096 + 720},
        {"/dev/shm/shkvmu/a_b_md1", S_IFREG | 0666, 1759 * 8},
        {"/dev/shm/shkvmu/a_b_md2", S_IFREG | 0666, 0},
        {"/dev/shm/shkvmu/a_b_md_txn", S_IFREG | 0666, 0},
        {"/dev/shm/shkvmu/a_b_ud1", S_IFREG | 0666, 143360},
        {"/dev/shm/shkvmu/a_b_ud2", S_IFREG | 0666, 0},
    };
    for (const auto &file : files) {
        struct stat st;
        ASSERT_EQ(0, stat(file.path, &st)) << file.path;
        EXPECT_EQ(file.mode, st.st_mode) << file.path;
        if (file.size >= 0) {
            EXPECT_EQ(file.size, st.st_size) << file.path;
        }
    }
}

void check_supernode(const variant &v, uint32_t tid)
{
    bytes sn("/dev/shm/shkvdb/a_b");
    const struct { size_t off; uint32_t val; } words[] = {
        {0x000, 0xa5c2e71d}, {0x004, 0},
        {0x008 + 16, 0x90}, // the mutex's kind: robust, and the C library's own mark for that
        {0x030, 1}, {0x050, 5}, {0x054, tid}, {0x074, v.sn_flg}, {0x078, 0}, {0x07c, 0}, {0x080, 77},
        {0x08c, 2000}, {0x090, 0xabcd}, {0x094, v.auto_rz}, {0x264, 0},
        {0x268, v.user_hash}, {0x26c, 1759}, {0x270, v.desc_hashfn}, {0x274, 1759 * 8}, {0x278, 1},
        {0x2a4, 143360}, {0x2a8, 1}, {0x2c8, 0x5a3d18e2}, {0x2cc, 0},
        {4096, 0xf00dbabe}, {4096 + 4, 0x00101001}, {4096 + 8, 251}, {4096 + 12, 0}};
    for (const auto &word : words)
        EXPECT_EQ(word.val, sn.u32(word.off)) << std::hex << word.off;
    const struct { size_t off; uint32_t val; } halves[] = {
        {0x084, v.conf_flg}, {0x086, 16}, {0x088, 32}, {0x08a, 0}, {0x098, 300}, {0x262, 0}};
    for (const auto &half : halves)
        EXPECT_EQ(half.val, sn.u16(half.off)) << std::hex << half.off;
    EXPECT_EQ("a_b", sn.all.substr(0x09a, 3));
    EXPECT_EQ('a' ^ '_' ^ 'b', (int)sn.u8(0x185));
    EXPECT_EQ("a/b", sn.all.substr(0x186, 3));
    const struct { size_t from, to; } gaps[] = {{0x058, 0x074}, {0x09d, 0x185}, {0x189, 0x262}, {0x27c, 0x2a4},
                                                {0x2ac, 0x2c8}, {0x2d0, 4096}};
    for (const auto &gap : gaps)
        EXPECT_TRUE(sn.zero(gap.from, gap.to)) << std::hex << gap.from;
}

void check_space(const variant &v)
{
    bytes ud("/dev/shm/shkvmu/a_b_ud1"), md("/dev/shm/shkvmu/a_b_md1");
    EXPECT_EQ(0xffffffffu, ud.u32(0) ^ ud.u32(204));
    EXPECT_NE(0u, ud.u32(0));
    EXPECT_EQ(256u, ud.u32(4));
    EXPECT_EQ(v.dn_sz, ud.u32(32));
    EXPECT_EQ(256 + (143360 - 256) / v.dn_sz * v.dn_sz, ud.u32(36));
    EXPECT_TRUE(ud.zero(208, 256));
    EXPECT_TRUE(md.zero(0, md.all.size()));
}

// A record of key "k" and value "value", in the one bucket that is not empty.
void check_record(const variant &v)
{
    bytes ud("/dev/shm/shkvmu/a_b_ud1"), md("/dev/shm/shkvmu/a_b_md1");
    size_t bucket = md.all.find_first_not_of('\0') / 8;
    if (v.desc_hashfn == 7) {
        EXPECT_EQ(32u ^ 'k', bucket);
    }
    uint32_t off = md.u32(bucket * 8);
    EXPECT_TRUE(md.zero(bucket * 8 + 4, md.all.size()));
    ASSERT_GE(off, 256u);
    EXPECT_EQ(0u, (off - 256) % v.dn_sz);
    EXPECT_TRUE(ud.zero(off, off + 12)); // no further unit, no further record
    EXPECT_EQ(1u, ud.u16(off + 12));
    EXPECT_EQ(5u, ud.u16(off + 14));
    EXPECT_EQ(0u, ud.u8(off + 18));
    if (v.dn_sz == 68) {
        EXPECT_EQ("kvalue", ud.all.substr(off + 20, 6));
        EXPECT_EQ((uint32_t)('k' ^ 'v' ^ 'a' ^ 'l' ^ 'u' ^ 'e'), ud.u8(off + 19));
        return;
    }
    EXPECT_EQ(1u, ud.u16(off + 16));
    EXPECT_EQ(off, ud.u32(off + 20));
    EXPECT_EQ(off + 29, ud.u32(off + 24));
    EXPECT_EQ("kvalue", ud.all.substr(off + 28, 6));
    EXPECT_EQ((uint32_t)('k' ^ 'e'), ud.u8(off + 19));
}

TEST_P(Layout, a_new_store_lies_in_six_objects_that_anyone_may_open)
{
    on_fresh_machine("64m", [] {
        const variant &v = GetParam();
        SCOPED_TRACE(v.what);
        umask(v.mask);
        shkv_params params = {16, 32, 2000, v.conf_flg | 0xabc0000, 0xabcd};
        uint32_t err = 1;
        int handle = shkv_create("svc:a/b", 77, &params, v.hashfn, &err);
        EXPECT_EQ(0u, err);
        EXPECT_EQ(v.mask, umask(0));
        check_modes();
        check_supernode(v, (uint32_t)syscall(SYS_gettid));
        check_space(v);
        EXPECT_EQ(0, put(handle, "k", "value"));
        check_record(v);
        EXPECT_EQ(0, shkv_close(handle));
        EXPECT_EQ(0u, bytes("/dev/shm/shkvdb/a_b").u32(0x054));
    });
}

INSTANTIATE_TEST_SUITE_P(, Layout, testing::ValuesIn(VARIANTS));

} // namespace
