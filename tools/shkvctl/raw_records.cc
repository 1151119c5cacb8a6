// The records of a store from its bytes: buckets read of one piece, and a walk that follows a
// store which grows or is reshaped meanwhile.
#include "shkvctl/raw_records.h"

#include <errno.h>
#include <fmt/format.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <unordered_set>

// ---- One record ----

// Nodes by the creator's choices and not by the space's own header, which may be what is damaged.
struct Nodes {
    bool fixed;
    uint32_t size;
    uint64_t end;

    Nodes(const RawStore &store, int ud) : fixed(store.mm_mode() == CONF_FIXEDMM), end(store.object(ud).size)
    {
        uint32_t rec = store.sn().maxksz + store.sn().maxvsz + UDN_HEAD_SZ;
        size = fixed ? (rec + 3) & ~3u : VEC_UNIT_SZ;
    }
    bool is_node(uint64_t off) const
    {
        return off >= sizeof(sbm) && (off - sizeof(sbm)) % size == 0 && off + size <= end;
    }
};

static uint8_t unit_sum(const std::string &unit, uint32_t from, uint32_t last)
{
    return (uint8_t)(unit[from] ^ unit[last]);
}

// The payload of a vector record, from its chain of units, and the checksum over their edges.
static bool gather_units(const RawStore &store, int ud, const Nodes &nodes, uint32_t off, const udn &head,
                         std::string *bytes, uint8_t *sum)
{
    size_t len = (size_t)head.key_sz + head.val_sz, units = 0;
    std::string unit(nodes.size, 0);
    uint32_t last_unit = 0;
    if (head.unit_cnt > len / (nodes.size - sizeof(uint32_t)) + 2)
        return false; // more than its bytes can take: no walk for nothing
    for (uint32_t at = off, skip = VEC_HEAD_SZ; at != 0; skip = sizeof(uint32_t)) {
        if (!nodes.is_node(at) || units == head.unit_cnt || !store.read(ud, at, unit.data(), unit.size()))
            return false;
        uint32_t end = (uint32_t)(len + VEC_HEAD_SZ + 4 * units) & (nodes.size - 1);
        bytes->append(unit, skip, len - bytes->size());
        units++;
        *sum ^= unit_sum(unit, skip, units < head.unit_cnt || end == 0 ? nodes.size - 1 : end - 1);
        if (at == off)
            memcpy(&last_unit, unit.data() + offsetof(vec_udn, last_unit), sizeof last_unit);
        if (units == head.unit_cnt && at != last_unit)
            return false;
        memcpy(&at, unit.data(), sizeof at);
    }
    return bytes->size() == len && units == head.unit_cnt;
}

// "" or what is wrong with it.
static std::string read_record(const RawStore &store, int ud, const Nodes &nodes, uint32_t off, const udn &head,
                               BucketRead::Rec *rec)
{
    std::string bytes;
    uint8_t sum = 0;
    size_t len = (size_t)head.key_sz + head.val_sz;
    if (head.key_sz == 0 || (nodes.fixed && len > nodes.size - UDN_HEAD_SZ))
        return fmt::format("record {} claims a key of {} and a value of {} bytes", off, head.key_sz,
                           head.val_sz);
    if (nodes.fixed) {
        bytes.resize(len);
        if (!store.read(ud, off + UDN_HEAD_SZ, bytes.data(), len))
            return fmt::format("record {} cannot be read", off);
        shkv_data_checksum(bytes.data(), (uint32_t)len, &sum);
    } else if (!gather_units(store, ud, nodes, off, head, &bytes, &sum)) {
        return fmt::format("the units of record {} do not hold together", off);
    }
    if (sum != head.cksum)
        return fmt::format("record {} has a bad checksum", off);
    *rec = {off, bytes.substr(0, head.key_sz), bytes.substr(head.key_sz)};
    return "";
}

// ---- One bucket ----

struct Seen {
    int kind; // where the link lies,
    uint64_t at;
    uint32_t to; // and where it led
};

static bool links_hold(const RawStore &store, const std::vector<Seen> &links)
{
    return std::all_of(links.begin(), links.end(), [&](const Seen &link) {
        uint32_t now = 0;
        return store.read(link.kind, link.at, &now) && now == link.to;
    });
}

// Whether the chain has led to off before: damage that would have no end.
static bool is_circle(const std::vector<Seen> &links, std::unordered_set<uint32_t> *known, uint32_t off)
{
    constexpr size_t few = 64;
    if (links.size() <= few)
        return std::any_of(links.begin(), links.end(), [&](const Seen &link) { return link.to == off; });
    if (known->empty())
        for (const Seen &link : links)
            known->insert(link.to);
    return !known->insert(off).second;
}

static BucketRead read_once(const RawStore &store, const RawTable &table, uint32_t bucket,
                            std::vector<Seen> *links)
{
    BucketRead result;
    Nodes nodes(store, table.ud);
    std::unordered_set<uint32_t> known;
    auto cut = [&](std::string why) {
        result.cut = true;
        result.fault = result.fault.empty() ? std::move(why) : result.fault;
    };
    int kind = table.md;
    uint64_t at = (uint64_t)bucket * sizeof(mdn);
    for (uint32_t off = 0;;
         at = off + (table.link == LINK_MD1 ? offsetof(udn, md1_next) : offsetof(udn, md2_next))) {
        if (!store.read(kind, at, &off)) {
            cut(fmt::format("bucket {} lies outside of {}", bucket, object_name(kind)));
            return result;
        }
        bool circle = off != 0 && is_circle(*links, &known, off);
        links->push_back({kind, at, off});
        kind = table.ud;
        udn head;
        if (off == 0)
            return result;
        if (circle) {
            cut(fmt::format("the chain of bucket {} runs in a circle through record {}", bucket, off));
            return result;
        }
        if (!nodes.is_node(off) || !store.read(table.ud, off, &head)) {
            cut(fmt::format("the chain of bucket {} leads to {}, which is no record of {}", bucket, off,
                            object_name(table.ud)));
            return result;
        }
        BucketRead::Rec rec;
        std::string fault = read_record(store, table.ud, nodes, off, head, &rec);
        if (fault.empty() && table.hash &&
            table.hash(rec.key.data(), (uint32_t)rec.key.size()) % table.hashsz != bucket)
            fault = fmt::format("record {} stands in bucket {} and belongs elsewhere", off, bucket);
        if (!fault.empty()) {
            result.damaged++;
            result.fault = result.fault.empty() ? fault : result.fault;
        } else if (!(head.nd_flg & UDN_DELETED)) {
            result.records.push_back(std::move(rec));
        }
    }
}

BucketRead read_bucket(const RawStore &store, const RawTable &table, uint32_t bucket)
{
    BucketRead result;
    for (int round = 0; round < 50; round++) {
        std::vector<Seen> links;
        result = read_once(store, table, bucket, &links);
        if (links_hold(store, links))
            break;
        if (round >= 10)
            usleep(50);
    }
    return result;
}

// ---- Tables ----

static RawTable table_of(const RawStore &store, int md, int ud)
{
    const md_desc &desc = store.md(md);
    uint64_t fit = store.object(md).size / sizeof(mdn);
    return {md,
            ud,
            md == OBJ_MD1 ? LINK_MD1 : LINK_MD2,
            (uint32_t)std::min<uint64_t>(desc.hashsz, fit),
            desc.hashsz,
            desc.hashfn < 11 ? shkv_get_internal_hashfn(desc.hashfn) : nullptr};
}

std::vector<RawTable> tables_in_force(const RawStore &store)
{
    int md = store.active_md(), ud = store.active_ud();
    if (!md || !ud)
        return {};
    std::vector<RawTable> tables = {table_of(store, md, ud)};
    if (store.is(MDO1N2 | MDN1O2))
        tables.push_back(table_of(store, store.other_md(),
                                  store.is(UDO1N2 | UDN1O2) ? store.other_ud() : store.active_ud()));
    return tables;
}

static Obstacle lost(const RawStore &store, int kind, bool readable)
{
    return {fmt::format("has lost its object {} ({})", object_name(kind), RawStore::path(store.dbname(), kind)),
            store.object(kind).error, readable};
}

static std::optional<Obstacle> too_short(const RawStore &store, int kind, uint64_t want)
{
    uint64_t len = store.length_now(kind); // and not when it was mapped: what grows, grows first
    if (len >= want)
        return std::nullopt;
    return Obstacle{fmt::format("is damaged: its object {} has {} bytes and should have {} ({})",
                                object_name(kind), len, want, RawStore::path(store.dbname(), kind)),
                    EINVAL, true};
}

std::optional<Obstacle> obstacle(const RawStore &store)
{
    const supernode &sn = store.sn();
    bool whole = store.object(OBJ_SN).file >= sizeof(supernode), magic = store.complete();
    Obstacle half_made = {"is not complete: its creator died in the middle, or its first page is damaged",
                          EINVAL};
    if (!whole || (!magic && sn.magichead == 0 && sn.magictail == 0))
        return half_made;
    int md = store.active_md(), ud = store.active_ud();
    if (store.mm_mode() != CONF_FIXEDMM && store.mm_mode() != CONF_VECTORMM)
        return Obstacle{fmt::format("is damaged: conf_flg is {:#x}", sn.conf_flg), EINVAL};
    if (!md || !ud)
        return Obstacle{fmt::format("is damaged: comm_flg is {:#x}, and no table is in force", sn.comm_flg),
                        EINVAL};
    for (int kind : {md, ud})
        if (store.object(kind).error)
            return lost(store, kind, false);
    half_made.readable = true;
    if (!magic)
        return half_made;
    for (int kind : {OBJ_MD1, OBJ_MD2, OBJ_UD1, OBJ_UD2, OBJ_MD_TXN})
        if (store.object(kind).error)
            return lost(store, kind, true);
    for (const RawTable &table : tables_in_force(store)) {
        if (auto found = too_short(store, table.md, store.md(table.md).obj_sz))
            return found;
        if (auto found = too_short(store, table.ud, store.ud(table.ud).obj_sz))
            return found;
    }
    return std::nullopt;
}

// ---- Looking up, and the interim list of a reshape ----

using Interim = std::map<std::string, std::optional<std::string>>; // newest value; none: deleted

static Interim read_interim(const RawStore &store, int ud)
{
    Interim newest;
    Nodes nodes(store, ud);
    sbm space;
    if (!nodes.fixed || !store.is(CF_RESHAPE) || !store.read(ud, 0, &space))
        return newest;
    uint64_t most = nodes.end / nodes.size;
    for (uint32_t off = space.intrm_head; nodes.is_node(off) && most-- > 0;) {
        intrm_rec rec;
        if (!store.read(ud, off, &rec) || (size_t)rec.key_sz + rec.val_sz > nodes.size - UDN_HEAD_SZ)
            break;
        std::string bytes(rec.key_sz + (rec.intrm_op == INTRM_ADD ? rec.val_sz : 0u), 0);
        if (!store.read(ud, off + UDN_HEAD_SZ, bytes.data(), bytes.size()))
            break;
        if (rec.intrm_op == INTRM_ADD)
            newest[bytes.substr(0, rec.key_sz)] = bytes.substr(rec.key_sz);
        else if (rec.intrm_op == INTRM_DEL)
            newest[bytes] = std::nullopt;
        if (off == space.intrm_tail)
            break;
        off = rec.intrm_next;
    }
    return newest;
}

static RawLookup lookup_once(const RawStore &store, const std::string &key)
{
    RawLookup result;
    auto tables = tables_in_force(store);
    if (tables.size() > 1) {
        Interim newest = read_interim(store, tables[1].ud);
        if (auto it = newest.find(key); it != newest.end())
            return {it->second ? Found::YES : Found::NO, it->second.value_or(""), ""};
        std::swap(tables[0], tables[1]);
    }
    for (const RawTable &table : tables) {
        if (!table.hash || !table.hashsz)
            continue;
        BucketRead read =
            read_bucket(store, table, table.hash(key.data(), (uint32_t)key.size()) % table.hashsz);
        for (auto &rec : read.records)
            if (rec.key == key)
                return {Found::YES, rec.value, ""};
        if (!read.fault.empty())
            result = {Found::DAMAGED, "", read.fault};
    }
    return result;
}

RawLookup raw_lookup(RawStore &store, const std::string &key)
{
    RawLookup result = lookup_once(store, key);
    for (int round = 0; round < 3 && result.found == Found::DAMAGED; round++) {
        usleep(10000);
        store.refresh();
        result = lookup_once(store, key);
    }
    return result;
}

// ---- The walk ----

namespace
{
// What tells that the tables in force are others now, or are laid out anew.
struct Layout {
    uint32_t comm, md_ver, ud_ver;
    bool operator==(const Layout &) const = default;
};

Layout layout_of(const RawStore &store, const supernode &sn)
{
    constexpr uint32_t place =
        CF_MD1 | CF_MD2 | CF_UD1 | CF_UD2 | MDO1N2 | MDN1O2 | UDO1N2 | UDN1O2 | CF_RESHAPE;
    return {sn.comm_flg & place, store.active_md() == OBJ_MD1 ? sn.md1.obj_ver : sn.md2.obj_ver,
            store.active_ud() == OBJ_UD1 ? sn.ud1.obj_ver : sn.ud2.obj_ver};
}

Layout layout_now(const RawStore &store)
{
    supernode sn = store.sn();
    store.read(OBJ_SN, 0, &sn);
    return layout_of(store, sn);
}

// Every operation of a writer moves the space's header or the store's state: where both are as
// they were, nothing happened in between.
struct Moment {
    supernode sn = {};
    sbm space = {};
    bool read = false;

    explicit Moment(const RawStore &store)
    {
        read = store.active_ud() && store.read(OBJ_SN, 0, &sn) && store.read(store.active_ud(), 0, &space);
    }
    bool same(const Moment &later) const
    {
        constexpr uint32_t in_between = CF_TXN_COMMIT | CF_RESHAPE | MDO1N2 | MDN1O2;
        return read && later.read && !(sn.comm_flg & in_between) && sn.iodb_mark >> 8 != IODB_LIVE &&
               sn.comm_flg == later.sn.comm_flg &&
               memcmp(&sn.md1, &later.sn.md1, offsetof(supernode, rsv4) - offsetof(supernode, md1)) == 0 &&
               memcmp(&space, &later.space, sizeof space) == 0;
    }
};

struct Walker {
    RawStore &store;
    const WalkAll &walk;
    WalkSum sum = {};
    struct Part { // of an earlier table: its buckets below upto have been visited
        shkv_hash_fn hash;
        uint32_t hashsz, upto;
    };
    std::vector<Part> visited = {};

    bool give(const std::string &key, const std::string &value);
    void blame(const BucketRead &read);
    bool plain(const RawTable &table);
    bool reshaping(const std::vector<RawTable> &tables);
};

bool Walker::give(const std::string &key, const std::string &value)
{
    for (const Part &part : visited)
        if (part.hash(key.data(), (uint32_t)key.size()) % part.hashsz < part.upto)
            return true;
    sum.records++;
    sum.stopped = !walk.visit(key, value);
    return !sum.stopped;
}

void Walker::blame(const BucketRead &read)
{
    sum.damaged += read.damaged;
    sum.cut_chains += read.cut;
    if (sum.fault.empty())
        sum.fault = read.fault;
}

// The table in force. False: it is in force no longer, and what was visited of it is noted.
bool Walker::plain(const RawTable &table)
{
    Layout before = layout_of(store, store.sn());
    for (uint32_t bucket = 0; bucket < table.buckets && !sum.stopped; bucket++) {
        BucketRead read = read_bucket(store, table, bucket);
        if (layout_now(store) != before) {
            if (table.hash)
                visited.push_back({table.hash, table.hashsz, bucket});
            return false;
        }
        blame(read);
        for (auto &rec : read.records)
            if (!give(rec.key, rec.value))
                break;
        walk.position(bucket, table.buckets);
    }
    return true;
}

// Old and new tables and the interim list, gathered before anything is given out: records move
// from the old table to the new one, so the old one is read first; the list is newer than both,
// and what it held before and no longer has is in the tables.
bool Walker::reshaping(const std::vector<RawTable> &tables)
{
    Layout before = layout_of(store, store.sn());
    WalkSum found = sum;
    std::map<std::string, std::string> all;
    Interim first = read_interim(store, tables[1].ud);
    for (const RawTable &table : tables)
        for (uint32_t bucket = 0; bucket < table.buckets; bucket++) {
            BucketRead read = read_bucket(store, table, bucket);
            blame(read);
            for (auto &rec : read.records)
                all[rec.key] = rec.value;
        }
    Interim last = read_interim(store, tables[1].ud);
    if (layout_now(store) != before) {
        sum = found;
        return false;
    }
    last.merge(first); // keeps what last has
    for (auto &[key, value] : last)
        value ? (void)(all[key] = *value) : (void)all.erase(key);
    for (auto &[key, value] : all)
        if (!give(key, value))
            break;
    return true;
}
} // namespace

WalkSum walk_records(RawStore &store, const WalkAll &walk)
{
    Walker walker = {store, walk};
    constexpr int most_layouts = 1000;
    for (int round = 0; round < most_layouts; round++) {
        store.refresh();
        Moment before(store);
        bool first = round == 0;
        std::vector<RawTable> tables = tables_in_force(store);
        if (tables.empty())
            return walker.sum;
        if (tables.size() > 1 ? !walker.reshaping(tables) : !walker.plain(tables[0])) {
            usleep(1000);
            continue;
        }
        walker.sum.unchanged = first && before.same(Moment(store));
        return walker.sum;
    }
    walker.sum.fault = "its tables changed all the time";
    walker.sum.cut_chains++;
    return walker.sum;
}
