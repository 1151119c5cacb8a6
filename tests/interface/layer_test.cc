// The C++ layer where the C calls below it say no.
#include <shkv.hpp>
#include <sys/mman.h>

#include "support/store.h"

using shkv::status;

TEST(layer, a_store_that_does_not_come_is_an_error)
{
    auto made = shkv::store::create("s", 0);
    ASSERT_TRUE(made);
    auto again = shkv::store::create("s", 0);
    EXPECT_EQ(status::exists, again.error());
    auto absent = shkv::store::open("absent", 0, SHKV_AM_READ);
    EXPECT_EQ(status::not_found, absent.error());
    for (const auto *failed : {&again, &absent})
        EXPECT_TRUE(!*failed && (*failed)->handle() == 0);
}

TEST(layer, destroy_gives_the_handle_back_whoever_destroyed_the_store)
{
    for (bool by_others : {false, true}) {
        auto db = shkv::store::create(by_others ? "gone" : "mine", 0);
        ASSERT_TRUE(db);
        const int handle = db->handle();
        if (by_others)
            shkv_db_heads[handle - 1].sn->comm_flg |= CF_DESTROYED;
        EXPECT_EQ(status::ok, db->destroy());
        EXPECT_EQ(0, db->handle());
        EXPECT_EQ(nullptr, check_shkv_hdl(handle));
    }
}

TEST(layer, lengths_beyond_32_bits_are_refused)
{
    const size_t more = (size_t{1} << 32) + 5;
    char *bytes = (char *)mmap(nullptr, more, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(MAP_FAILED, bytes);
    char room[8];
    for (uint32_t kind : {CONF_FIXEDMM, CONF_VECTORMM}) {
        auto db = shkv::store::create(kind == CONF_FIXEDMM ? "f" : "v", 0, {16, 32, 100, kind, 0});
        ASSERT_TRUE(db);
        ASSERT_EQ(status::ok, db->add({bytes, 5}, "v"));
        EXPECT_EQ(status::invalid, db->add("k", {bytes, more}));
        EXPECT_EQ(status::invalid, db->add({bytes, more}, "v"));
        EXPECT_EQ("v", *db->get({bytes, 5}, std::span<char>(room, more)));
    }
    munmap(bytes, more);
}
