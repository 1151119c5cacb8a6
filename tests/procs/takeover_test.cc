// The writer's place between processes, and what the next one finds after its writer died.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "support/kv.h"

namespace {

// Growth stores the header before the descriptor: the first writer died in between, or did not.
TEST(Takeover, next_writer_waits_for_the_first_to_die_and_finishes_its_growth)
{
    const struct { const char *what; uint32_t conf_flg, file_sz, end, want_sz; bool own_id = false; } cases[] = {
        {"nothing to do", CONF_FIXEDMM, 0, 0, 0},
        {"nothing to do, the dead writer's id given to this thread", CONF_FIXEDMM, 0, 0, 0, true},
        {"header raised", CONF_FIXEDMM, 0x8000, 0x7f00, 0x8000},
        {"header raised, by chunks", CONF_VECTORMM | CONF_SHMAP, 0x2000000, 0x1ffff80, 0x2000000},
        {"object longer, header as it was", CONF_FIXEDMM, 0x8000, 0, 0},
        {"header past the object", CONF_FIXEDMM, 0, 0x7f00, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(0, shkv_close(make_kv("cut", {16, 32, 100, c.conf_flg, 0}).handle));
        kv reader = open_kv("cut", SHKV_AM_READ);
        other_process first([] { EXPECT_EQ(0, open_kv("cut", SHKV_AM_WRITE).add("key", "value")); });
        EXPECT_EQ(0, open_store("cut", SHKV_AM_WRITE));
        // A debug writer comes in beside it and leaves wr_tid alone.
        uint32_t err = 0;
        kv debugger = {shkv_open("cut", UUID_DEBUG, 0, SHKV_AM_WRITE | SHKV_AM_DBG, &err)};
        EXPECT_EQ((uint32_t)first.pid, debugger.sn()->wr_tid[0]);
        debugger.sn()->sn_flg = 0; // or the next writer may not write
        first.die();

        uint32_t old_sz = reader.sn()->ud1.obj_sz, old_ver = reader.sn()->ud1.obj_ver;
        int fd = open("/dev/shm/shkvmu/cut_ud1", O_RDWR);
        EXPECT_EQ(0, c.file_sz ? ftruncate(fd, c.file_sz) : 0);
        EXPECT_EQ(4, c.end ? pwrite(fd, &c.end, 4, 36) : 4);
        close(fd);
        if (const uint32_t tid = (uint32_t)syscall(SYS_gettid); c.own_id) {
            fd = open(object_path("cut", OBJ_SN).c_str(), O_RDWR);
            EXPECT_EQ(4, pwrite(fd, &tid, 4, offsetof(supernode, wr_tid)));
            close(fd);
        }
        kv writer = open_kv("cut", SHKV_AM_WRITE);
        const ud_desc &ud = writer.sn()->ud1;
        EXPECT_EQ((uint32_t)syscall(SYS_gettid), writer.sn()->wr_tid[0]);
        EXPECT_EQ(c.want_sz ? c.want_sz : old_sz, ud.obj_sz);
        EXPECT_EQ(old_ver + 1 + (c.want_sz != 0), ud.obj_ver); // the death counts, too
        EXPECT_EQ("value", reader.at("key"));
        for (const kv *handle : {&writer, &reader}) {
            EXPECT_EQ(ud.obj_sz, handle->head()->ud1_map->mapped_sz);
            EXPECT_EQ(ud.obj_ver, handle->head()->ud1_map->ver);
        }
        EXPECT_EQ(0, writer.add("key", "next"));
        EXPECT_EQ("next", reader.at("key"));
        uint32_t reg_sz = ud.obj_sz;
        for (const kv *handle : {&reader, &debugger, &writer})
            EXPECT_EQ(0, shkv_close(handle->handle));
        reg_rec rec;
        EXPECT_EQ(0, check_shkv_uri("cut", &rec));
        EXPECT_EQ(reg_sz, rec.reg_size);
        EXPECT_TRUE(c.end || faults_of("cut").empty()) << faults_of("cut");
        EXPECT_EQ(0, shkv_destroy(open_kv("cut", SHKV_AM_WRITE).handle));
    }
}

} // namespace
