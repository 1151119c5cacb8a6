// The writer's place between processes, and what the next one finds after its writer died.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/kv.h"

namespace {

void make_closed(const char *name, uint32_t conf_flg = CONF_FIXEDMM)
{
    kv made = make_kv(name, {16, 32, 100, conf_flg, 0});
    EXPECT_EQ(0, made.add("key", "value"));
    EXPECT_EQ(0, shkv_close(made.handle));
}

void destroy(const char *name)
{
    EXPECT_EQ(0, shkv_destroy(open_kv(name, SHKV_AM_WRITE).handle));
}

TEST(Takeover, second_writer_waits_for_the_first_to_die)
{
    make_closed("place");
    kv reader = open_kv("place", SHKV_AM_READ);
    other_process first([] { EXPECT_EQ(0, open_kv("place", SHKV_AM_WRITE).add("mine", "1")); });
    uint32_t err = 0;
    {
        log_catcher log;
        EXPECT_EQ(0, shkv_open("place", 5, 0, SHKV_AM_WRITE, &err));
        EXPECT_EQ(22u, err);
        EXPECT_EQ("uuid:5, the write is not permitted:                            1 " + std::to_string(first.pid),
                  log.last());
    }
    // A debug writer comes in beside it and leaves wr_tid alone.
    kv debugger = {shkv_open("place", UUID_DEBUG, 0, SHKV_AM_WRITE | SHKV_AM_DBG, &err)};
    EXPECT_EQ((uint32_t)first.pid, debugger.sn()->wr_tid[0]);
    uint32_t ver = debugger.sn()->ud1.obj_ver;
    debugger.sn()->sn_flg = 0;
    first.die();
    kv second = open_kv("place", SHKV_AM_WRITE);
    EXPECT_EQ((uint32_t)syscall(SYS_gettid), second.sn()->wr_tid[0]);
    EXPECT_EQ(ver + 1, second.sn()->ud1.obj_ver);
    EXPECT_EQ(0, second.add("mine", "2"));
    EXPECT_EQ("2", reader.at("mine"));
    EXPECT_EQ(second.sn()->ud1.obj_ver, reader.head()->ud1_map->ver);
    for (const kv *handle : {&reader, &debugger, &second})
        EXPECT_EQ(0, shkv_close(handle->handle));
    EXPECT_EQ("", faults_of("place"));
    destroy("place");
}

// Growth stores the header before the descriptor: the writer died in between, or did not.
TEST(Takeover, growth_that_was_cut_is_finished)
{
    const struct { const char *what; uint32_t conf_flg, file_sz, end, want_sz; } cases[] = {
        {"nothing to do", CONF_FIXEDMM, 0, 0, 0},
        {"header raised", CONF_FIXEDMM, 0x8000, 0x7f00, 0x8000},
        {"header raised, by chunks", CONF_VECTORMM | CONF_SHMAP, 0x2000000, 0x1ffff80, 0x2000000},
        {"object longer, header as it was", CONF_FIXEDMM, 0x8000, 0, 0},
        {"header past the object", CONF_FIXEDMM, 0, 0x7f00, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        make_closed("cut", c.conf_flg);
        kv reader = open_kv("cut", SHKV_AM_READ);
        uint32_t old_sz = reader.sn()->ud1.obj_sz, old_ver = reader.sn()->ud1.obj_ver;
        int fd = open("/dev/shm/shkvmu/cut_ud1", O_RDWR);
        EXPECT_EQ(0, c.file_sz ? ftruncate(fd, c.file_sz) : 0);
        EXPECT_EQ(4, c.end ? pwrite(fd, &c.end, 4, 36) : 4);
        close(fd);
        kv writer = open_kv("cut", SHKV_AM_WRITE);
        EXPECT_EQ(c.want_sz ? c.want_sz : old_sz, writer.sn()->ud1.obj_sz);
        EXPECT_EQ(c.want_sz ? old_ver + 1 : old_ver, writer.sn()->ud1.obj_ver);
        EXPECT_EQ(writer.sn()->ud1.obj_sz, writer.head()->ud1_map->mapped_sz);
        EXPECT_EQ(writer.sn()->ud1.obj_ver, writer.head()->ud1_map->ver);
        EXPECT_EQ("value", reader.at("key"));
        EXPECT_EQ(writer.sn()->ud1.obj_sz, reader.head()->ud1_map->mapped_sz);
        EXPECT_EQ(0, shkv_close(writer.handle));
        reg_rec rec;
        EXPECT_EQ(0, check_shkv_uri("cut", &rec));
        EXPECT_EQ(c.want_sz ? c.want_sz : old_sz, rec.reg_size);
        EXPECT_EQ(0, shkv_close(reader.handle));
        destroy("cut");
    }
}

} // namespace
