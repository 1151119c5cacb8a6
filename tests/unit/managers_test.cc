// The two record allocators on a space of their own: lists, counts, the mark, the wait, the reserve.
#include <gtest/gtest.h>

#include <set>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

#include "diag/timer.h"
#include "shkv_hash/mm_fixed.h"
#include "shkv_hash/mm_vector.h"
#include "shkv_hash/sbm.h"
#include "shkv_intf/proc.h"
#include "shkv_intf/sizing.h"

struct managers : testing::Test {
    std::vector<uint64_t> mem;
    sbm *s = nullptr;
    supernode sn = {};
    shkv_head head = {};
    ud_map maps = {};
    uint32_t vec_off = 0;

    // A space of that many nodes, without a reserve.
    void make(uint32_t dn_sz, uint32_t nodes)
    {
        mem.assign(32 + nodes * dn_sz / 8 + 1, 0);
        s = (sbm *)mem.data();
        sn = {};
        sn.conf_flg = dn_sz == VEC_UNIT_SZ ? CONF_VECTORMM : CONF_FIXEDMM;
        head = {};
        head.sn = &sn;
        head.ud1_map = &maps;
        shkv_fixed_mm_init(s, 256 + nodes * dn_sz, dn_sz, 100);
        s->ud_full = (int32_t)s->ud_end;
        shkv_max_db_sz = SHKV_DEF_LIMIT;
    }
    char *at(uint32_t off) { return (char *)ud_addr(&head, s, off, is_shared_map(&head)); }
    uint32_t off_of(void *node) { return node ? (uint32_t)((char *)node - (char *)s) : 0; }
    udn *get() { return (udn *)shkv_fixed_getnd(s, &head, 0, nullptr); }
    void put(void *node) { shkv_fixed_putnd(s, node, &head, 0); }
    udn *vec_get(uint32_t size) { return (udn *)shkv_vector_getnd(s, &head, size, &vec_off); }
    // So many nodes at once.
    std::vector<udn *> take(int cnt)
    {
        std::vector<udn *> nodes(cnt);
        for (udn *&node : nodes)
            node = get();
        return nodes;
    }
    void put(const std::vector<udn *> &nodes, int from, int to)
    {
        for (int i = from; i < to; i++)
            put(nodes[i]);
    }
    void vec_put(udn *node) { shkv_vector_putnd(s, node, &head, off_of(node)); }
    // The wait has only begun, or is over.
    void mark_age(uint32_t ms)
    {
        uint64_t now = (uint32_t)cycles(), per_ms = 1;
        while (timer_diff_cycle_in_msec(per_ms, 0) == 0)
            per_ms *= 2;
        s->mark_tsc = ms ? now - per_ms * ms : now;
    }

    // The nodes from one end of a list to the other.
    std::vector<uint32_t> list(uint32_t off, uint32_t tail)
    {
        std::vector<uint32_t> nodes;
        for (; off >= 256 && off < s->ud_end && nodes.size() < 100000; off = *(uint32_t *)at(off)) {
            nodes.push_back(off);
            if (off == tail)
                return nodes;
        }
        ADD_FAILURE() << "a list does not end at its tail";
        return nodes;
    }
    // exact: nothing was cut short, so the counts are true; else they may only be too low.
    void check_lists(bool exact = true)
    {
        auto free_nodes = list(s->free_head, s->free_tail), held = list(s->hold_head, s->hold_tail);
        std::set<uint32_t> all(free_nodes.begin(), free_nodes.end());
        all.insert(held.begin(), held.end());
        EXPECT_EQ(all.size(), free_nodes.size() + held.size()) << "a node is on both lists";
        EXPECT_EQ(*(uint32_t *)at(s->free_tail), 0u);
        EXPECT_EQ(*(uint32_t *)at(s->hold_tail), 0u);
        EXPECT_LE(s->free_cnt + 1, free_nodes.size());
        if (exact) {
            EXPECT_EQ(s->free_cnt + 1, free_nodes.size());
            EXPECT_EQ(s->hold_cnt + s->mark_cnt, held.size());
        }
        if (s->hold_mark) {
            EXPECT_LE(s->mark_cnt, list(s->hold_head, s->hold_mark).size());
        }
    }
    void expect_counts(uint32_t freed, uint32_t held, uint32_t marked, uint32_t put_cnt)
    {
        EXPECT_TRUE(s->free_cnt == freed && s->hold_cnt == held && s->mark_cnt == marked && s->put_cnt == put_cnt)
            << "free " << s->free_cnt << " held " << s->hold_cnt << " marked " << s->mark_cnt << " puts " << s->put_cnt;
    }
};

TEST_F(managers, the_ninth_free_takes_the_first_mark_and_the_tenth_each_later_one)
{
    make(40, 200);
    std::vector<udn *> live = take(60);
    put(live, 0, 8);
    expect_counts(0, 9, 0, 9);
    put(live[8]);
    expect_counts(0, 0, 10, 0);
    EXPECT_TRUE(s->hold_mark == s->hold_tail && s->mark_tsc && s->mark_tsc == (uint32_t)s->mark_tsc);
    mark_age(0);
    put(live, 9, 9 + 16); // puts 12: too early, the next look at 17
    expect_counts(0, 16, 10, 16);
    EXPECT_EQ(s->chk_cnt, 17);
    mark_age(100);
    put(live[25]); // the release, and a new mark at once
    expect_counts(10, 0, 17, 0);
    EXPECT_EQ(s->chk_cnt, 12);
    check_lists();
    EXPECT_EQ(get(), (udn *)at(256)); // the old sentinel first, then what was freed first
    udn *reused = get();
    EXPECT_EQ(off_of(reused), 256u + 40);
    EXPECT_TRUE(!reused->unit_next && !reused->md1_next && !reused->md2_next && !reused->nd_flg);
    check_lists();
}

// Everything marked: one node stays, so that the hold list keeps an end.
TEST_F(managers, exhaustion_cuts_the_wait_short_but_only_for_marked_nodes)
{
    make(40, 32);
    std::vector<udn *> live;
    while (udn *node = get())
        live.push_back(node);
    EXPECT_EQ(live.size(), 29u); // not the one that ends at ud_end
    EXPECT_EQ(s->dn_tail + s->dn_sz, s->ud_end);
    put(live, 0, 8);
    EXPECT_EQ(get(), nullptr); // no mark yet
    put(live[8]);
    mark_age(0);
    EXPECT_NE(get(), nullptr);
    expect_counts(8, 1, 0, 0);
    EXPECT_EQ(s->hold_head, s->hold_tail);
    EXPECT_EQ(s->mark_tsc, 0u);
    check_lists();
}

TEST_F(managers, every_24th_allocation_looks_at_the_clock_while_30_are_marked)
{
    make(40, 300);
    std::vector<udn *> live = take(200);
    put(live, 0, 9);
    mark_age(0);
    put(live, 9, 50);
    s->chk_cnt = 1000;
    sbm_release_hold(s, nullptr, 0); // marks the 41
    EXPECT_EQ(s->mark_cnt, 41u);
    for (bool over : {false, true}) {
        for (int i = 0; i < 24; i++) {
            mark_age(over ? 100 : 0);
            EXPECT_EQ(s->mark_cnt, 41u);
            get();
        }
    }
    EXPECT_TRUE(s->mark_cnt == 0 && s->get_cnt == 0 && s->mark_tsc == 0);
    check_lists();
}

TEST_F(managers, reclaimed_slots_are_free_from_the_next_call_on)
{
    make(40, 100);
    std::vector<udn *> live = take(10);
    EXPECT_EQ(shkv_fixed_gc(1, &sn, s, 2), 22);
    sn.gc_flg = 0x11, s->sbm_flg = 3;
    EXPECT_EQ(shkv_fixed_gc(1, &sn, s, 2), 0);
    for (int i = 0; i < 4; i++)
        s->gc_slot[i * 5] = {off_of(live[i]), i == 1}; // the other pairs have offset 0: no nodes
    EXPECT_EQ(off_of(get()), 256u + 12 * 40);
    EXPECT_TRUE(sn.gc_flg == 1 && s->sbm_flg == 2 && s->free_cnt == 0 && s->gc_slot[0].dn_off);
    EXPECT_EQ(off_of(get()), 256u); // the sentinel, then the slots but the last, the new sentinel
    EXPECT_EQ(get(), live[0]);
    EXPECT_EQ(get(), live[2]);
    EXPECT_EQ(off_of(get()), 256u + 13 * 40);
}

TEST_F(managers, held_units_are_let_go_early_only_where_the_space_cannot_grow)
{
    const struct { uint32_t auto_rz, max_sz; bool granted; } cases[] = {
        {0, SHKV_DEF_LIMIT, true}, {1, SHKV_DEF_LIMIT, false}, {1, 256 + 42 * 128 + 128, true}};
    for (const auto &each : cases) {
        make(128, 42);
        std::vector<udn *> live;
        while (udn *vec = vec_get(200))
            live.push_back(vec);
        ASSERT_EQ(live.size(), 20u);
        for (int i = 0; i < 9; i++)
            vec_put(live[i]);
        mark_age(0);
        sn.auto_rz = each.auto_rz, shkv_max_db_sz = each.max_sz;
        EXPECT_EQ(vec_get(200) != nullptr, each.granted);
        each.granted ? expect_counts(16, 1, 0, 0) : expect_counts(0, 0, 19, 0);
        EXPECT_EQ(vec_get(100 + 124 * 17), nullptr); // 18 units are not there either way
        check_lists();
    }
}

// The first page has memory behind it and the second has not.
TEST_F(managers, a_fresh_node_without_memory_is_abandoned)
{
    const struct { uint32_t dn_sz, size; int fit; } cases[] = {
        {1000, 0, 1}, {1500, 0, 0} /* begins in the first page */, {128, 100 + 124 * 40, 0}};
    for (const auto &each : cases) {
        int fd = memfd_create("space", 0);
        ASSERT_EQ(ftruncate(fd, 4096), 0);
        s = (sbm *)mmap(nullptr, 8192, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        sn = {}, head = {}, head.sn = &sn, sn.conf_flg = each.size ? CONF_VECTORMM : CONF_FIXEDMM;
        shkv_fixed_mm_init(s, 4096, each.dn_sz, 0);
        s->ud_end = 8192, s->ud_full = 8192;
        out_of_actual_mem = 0;
        int32_t tail = s->dn_tail;
        int fit = 0;
        while (each.size ? vec_get(each.size) : get())
            fit++, tail = s->dn_tail;
        EXPECT_TRUE(fit == each.fit && out_of_actual_mem == 1) << each.dn_sz << " " << fit;
        EXPECT_GT(s->dn_tail, tail);
        munmap(s, 8192);
    }
    out_of_actual_mem = 0;
}

// A writer that dies in the splice of marked nodes has made the first few of these stores.
TEST_F(managers, a_release_that_was_cut_is_finished_by_the_next_one)
{
    for (int made = 0; made <= 7; made++)
        for (int then_get = 0; then_get < 2; then_get++) {
            make(40, 100);
            std::vector<udn *> live = take(20);
            put(live, 0, 12); // ten marked, three behind
            const uint32_t mark = s->hold_mark, cnt = s->mark_cnt;
            uint32_t *const words[] = {(uint32_t *)at(s->free_tail), &s->hold_head, &s->free_tail,
                                       (uint32_t *)at(mark), &s->mark_cnt, &s->free_cnt, &s->hold_mark};
            const uint32_t vals[] = {s->hold_head, *(uint32_t *)at(mark), mark, 0, 0, s->free_cnt + cnt, 0};
            for (int i = 0; i < made; i++)
                *words[i] = vals[i];
            if (then_get)
                get();
            sbm_release_hold(s, nullptr, 0);
            check_lists(made < 5); // from mark_cnt on the count may be lost
            EXPECT_EQ(list(s->free_head, s->free_tail).size() + (then_get && made > 2), 11u);
        }
}

TEST_F(managers, a_corrupted_header_ends_the_process)
{
    testing::GTEST_FLAG(death_test_style) = "fast";
    make(128, 100);
    udn *vec = vec_get(10);
    s->free_cnt = 2;
    *(uint32_t *)at(256) = s->free_tail = (uint32_t)off_of(vec);
    EXPECT_DEATH(vec_get(300), "`i==sbm_p->free_cnt'");
    s->magictail = 0;
    const char *magic = "sbm_p->magichead == \\(~sbm_p->magictail\\)";
    EXPECT_DEATH(get(), magic);
    EXPECT_DEATH(vec_put(vec), magic);
    EXPECT_DEATH(sbm_release_hold(s, nullptr, 0), magic);
}
