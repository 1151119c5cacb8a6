// A store byte by byte, from the files under /dev/shm, by code that knows none of the library's
// records: every offset below is a literal.
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/store.h"

namespace {

std::string bytes_of(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << path;
    return {std::istreambuf_iterator<char>(in), {}};
}

uint64_t number_at(const std::string &bytes, size_t off, size_t size)
{
    uint64_t val = 0;
    bytes.copy((char *)&val, size, off);
    return val;
}

struct field {
    size_t off, size;
    uint64_t val; // the first byte is the lowest
};

// These fields, and zero in all other bytes but those of the gaps.
void expect_bytes(std::string bytes, const std::vector<field> &fields, const std::vector<std::pair<size_t, size_t>> &gaps)
{
    for (const auto &[off, size, val] : fields) {
        EXPECT_EQ(val, number_at(bytes, off, size)) << std::hex << off;
        bytes.replace(off, size, size, '\0');
    }
    for (const auto &[from, to] : gaps)
        bytes.replace(from, to - from, to - from, '\0');
    EXPECT_EQ(std::string::npos, bytes.find_first_not_of('\0'));
}

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
    expect_bytes(bytes_of("/dev/shm/shkvdb/a_b"),
        {{0x000, 4, 0xa5c2e71d}, {0x008 + 16, 4, 0x90}, // the mutex's kind: robust, and the C library's own mark for that
         {0x030, 4, 1}, {0x050, 4, 5}, {0x054, 4, tid}, {0x074, 4, v.sn_flg}, {0x080, 4, 77},
         {0x084, 2, v.conf_flg}, {0x086, 2, 16}, {0x088, 2, 32}, {0x08c, 4, 2000}, {0x090, 4, 0xabcd},
         {0x094, 4, v.auto_rz}, {0x098, 2, 300}, {0x09a, 3, 'a' | '_' << 8 | 'b' << 16}, {0x185, 1, 'a' ^ '_' ^ 'b'},
         {0x186, 3, 'a' | '/' << 8 | 'b' << 16}, {0x268, 4, v.user_hash}, {0x26c, 4, 1759}, {0x270, 4, v.desc_hashfn},
         {0x274, 4, 1759 * 8}, {0x278, 4, 1}, {0x2a4, 4, 143360}, {0x2a8, 4, 1}, {0x2c8, 4, 0x5a3d18e2},
         {4096, 4, 0xf00dbabe}, {4096 + 4, 4, 0x00101001}, {4096 + 8, 4, 251}},
        {{0x008, 0x050}, {4096 + 16, 4096 + 720}}); // mutex and semaphore; the ring's events
}

void check_space(const variant &v)
{
    std::string ud = bytes_of("/dev/shm/shkvmu/a_b_ud1");
    uint64_t magic = number_at(ud, 0, 4);
    EXPECT_NE(0u, magic);
    expect_bytes(ud.substr(0, 256),
                 {{0, 4, magic}, {4, 4, 256}, {32, 4, v.dn_sz}, {36, 4, 256 + (143360 - 256) / v.dn_sz * v.dn_sz},
                  {204, 4, magic ^ 0xffffffff}}, {{8, 204}});
    expect_bytes(bytes_of("/dev/shm/shkvmu/a_b_md1"), {}, {});
}

// A record of key "k" and value "value", in the one bucket that is not empty.
void check_record(const variant &v)
{
    std::string ud = bytes_of("/dev/shm/shkvmu/a_b_ud1"), md = bytes_of("/dev/shm/shkvmu/a_b_md1");
    size_t bucket = md.find_first_not_of('\0') / 8;
    if (v.desc_hashfn == 7) {
        EXPECT_EQ(32u ^ 'k', bucket);
    }
    size_t off = number_at(md, bucket * 8, 4);
    expect_bytes(md, {{bucket * 8, 4, off}}, {});
    ASSERT_GE(off, 256u);
    EXPECT_EQ(0u, (off - 256) % v.dn_sz);
    const uint64_t kvalue = 0x65756c61766b; // neither a further unit nor a further record
    std::vector<field> fixed = {{12, 2, 1}, {14, 2, 5}, {19, 1, 'k' ^ 'v' ^ 'a' ^ 'l' ^ 'u' ^ 'e'}, {20, 6, kvalue}};
    std::vector<field> vector = {{12, 2, 1}, {14, 2, 5}, {16, 2, 1}, {19, 1, 'k' ^ 'e'}, {20, 4, off}, {24, 4, off + 29},
                                 {28, 6, kvalue}};
    expect_bytes(ud.substr(off, v.dn_sz), v.dn_sz == 68 ? fixed : vector, {});
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
        EXPECT_EQ(0u, number_at(bytes_of("/dev/shm/shkvdb/a_b"), 0x054, 4));
    });
}

INSTANTIATE_TEST_SUITE_P(, Layout, testing::ValuesIn(VARIANTS));

} // namespace
