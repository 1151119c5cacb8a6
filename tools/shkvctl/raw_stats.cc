// What a store's bytes say about it: tables and their chains, record space, what is under way.
#include "shkvctl/raw_stats.h"

#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

static size_t length_class(uint64_t length)
{
    static constexpr uint64_t last_of[] = {0, 1, 2, 3, 4, 8, 16, 32};
    size_t cls = 0;
    while (cls < std::size(last_of) && length > last_of[cls])
        cls++;
    return cls;
}

static ChainStats walk_chains(const RawStore &store, int md, Link link, int ud)
{
    ChainStats stats;
    uint32_t buckets = store.md(md).hashsz, bucket = 0;
    uint64_t length = 0, filled = 0;
    auto close_chain = [&] {
        if (length == 0)
            return;
        stats.buckets[length_class(length)]++;
        stats.longest = std::max(stats.longest, length);
        filled++;
        length = 0;
    };
    WalkResult walk = walk_table(store, md, buckets, link, ud, [&](const RawRecord &rec) {
        if (rec.bucket != bucket)
            close_chain();
        bucket = rec.bucket;
        length++;
        stats.tombstones += rec.head.nd_flg & UDN_DELETED;
        return true;
    });
    close_chain();
    stats.buckets[0] = buckets - std::min<uint64_t>(filled, buckets);
    stats.records = walk.records;
    stats.broken = walk.broken;
    return stats;
}

ChainStats chain_stats(RawStore &store, int md, Link link, int ud)
{
    if (store.md(md).obj_sz == 0)
        return {};
    ChainStats stats = walk_chains(store, md, link, ud);
    for (int round = 0; round < 3 && stats.broken; round++) {
        usleep(20000);
        store.refresh();
        stats = walk_chains(store, md, link, ud);
    }
    return stats;
}

SpaceStats space_stats(const RawStore &store, int ud)
{
    SpaceStats stats;
    sbm space;
    if (!store.read(ud, 0, &space) || space.dn_sz == 0 || space.ud_end < space.dn_base)
        return stats;
    stats.unit_sz = space.dn_sz;
    stats.units = (space.ud_end - space.dn_base) / space.dn_sz;
    stats.fresh = (uint64_t)std::max<int64_t>((int64_t)space.ud_end - space.dn_tail, 0) / space.dn_sz;
    stats.reserve = (uint64_t)std::max<int64_t>((int64_t)space.ud_end - space.ud_full, 0) / space.dn_sz;
    stats.free = (uint64_t)space.free_cnt + 1;
    stats.held = (uint64_t)space.hold_cnt + space.mark_cnt;
    uint64_t idle = stats.fresh + stats.free + stats.held;
    stats.used = idle < stats.units ? stats.units - idle : 0;
    stats.sane = (space.magichead ^ space.magictail) == UINT32_MAX && idle <= stats.units &&
                 space.ud_end <= store.object(ud).size;
    return stats;
}

std::optional<TxnStats> txn_stats(RawStore &store)
{
    if (!store.is(CF_TXN))
        return std::nullopt;
    // Staged chains borrow the link of the table that is not in force.
    Link link = store.is(CF_MD1) ? LINK_MD2 : LINK_MD1;
    ChainStats staged = chain_stats(store, OBJ_MD_TXN, link, store.active_ud());
    return TxnStats{staged.records - staged.tombstones, staged.tombstones, store.is(CF_TXN_COMMIT)};
}

std::optional<RebuildStats> rebuild_stats(RawStore &store, const ChainStats &active)
{
    if (!store.is(CF_REFILL1 | CF_REFILL2) || store.is(MDO1N2 | MDN1O2))
        return std::nullopt;
    RebuildStats stats;
    stats.target = store.other_md();
    stats.waits_for_txn = store.is(CF_TXN);
    stats.records = active.records;
    // A target that has been sized has one bucket less than fits in it and is no smaller than the
    // table in force; what an earlier rebuild left behind is smaller as a rule.
    const md_desc &target = store.md(stats.target), &source = store.md(store.active_md());
    bool sized = target.obj_sz != 0 && target.obj_sz >= source.obj_sz && target.hashsz == target.obj_sz / 8 - 1;
    if (!stats.waits_for_txn && sized)
        stats.moved = std::min(
            walk_chains(store, stats.target, link_of(stats.target), store.active_ud()).records, active.records);
    return stats;
}

// Changes on the list between the reshaper's end and the writer's, bounded by what fits.
static uint64_t interim_length(const RawStore &store, int ud)
{
    sbm space;
    uint64_t count = 0;
    if (!store.read(ud, 0, &space) || space.dn_sz == 0)
        return 0;
    uint64_t most = store.object(ud).size / space.dn_sz;
    for (uint32_t off = space.intrm_head; off != 0 && most-- > 0;) {
        intrm_rec rec;
        if (!store.read(ud, off, &rec))
            break;
        count += rec.intrm_op == INTRM_ADD || rec.intrm_op == INTRM_DEL;
        if (off == space.intrm_tail)
            break;
        off = rec.intrm_next;
    }
    return count;
}

std::optional<ReshapeStats> reshape_stats(RawStore &store)
{
    if (!store.is(CF_RESH_TOKEN1 | CF_RESH_TOKEN2 | CF_RESHAPE | MDO1N2 | MDN1O2))
        return std::nullopt;
    ReshapeStats stats;
    stats.token = store.is(CF_RESH_TOKEN1) ? UUID_RESHAPE1 : store.is(CF_RESH_TOKEN2) ? UUID_RESHAPE2 : 0;
    stats.published = store.is(CF_RESHAPE);
    stats.draining = store.is(CF_RESHAPE_DRAIN);
    if (!stats.published)
        return stats;
    int old_md = store.active_md(), old_ud = store.active_ud();
    struct stat st; // its length was set when the reshape began, and stores through mappings leave no time
    if (fstat(store.object(store.other_md()).fd, &st) == 0)
        stats.age = std::max(0.0, difftime(time(nullptr), st.st_ctim.tv_sec));
    int new_ud = store.is(UDO1N2 | UDN1O2) ? store.other_ud() : old_ud;
    stats.left = walk_chains(store, old_md, link_of(old_md), old_ud).records;
    stats.moved = walk_chains(store, store.other_md(), link_of(store.other_md()), new_ud).records;
    stats.interim = interim_length(store, new_ud);
    return stats;
}

TraceStats trace_stats(const RawStore &store)
{
    TraceStats stats;
    trace_ring ring;
    uint64_t page = (uint64_t)sysconf(_SC_PAGESIZE);
    if (!store.read(OBJ_SN, page, &ring) || ring.magic != TRACE_MAGIC || ring.rec_sz != sizeof(trace_rec))
        return stats;
    stats.valid = true;
    stats.room = ring.count;
    for (uint32_t slot = 0; slot < ring.count; slot++) {
        trace_rec rec;
        if (!store.read(OBJ_SN, page + sizeof ring + slot * sizeof rec, &rec))
            break;
        uint32_t cls = rec.code & 0xff000000u;
        stats.events += cls == TRACE_ONE || cls == TRACE_PAIR1 || cls == TRACE_STR1;
        stats.wrapped |= slot + 1 == ring.count && rec.code != 0;
        bool newest = slot + 1 == ring.index || (ring.index == 0 && slot + 1 == ring.count);
        if (newest && cls != TRACE_STR2) {
            stats.last_event = rec.code & 0xffffffu;
            stats.last_arg = rec.arg;
        }
    }
    return stats;
}
