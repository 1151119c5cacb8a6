// Bytes of an open store that somebody has overwritten: the library gives a result, whatever they
// say, and touches nothing outside of what it has mapped. Each row was found by fuzz/bytes_fuzz.cc.
#include <errno.h>

#include "support/kv.h"

struct damage {
    const char *what;
    uint32_t conf_flg; // of the store
    void (*make)(supernode *sn, trace_ring *ring_p);
};

class damaged : public testing::TestWithParam<damage>
{
};

TEST_P(damaged, every_call_ends)
{
    kv db = make_kv(GetParam().what, {16, 40, 30, GetParam().conf_flg, 0});
    std::string longer(39, 'v');
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(0, db.add("key" + std::to_string(i), longer));
    kv reader = open_kv(GetParam().what, SHKV_AM_READ | SHKV_AM_ITER);
    supernode whole = *db.sn();
    GetParam().make(db.sn(), (trace_ring *)((char *)db.sn() + SHKV_PAGE_SIZE));
    for (int i = 0; i < 20; ++i) {
        std::string key = "key" + std::to_string(i);
        char room[4];
        shkv_buf key_buf = buf_of(key), val = {room, sizeof room};
        EXPECT_EQ(EINVAL, shkv_lookup(reader.handle, &key_buf, &val)) << key; // each writes an event
        EXPECT_EQ(39u, val.len);
    }
    memcpy(&db.sn()->conf_flg, &whole.conf_flg, sizeof whole.conf_flg);
    EXPECT_EQ(20u, reader.all().size());
}

INSTANTIATE_TEST_SUITE_P(
    found, damaged,
    testing::Values(
        // An offset was looked up in chunks that a store mapped in one piece does not have.
        damage{"shared_chunks", CONF_VECTORMM, [](supernode *sn, trace_ring *) { sn->conf_flg |= CONF_SHMAP; }},
        damage{"no_shared_chunks", CONF_VECTORMM | CONF_SHMAP,
               [](supernode *sn, trace_ring *) { sn->conf_flg &= ~(uint32_t)CONF_SHMAP; }},
        // An event was written behind the ring.
        damage{"a_ring_of_many_slots", CONF_FIXEDMM,
               [](supernode *, trace_ring *ring_p) {
                   ring_p->count = 0xffff;
                   ring_p->index = 0xfff0;
               }}),
    [](const testing::TestParamInfo<damage> &info) { return info.param.what; });
