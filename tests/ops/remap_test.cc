// A head follows what others did to a store: sizes, exchanged tables, the other record space.
#include <sys/stat.h>

#include "shkv_intf/addr.h"
#include "shkv_intf/obj_remap.h"
#include "support/kv.h"

namespace {

constexpr uint32_t RW = 3, RO = 1;

int check(const kv &store, uint32_t flg, int prot)
{
    return check_hdmd_remap(store.head(), flg, store.handle, prot, nullptr);
}

std::string mu_path(const char *name, const char *suffix)
{
    return std::string("/dev/shm/shkvmu/") + name + suffix;
}

// What another process does when it makes an object larger.
void grow(const char *name, const char *suffix, uint32_t size, uint32_t *obj_sz_p, uint32_t *obj_ver_p)
{
    ASSERT_EQ(0, truncate(mu_path(name, suffix).c_str(), size));
    *obj_sz_p = size;
    ++*obj_ver_p;
}

TEST(Remap, second_record_space_is_filed_under_its_own_table)
{
    kv creator = make_kv("rm_ud2", {16, 32, 100, CONF_FIXEDMM, 0}), reader = open_kv("rm_ud2", SHKV_AM_READ);
    supernode *sn = creator.sn();
    grow("rm_ud2", "_ud2", 0x4000, &sn->ud2.obj_sz, &sn->ud2.obj_ver);
    EXPECT_EQ(nullptr, creator.head()->ud2_map);
    for (const kv *store : {&creator, &reader}) {
        shkv_head *head = store->head();
        ud_map before = *head->ud1_map;
        EXPECT_EQ(0, check(*store, CF_MD1 | CF_UD1 | CF_UD2 | UDO1N2, RW));
        EXPECT_EQ(0, memcmp(&before, head->ud1_map, sizeof before));
        ASSERT_TRUE(head->ud2_map && head->ud2_map->map[0]);
        EXPECT_EQ(0x4000u, head->ud2_map->mapped_sz);
        EXPECT_EQ(sn->ud2.obj_ver, head->ud2_map->ver);
    }
    ((char *)creator.head()->ud2_map->map[0])[0] = 'x';
    EXPECT_EQ('x', *(char *)reader.head()->ud2_map->map[0]);
    // A writer's lookup finds the space in use stale: it stays writable.
    grow("rm_ud2", "_ud1", 0x100000, &sn->ud1.obj_sz, &sn->ud1.obj_ver);
    EXPECT_EQ(0, check(creator, CF_MD1 | CF_UD1, RO));
    EXPECT_EQ(0x100000u, creator.head()->ud1_map->mapped_sz);
    ((char *)creator.head()->ud1_map->map[0])[0xfffff] = 'x';
    EXPECT_EQ(0, shkv_close(reader.handle));
    EXPECT_EQ(0, shkv_destroy(creator.handle));
}

TEST(Remap, table_gets_the_function_of_its_descriptor)
{
    kv writer = make_kv("rm_md2", {16, 32, 100, CONF_FIXEDMM, 0}), reader = open_kv("rm_md2", SHKV_AM_READ);
    supernode *sn = writer.sn();
    md_rec *rec_p = &reader.head()->md2;
    sn->md2.hashfn = 3;
    grow("rm_md2", "_md2", 0x1000, &sn->md2.obj_sz, &sn->md2.obj_ver);
    EXPECT_EQ(0, check(reader, CF_MD2 | CF_UD1, RO));
    EXPECT_EQ(elfhash, rec_p->hash_fn);
    EXPECT_EQ(0x1000u, rec_p->mapped_sz);
    const mdn *base_p = rec_p->base;
    rec_p->hash_fn = nullptr; // opened while the table was being built: in step, not bound
    EXPECT_EQ(0, check(reader, CF_MD2 | CF_UD1, RO));
    EXPECT_EQ(elfhash, rec_p->hash_fn);
    EXPECT_EQ(base_p, rec_p->base);

    sn->md2.hashfn = 0xa6b7;
    grow("rm_md2", "_md2", 0x2000, &sn->md2.obj_sz, &sn->md2.obj_ver);
    EXPECT_EQ(0, check(reader, CF_MD2 | CF_UD1, RO)); // the function that is there stays
    EXPECT_EQ(elfhash, rec_p->hash_fn);
    rec_p->hash_fn = nullptr;
    log_catcher log;
    EXPECT_EQ(0, check(reader, CF_MD2 | CF_UD1, RO)); // refused quietly: the operation goes on
    EXPECT_NE(std::string::npos,
              log.all().find("shkv_remap_mdobj,                 new user-hashfn used, the db has"
                                                "                 to be reopened"));
    EXPECT_EQ("check_hdmd_remap,                     can not remap the obj, shkvh:" +
              std::to_string(reader.handle), log.last());
    sn->md2.hashfn = 7;
    EXPECT_EQ(0, shkv_close(reader.handle));
    EXPECT_EQ(0, shkv_destroy(writer.handle));
}

TEST(Remap, failed_remap_leaves_no_mapping_and_is_tried_again)
{
    kv writer = make_kv("rm_fail", {16, 32, 100, CONF_FIXEDMM, 0}), reader = open_kv("rm_fail", SHKV_AM_READ);
    supernode *sn = writer.sn();
    uint32_t size = sn->md1.obj_sz;
    sn->md1.obj_sz = 0;
    sn->md1.obj_ver++;
    EXPECT_EQ(ENOMEM, check(reader, CF_MD1 | CF_UD1, RO));
    EXPECT_EQ(nullptr, reader.head()->md1.base);
    last_event event(sn);
    EXPECT_EQ(TRACE_ONE | 0x3cu, event.code);
    EXPECT_EQ((uint32_t)EINVAL, event.arg);
    // Every operation tells of it by an event of its own, with the value.
    auto told = [&](uint32_t want, int result) {
        last_event own(sn);
        EXPECT_EQ(ENOMEM, result) << want;
        EXPECT_EQ(TRACE_ONE | want, own.code);
        EXPECT_EQ((uint32_t)ENOMEM, own.arg) << want;
    };
    shkv_buf key = buf_of("key"), value = {nullptr, 0};
    told(0x16, shkv_lookup(reader.handle, &key, &value));
    told(0x74, shkv_lookup_lite(reader.handle, &key, &value));
    told(0x90, shkv_iterate(writer.handle, nullptr, nullptr, nullptr, 1));
    told(0x6a, put(writer.handle, "key", "v"));
    told(0x7d, del(writer.handle, "key"));
    sn->md1.obj_sz = size;
    EXPECT_EQ(0, check(reader, CF_MD1 | CF_UD1, RO));
    EXPECT_NE(nullptr, reader.head()->md1.base);
    EXPECT_EQ(0, shkv_close(reader.handle));
    EXPECT_EQ(0, shkv_destroy(writer.handle));
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
        grow("rm_chunk", "_ud1", size, &sn->ud1.obj_sz, &sn->ud1.obj_ver);
        ASSERT_EQ(0, check(reader, CF_MD1 | CF_UD1, RO));
        EXPECT_EQ(size, head->ud1_map->mapped_sz);
    }
    EXPECT_EQ(map0_p, head->ud1_map->map[0]);
    EXPECT_EQ(6u, head->ud1_map->map_cnt); // map 0, the rest of its chunk, three small ones, a big one
    FILE *file_p = fopen(mu_path("rm_chunk", "_ud1").c_str(), "r+");
    for (uint32_t off : {0x3000u, 0x1ffffffu, 0x2000000u, 0x7ffffffu, 0x8000000u, 0xfffffffu}) {
        char mark = (char)(off >> 21 | 1);
        fseek(file_p, off, SEEK_SET);
        fputc(mark, file_p);
        fflush(file_p);
        EXPECT_EQ(mark, *(char *)shkv_ud_offset_to_addr(head, off)) << std::hex << off;
        EXPECT_EQ(mark, *(char *)shkv_ud_offset_to_addr(other.head(), off)) << std::hex << off;
    }
    fclose(file_p);
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
