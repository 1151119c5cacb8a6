// A head follows what others did to a store: sizes, exchanged tables, the other record space.
#include <fcntl.h>
#include <sys/mman.h>

#include "shkv_intf/addr.h"
#include "shkv_intf/obj_remap.h"
#include "support/kv.h"

namespace {

// As a lookup does it.
int check(const kv &store, uint32_t flg)
{
    return check_hdmd_remap(store.head(), flg, store.handle, PROT_READ, nullptr);
}

// What another process does when it makes an object larger.
template <typename D> void grow(const char *path, uint32_t size, D *desc_p)
{
    ASSERT_EQ(0, truncate(path, size));
    desc_p->obj_sz = size;
    desc_p->obj_ver++;
}

TEST(Remap, a_writers_space_stays_writable_when_its_lookup_maps_it)
{
    kv writer = make_kv("rm_ud", {16, 32, 100, CONF_FIXEDMM, 0});
    grow("/dev/shm/shkvmu/rm_ud_ud1", 0x100000, &writer.sn()->ud1);
    EXPECT_EQ(0, check(writer, CF_MD1 | CF_UD1));
    EXPECT_EQ(0x100000u, writer.head()->ud1_map->mapped_sz);
    writer.ud()[0xfffff] = 'x';
}

TEST(Remap, table_gets_the_function_of_its_descriptor)
{
    kv writer = make_kv("rm_md2", {16, 32, 100, CONF_FIXEDMM, 0}), reader = open_kv("rm_md2", SHKV_AM_READ);
    supernode *sn = writer.sn();
    md_rec *rec_p = &reader.head()->md2;
    auto check_md2 = [&] { return check(reader, CF_MD2 | CF_UD1); };
    sn->md2.hashfn = 3;
    grow("/dev/shm/shkvmu/rm_md2_md2", 0x1000, &sn->md2);
    EXPECT_EQ(0, check_md2());
    EXPECT_EQ(elfhash, rec_p->hash_fn);
    EXPECT_EQ(0x1000u, rec_p->mapped_sz);
    const mdn *base_p = rec_p->base;
    rec_p->hash_fn = nullptr; // opened while the table was being built: in step, not bound
    EXPECT_EQ(0, check_md2());
    EXPECT_EQ(elfhash, rec_p->hash_fn);
    EXPECT_EQ(base_p, rec_p->base);

    sn->md2.hashfn = 0xa6b7;
    grow("/dev/shm/shkvmu/rm_md2_md2", 0x2000, &sn->md2);
    EXPECT_EQ(0, check_md2()); // the function that is there stays
    EXPECT_EQ(elfhash, rec_p->hash_fn);
    rec_p->hash_fn = nullptr;
    log_catcher log;
    EXPECT_EQ(0, check_md2()); // refused quietly: the operation goes on
    EXPECT_NE(std::string::npos, log.all().find("shkv_remap_mdobj,                 new user-hashfn used, the db has"
                                                "                 to be reopened"));
    EXPECT_EQ("check_hdmd_remap,                     can not remap the obj, shkvh:" + std::to_string(reader.handle),
              log.last());
}

TEST(Remap, failed_remap_leaves_no_mapping_and_is_tried_again)
{
    kv writer = make_kv("rm_fail", {16, 32, 100, CONF_FIXEDMM, 0}), reader = open_kv("rm_fail", SHKV_AM_READ);
    supernode *sn = writer.sn();
    uint32_t size = sn->md1.obj_sz;
    sn->md1.obj_sz = 0;
    sn->md1.obj_ver++;
    EXPECT_EQ(ENOMEM, check(reader, CF_MD1 | CF_UD1));
    EXPECT_EQ(nullptr, reader.head()->md1.base);
    auto told = [&](uint32_t want, int value) {
        last_event event(sn);
        EXPECT_EQ(TRACE_ONE | want, event.code);
        EXPECT_EQ((uint32_t)value, event.arg) << want;
    };
    told(0x3c, EINVAL);
    // Every operation tells of it by an event of its own, with the value.
    shkv_buf key = buf_of("key"), value = {nullptr, 0};
    told(0x16, shkv_lookup(reader.handle, &key, &value));
    told(0x74, shkv_lookup_lite(reader.handle, &key, &value));
    told(0x90, shkv_iterate(writer.handle, nullptr, nullptr, nullptr, 1));
    told(0x6a, writer.add("key", "v"));
    told(0x7d, writer.del("key"));
    sn->md1.obj_sz = size;
    EXPECT_EQ(0, check(reader, CF_MD1 | CF_UD1));
    EXPECT_NE(nullptr, reader.head()->md1.base);
}

// Addresses that were handed out stay good, and every offset lands on its byte of the file.
TEST(Remap, chunks_are_added_behind_what_is_mapped)
{
    kv writer = make_kv("rm_chunk", {16, 32, 100, CONF_VECTORMM | CONF_SHMAP, 0});
    kv reader = open_kv("rm_chunk", SHKV_AM_READ), other = open_kv("rm_chunk", SHKV_AM_READ);
    supernode *sn = writer.sn();
    shkv_head *head = reader.head();
    EXPECT_EQ(head->ud1_map, other.head()->ud1_map);
    const void *map0_p = head->ud1_map->map[0];
    for (uint32_t size : {0x2000000u, 0x4000000u, 0x8000000u, 0x10000000u}) {
        grow("/dev/shm/shkvmu/rm_chunk_ud1", size, &sn->ud1);
        ASSERT_EQ(0, check(reader, CF_MD1 | CF_UD1));
        EXPECT_EQ(size, head->ud1_map->mapped_sz);
    }
    EXPECT_EQ(map0_p, head->ud1_map->map[0]);
    EXPECT_EQ(6u, head->ud1_map->map_cnt); // map 0, the rest of its chunk, three small ones, a big one
    int fd = open("/dev/shm/shkvmu/rm_chunk_ud1", O_RDWR);
    for (uint32_t off : {0x3000u, 0x1ffffffu, 0x2000000u, 0x7ffffffu, 0x8000000u, 0xfffffffu}) {
        char mark = (char)(off >> 21 | 1);
        EXPECT_EQ(1, pwrite(fd, &mark, 1, off));
        EXPECT_EQ(mark, *(char *)shkv_ud_offset_to_addr(head, off)) << std::hex << off;
        EXPECT_EQ(mark, *(char *)shkv_ud_offset_to_addr(other.head(), off)) << std::hex << off;
    }
    close(fd);
    // The writer's head uses the same table: what a reader mapped, it may write.
    EXPECT_EQ(writer.head()->ud1_map, head->ud1_map);
    *(char *)shkv_ud_offset_to_addr(writer.head(), 0x9000000) = 'x';
    EXPECT_EQ(0, shkv_close(reader.handle)); // the table is still in use
    EXPECT_EQ('x', *(char *)shkv_ud_offset_to_addr(other.head(), 0x9000000));
    EXPECT_EQ(0, shkv_destroy(writer.handle));
    EXPECT_EQ('x', *(char *)shkv_ud_offset_to_addr(other.head(), 0x9000000));
    EXPECT_EQ(0, shkv_close(other.handle));
}

} // namespace
