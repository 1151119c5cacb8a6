#include "check/store_check.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <set>
#include <unistd.h>
#include <unordered_set>
#include <utility>

#include "shkv.h"

namespace
{

constexpr size_t LIVE_FAULTS = 20000; // of a copy taken beside a writer, most are none

// One record space under check.
struct space {
    const object_image *obj_p = nullptr;
    const char *name = "";
    const sbm *sbm_p = nullptr;
    std::vector<uint8_t> state; // UNIT_* by unit number
    bool usable = false;

    // Unit number of an offset that is a node below dn_tail; -1 of any other.
    int64_t unit_of(uint32_t off) const
    {
        if (off < sbm_p->dn_base || (int64_t)off >= sbm_p->dn_tail || (off - sbm_p->dn_base) % sbm_p->dn_sz)
            return -1;
        return (off - sbm_p->dn_base) / sbm_p->dn_sz;
    }
    uint32_t word(uint32_t off) const
    {
        const uint32_t *word_p = obj_p->at<uint32_t>(off);
        return word_p ? *word_p : 0;
    }
};

struct checker {
    const store_image &image;
    bool strict;
    size_t max_faults;
    const supernode *sn;
    check_report report;
    space spaces[2]; // UD1, UD2
    bool fixed = false;

    template <typename... Args> void fault(fmt::format_string<Args...> text, Args &&...args)
    {
        if (report.faults.size() < max_faults)
            report.faults.push_back(fmt::format(text, std::forward<Args>(args)...));
    }
    template <typename... Args> void note(fmt::format_string<Args...> text, Args &&...args)
    {
        if (report.notes.size() < max_faults)
            report.notes.push_back(fmt::format(text, std::forward<Args>(args)...));
    }
    // A fault in a store at rest, a note in one that a crash or a writer may have caught in between.
    template <typename... Args> void loose(fmt::format_string<Args...> text, Args &&...args)
    {
        strict ? fault(text, std::forward<Args>(args)...) : note(text, std::forward<Args>(args)...);
    }

    bool check_supernode();
    void check_space(int which);
    void check_list(space &ud, const char *what, uint32_t head, uint32_t tail, uint32_t end, uint64_t count,
                    uint8_t state);
    void check_lists(space &ud);
    bool check_record(space &ud, const char *table, uint32_t bucket, uint32_t off, std::string *key_p);
    bool gather(const space &ud, uint32_t off, std::string *bytes_p, std::vector<uint32_t> *units_p);
    void check_table(int obj_t, space &ud, bool md1_link, uint8_t state);
    void check_pending_table(int obj_t, space &ud, bool md1_link);
    void check_interim(space &ud);
    void count_units(space &ud);
    void run();

    const md_desc &desc_of(int obj_t) const
    {
        return obj_t == OBJ_MD1 ? sn->md1 : obj_t == OBJ_MD2 ? sn->md2 : sn->md_txn;
    }
    static const char *table_name(int obj_t)
    {
        return obj_t == OBJ_MD1 ? "MD1" : obj_t == OBJ_MD2 ? "MD2" : "MD_TXN";
    }
};

bool checker::check_supernode()
{
    const object_image &obj = image.objs[OBJ_SN];
    uint64_t want_sz = (uint64_t)sysconf(_SC_PAGESIZE) + SHKV_SN_SIZE;
    if (!sn) {
        fault("supernode: {} bytes long, {} wanted", obj.file_sz, want_sz);
        return false;
    }
    if (obj.file_sz != want_sz)
        fault("supernode: {} bytes long, {} wanted", obj.file_sz, want_sz);
    if (!sn->magichead || (sn->magichead ^ sn->magictail) != ~0u) {
        fault("supernode: incomplete (magic words {:#x}, {:#x}): its creator died, or is at work",
              sn->magichead, sn->magictail);
        return false;
    }
    size_t len = strnlen(sn->dbname, sizeof sn->dbname);
    if (std::string(sn->dbname, len) != image.dbname)
        fault("supernode: carries another name than its object");
    uint32_t flg = sn->comm_flg, mds = flg & (CF_MD1 | CF_MD2), uds = flg & (CF_UD1 | CF_UD2);
    bool moving = flg & (MDO1N2 | MDN1O2 | UDO1N2 | UDN1O2);
    if (flg & ~0x1ffffu)
        fault("comm_flg {:#x}: unknown bits", flg);
    if (!moving && (mds == 0 || mds == (CF_MD1 | CF_MD2)))
        fault("comm_flg {:#x}: not exactly one table in force", flg);
    if (!moving && (uds == 0 || uds == (CF_UD1 | CF_UD2)))
        fault("comm_flg {:#x}: not exactly one record space in force", flg);
    if (moving && !(flg & CF_RESHAPE))
        fault("comm_flg {:#x}: old and new tables without a reshape", flg);
    if ((flg & CF_TXN_COMMIT) && !(flg & CF_TXN))
        fault("comm_flg {:#x}: a commit without a transaction", flg);
    uint32_t mode = sn->conf_flg & CONF_MM_MASK;
    if (mode != CONF_FIXEDMM && mode != CONF_VECTORMM) {
        fault("conf_flg {:#x}: no such record form", sn->conf_flg);
        return false;
    }
    fixed = mode == CONF_FIXEDMM;
    if (flg & CF_DESTROYED)
        note("marked as destroyed");
    return true;
}

// To the node end, or where no link leads on.
void checker::check_list(space &ud, const char *what, uint32_t head, uint32_t tail, uint32_t end,
                         uint64_t count, uint8_t state)
{
    uint64_t seen = 0;
    uint32_t off = head, last = 0;
    while (off) {
        int64_t unit = ud.unit_of(off);
        if (unit < 0)
            return fault("{}: the {} list leads to {}, which is no node", ud.name, what, off);
        if (ud.state[unit] != UNIT_FRESH)
            return fault("{}: node {} stands on the {} list twice or on two lists", ud.name, off, what);
        ud.state[unit] = state;
        last = off;
        ++seen;
        off = off == end ? 0 : ud.word(off);
    }
    if (seen == 0)
        return fault("{}: the {} list has not even its sentinel", ud.name, what);
    if (last != tail)
        loose("{}: the {} list ends at {}, its tail says {}", ud.name, what, last, tail);
    if (seen != count)
        loose("{}: the {} list has {} nodes, its count says {}", ud.name, what, seen, count);
}

void checker::check_space(int which)
{
    space &ud = spaces[which];
    ud.obj_p = &image.objs[which ? OBJ_UD2 : OBJ_UD1];
    ud.name = which ? "UD2" : "UD1";
    const ud_desc &desc = which ? sn->ud2 : sn->ud1;
    if (ud.obj_p->file_sz < desc.obj_sz)
        return fault("{}: {} bytes long, its descriptor says {}", ud.name, ud.obj_p->file_sz, desc.obj_sz);
    const sbm *sbm_p = ud.sbm_p = ud.obj_p->at<sbm>(0);
    if (!sbm_p)
        return fault("{}: in force and empty", ud.name);
    if (sbm_p->magichead != SHKV_MAGICHEAD || sbm_p->magictail != SHKV_MAGICTAIL)
        return fault("{}: bad magic words {:#x}, {:#x}", ud.name, sbm_p->magichead, sbm_p->magictail);
    uint32_t want_sz = fixed ? (sn->maxksz + sn->maxvsz + UDN_HEAD_SZ + 3) & ~3u : VEC_UNIT_SZ;
    if (sbm_p->dn_base != sizeof(sbm) || sbm_p->dn_sz != want_sz)
        return fault("{}: dn_base {}, dn_sz {}, {} and {} wanted", ud.name, sbm_p->dn_base, sbm_p->dn_sz,
                     sizeof(sbm), want_sz);
    uint32_t span = sbm_p->ud_end - sbm_p->dn_base;
    if (sbm_p->ud_end < sbm_p->dn_base || span % sbm_p->dn_sz || sbm_p->ud_end > ud.obj_p->file_sz)
        return fault("{}: ud_end {} does not fit", ud.name, sbm_p->ud_end);
    if (sbm_p->ud_end > desc.obj_sz)
        note("{}: the header promises {} bytes, the descriptor {}: a growth was cut short", ud.name,
             sbm_p->ud_end, desc.obj_sz);
    int64_t tail = (int64_t)sbm_p->dn_tail - sbm_p->dn_base;
    if (tail < 2 * (int64_t)sbm_p->dn_sz || tail % sbm_p->dn_sz || (uint32_t)sbm_p->dn_tail > sbm_p->ud_end)
        return fault("{}: dn_tail {} does not fit", ud.name, sbm_p->dn_tail);
    if (sbm_p->ud_full > (int64_t)sbm_p->ud_end)
        fault("{}: the reserve starts at {}, behind the end {}", ud.name, sbm_p->ud_full, sbm_p->ud_end);
    ud.state.assign(span / sbm_p->dn_sz, UNIT_FRESH);
    ud.usable = true;
    check_lists(ud);
}

// The marked part of the hold list goes over to the free list in a few stores, of which a kill may leave
// the first ones: the free list's last node leads to the hold list's first; that has moved on; the mark is
// the free list's last node. The next release goes on there, and nobody walks past the tail until then.
void checker::check_lists(space &ud)
{
    const sbm *sbm_p = ud.sbm_p;
    uint32_t mark = sbm_p->hold_mark, tail = sbm_p->free_tail;
    uint32_t past = mark && ud.unit_of(tail) >= 0 ? ud.word(tail) : 0;
    bool moved = mark && (tail == mark || (past && past != sbm_p->hold_head));
    if (past || moved)
        loose("{}: the way from the hold list to the free list was cut short", ud.name);
    check_list(ud, "free", sbm_p->free_head, tail,
               moved  ? mark
               : past ? tail
                      : 0,
               (uint64_t)sbm_p->free_cnt + 1, UNIT_FREE);
    check_list(ud, "hold", sbm_p->hold_head, sbm_p->hold_tail, 0, (uint64_t)sbm_p->hold_cnt + sbm_p->mark_cnt,
               UNIT_HELD);
    if (!mark != !sbm_p->mark_cnt)
        loose("{}: a mark without marked nodes, or the reverse", ud.name);
    if (!mark || moved)
        return;
    uint64_t at = 1;
    uint32_t off = sbm_p->hold_head;
    while (off && off != mark && at <= ud.state.size()) {
        off = ud.unit_of(off) < 0 ? 0 : ud.word(off);
        ++at;
    }
    if (off != mark)
        fault("{}: the mark {} is not on the hold list", ud.name, mark);
    else if (at != sbm_p->mark_cnt)
        loose("{}: the mark is node {} of the hold list, mark_cnt says {}", ud.name, at, sbm_p->mark_cnt);
}

// The stream of a record, key and value, and the units that it takes.
bool checker::gather(const space &ud, uint32_t off, std::string *bytes_p, std::vector<uint32_t> *units_p)
{
    const udn *udn_p = ud.obj_p->at<udn>(off);
    size_t len = (size_t)udn_p->key_sz + udn_p->val_sz;
    const char *base = reinterpret_cast<const char *>(ud.obj_p->bytes.data());
    units_p->push_back(off);
    if (fixed) {
        if (udn_p->key_sz > sn->maxksz || udn_p->val_sz > sn->maxvsz)
            return false;
        bytes_p->assign(base + off + UDN_HEAD_SZ, len);
        return true;
    }
    uint32_t dn_sz = ud.sbm_p->dn_sz, unit = off, skip = VEC_HEAD_SZ;
    for (;;) {
        size_t part = std::min<size_t>(len - bytes_p->size(), dn_sz - skip);
        bytes_p->append(base + unit + skip, part);
        uint32_t next = ud.word(unit);
        if (!next)
            break;
        if (ud.unit_of(next) < 0 || units_p->size() >= udn_p->unit_cnt ||
            units_p->size() > len / (dn_sz - 4) + 2) // more than the bytes can take
            return false;
        units_p->push_back(unit = next);
        skip = 4;
    }
    const vec_udn *vec_p = ud.obj_p->at<vec_udn>(off);
    return bytes_p->size() == len && units_p->size() == udn_p->unit_cnt && vec_p->last_unit == unit;
}

uint8_t cksum_of(bool fixed, const space &ud, const udn *udn_p, const std::string &bytes,
                 const std::vector<uint32_t> &units)
{
    uint8_t sum = 0;
    if (fixed) {
        size_t len = bytes.size(), step = len <= 8 ? 1 : len / 8;
        for (size_t at = 0; at < len; at += step)
            sum ^= (uint8_t)(step < len - at ? bytes[at] : bytes[len - 1]);
        return sum;
    }
    for (size_t i = 0; i < units.size(); ++i) {
        uint32_t end = (udn_p->key_sz + udn_p->val_sz + VEC_HEAD_SZ + 4 * (uint32_t)i) & 127;
        uint32_t last = i + 1 < units.size() || end == 0 ? 127 : end - 1;
        sum ^= ud.obj_p->bytes[units[i] + (i ? 4 : VEC_HEAD_SZ)] ^ ud.obj_p->bytes[units[i] + last];
    }
    return sum;
}

// One record of a chain. False when the chain can't be followed further.
bool checker::check_record(space &ud, const char *table, uint32_t bucket, uint32_t off, std::string *key_p)
{
    const udn *udn_p = ud.unit_of(off) < 0 ? nullptr : ud.obj_p->at<udn>(off);
    if (!udn_p) {
        fault("{} bucket {}: leads to {}, which is no node of {}", table, bucket, off, ud.name);
        return false;
    }
    std::string bytes;
    std::vector<uint32_t> units;
    if (!gather(ud, off, &bytes, &units)) {
        fault("{} bucket {}: record {} does not hold together (key {}, value {}, units {})", table, bucket, off,
              udn_p->key_sz, udn_p->val_sz, udn_p->unit_cnt);
        return true;
    }
    if (cksum_of(fixed, ud, udn_p, bytes, units) != udn_p->cksum)
        fault("{} bucket {}: record {} has a bad checksum", table, bucket, off);
    *key_p = bytes.substr(0, udn_p->key_sz);
    for (uint32_t unit : units) {
        uint8_t &state = ud.state[ud.unit_of(unit)];
        if (state == UNIT_HELD || state == UNIT_FREE)
            fault("{} bucket {}: record {} is linked and {}", table, bucket, off,
                  state == UNIT_FREE ? "free" : "held");
    }
    return true;
}

static const char *STATES[] = {"fresh", "used", "free", "held", "staged", "interim", "lost"};

void checker::check_table(int obj_t, space &ud, bool md1_link, uint8_t state)
{
    const char *name = table_name(obj_t);
    const md_desc &desc = desc_of(obj_t);
    const object_image &obj = image.objs[obj_t];
    if (obj.file_sz < desc.obj_sz)
        return fault("{}: {} bytes long, its descriptor says {}", name, obj.file_sz, desc.obj_sz);
    if (!desc.hashsz || (uint64_t)desc.hashsz * sizeof(mdn) > desc.obj_sz)
        return fault("{}: {} buckets in {} bytes", name, desc.hashsz, desc.obj_sz);
    shkv_hash_fn fn = desc.hashfn < 11 ? shkv_hash_matrix[desc.hashfn] : nullptr;
    if (!fn && desc.hashfn != SHKV_USER_HASHFN)
        fault("{}: hash function {}", name, desc.hashfn);
    if (!ud.usable)
        return;
    for (uint32_t bucket = 0; bucket < desc.hashsz; ++bucket) {
        std::set<std::string> keys;
        uint32_t length = 0;
        for (uint32_t off = obj.at<mdn>((uint64_t)bucket * 8)->first_ptr; off;) {
            std::string key;
            if (!check_record(ud, name, bucket, off, &key))
                break;
            if (fn && !key.empty() && fn(key.data(), (uint32_t)key.size()) % desc.hashsz != bucket)
                fault("{} bucket {}: record {} belongs to another bucket", name, bucket, off);
            if (!keys.insert(key).second)
                fault("{} bucket {}: record {} repeats a key", name, bucket, off);
            const udn *udn_p = ud.obj_p->at<udn>(off);
            if (state == UNIT_USED && (udn_p->nd_flg & UDN_DELETED) && !(sn->comm_flg & CF_TXN_COMMIT))
                fault("{} bucket {}: record {} bears the deleted mark", name, bucket, off);
            uint8_t &old = ud.state[ud.unit_of(off)];
            if (old == state || (old != UNIT_FRESH && old != UNIT_FREE && old != UNIT_HELD &&
                                 !(state == UNIT_STAGED && (sn->comm_flg & CF_TXN_COMMIT)))) {
                fault("{} bucket {}: record {} is {} already", name, bucket, off, STATES[old]);
                break;
            }
            std::string bytes;
            std::vector<uint32_t> units;
            if (gather(ud, off, &bytes, &units))
                for (uint32_t unit : units)
                    ud.state[ud.unit_of(unit)] = state;
            old = state;
            ++length;
            state == UNIT_STAGED ? ++report.staged : ++report.records;
            off = md1_link ? udn_p->md1_next : udn_p->md2_next;
        }
        if (state == UNIT_USED) {
            report.chain_lengths.resize(17);
            ++report.chain_lengths[std::min(length, 16u)];
        }
    }
}

// The table that a rebuild fills: chains end, stay in bounds and hold no record twice.
void checker::check_pending_table(int obj_t, space &ud, bool md1_link)
{
    const md_desc &desc = desc_of(obj_t);
    const object_image &obj = image.objs[obj_t];
    if (!ud.usable || (uint64_t)desc.hashsz * sizeof(mdn) > obj.bytes.size())
        return;
    note("{}: a rebuild is under way or pending", table_name(obj_t));
    std::unordered_set<uint32_t> seen;
    for (uint32_t bucket = 0; strict && bucket < desc.hashsz; ++bucket)
        for (uint32_t off = obj.at<mdn>((uint64_t)bucket * 8)->first_ptr; off;) {
            const udn *udn_p = ud.unit_of(off) < 0 ? nullptr : ud.obj_p->at<udn>(off);
            if (!udn_p || !seen.insert(off).second || ud.state[ud.unit_of(off)] != UNIT_USED) {
                fault("{} bucket {}: {} is no record of the table in force, or stands twice", table_name(obj_t),
                      bucket, off);
                break;
            }
            off = md1_link ? udn_p->md1_next : udn_p->md2_next;
        }
}

void checker::check_interim(space &ud)
{
    uint32_t off = ud.sbm_p->intrm_head, last = 0;
    for (uint64_t steps = 0; off && steps <= ud.state.size(); ++steps) {
        const intrm_rec *rec_p = ud.unit_of(off) < 0 ? nullptr : ud.obj_p->at<intrm_rec>(off);
        if (!rec_p ||
            (rec_p->intrm_op != INTRM_ADD && rec_p->intrm_op != INTRM_DEL && rec_p->intrm_op != INTRM_DEAD))
            return loose("{}: the interim list leads to {}, which is none of its records", ud.name, off);
        uint8_t &state = ud.state[ud.unit_of(off)];
        if (state == UNIT_FRESH)
            state = UNIT_INTERIM;
        report.interim += rec_p->intrm_op != INTRM_DEAD;
        last = off;
        off = rec_p->intrm_next;
    }
    if (off || last != ud.sbm_p->intrm_tail)
        loose("{}: the interim list does not end at its tail", ud.name);
}

void checker::count_units(space &ud)
{
    uint32_t touched = ((uint32_t)ud.sbm_p->dn_tail - ud.sbm_p->dn_base) / ud.sbm_p->dn_sz;
    uint64_t lost = 0;
    for (uint32_t unit = 0; unit < ud.state.size(); ++unit) {
        if (ud.state[unit] == UNIT_FRESH && unit < touched) {
            ud.state[unit] = UNIT_LOST;
            ++lost;
        }
        report.units_free += ud.state[unit] == UNIT_FREE;
        report.units_held += ud.state[unit] == UNIT_HELD;
        report.units_fresh += ud.state[unit] == UNIT_FRESH;
        report.units_used +=
            ud.state[unit] == UNIT_USED || ud.state[unit] == UNIT_STAGED || ud.state[unit] == UNIT_INTERIM;
    }
    report.units_lost += lost;
    if (lost)
        loose("{}: {} units are neither used, free nor held", ud.name, lost);
}

void checker::run()
{
    if (!check_supernode())
        return;
    uint32_t flg = sn->comm_flg;
    for (int which = 0; which < 2; ++which)
        if (flg & (which ? CF_UD2 : CF_UD1))
            check_space(which);
    bool md1 = (flg & MDO1N2) || (!(flg & MDN1O2) && (flg & CF_MD1));
    bool ud1 = (flg & UDO1N2) || (!(flg & UDN1O2) && (flg & CF_UD1));
    space &ud = spaces[ud1 ? 0 : 1];
    if (!ud.sbm_p)
        return;
    check_table(md1 ? OBJ_MD1 : OBJ_MD2, ud, md1, UNIT_USED);
    bool moving_md = flg & (MDO1N2 | MDN1O2), moving_ud = flg & (UDO1N2 | UDN1O2);
    space &new_ud = moving_ud ? spaces[ud1 ? 1 : 0] : ud;
    if (moving_md && new_ud.usable)
        check_table(md1 ? OBJ_MD2 : OBJ_MD1, new_ud, !md1, UNIT_USED);
    // A list, once made, keeps its dead node for good.
    if (new_ud.usable && ((flg & CF_RESHAPE) || new_ud.sbm_p->intrm_head))
        check_interim(new_ud);
    if (report.interim && !(flg & CF_RESHAPE))
        loose("{}: the interim list has records, and no reshape is under way", new_ud.name);
    if (flg & CF_TXN)
        check_table(OBJ_MD_TXN, ud, !md1, UNIT_STAGED);
    else if (!moving_md && (flg & (CF_REFILL1 | CF_REFILL2)))
        check_pending_table(md1 ? OBJ_MD2 : OBJ_MD1, ud, !md1);
    for (space &each : spaces)
        if (each.usable)
            count_units(each);
    report.unit_state = ud.state;
}

} // namespace

check_report check_image(const store_image &image, bool strict, size_t max_faults)
{
    checker check{image, strict, max_faults, image.sn(), {}, {}, false};
    check.run();
    return std::move(check.report);
}

// What every change of a store moves: the supernode and the headers of its spaces.
struct moment {
    std::string bytes;

    explicit moment(const store_image &image)
    {
        const std::pair<int, size_t> parts[] = {
            {OBJ_SN, sizeof(supernode)}, {OBJ_UD1, sizeof(sbm)}, {OBJ_UD2, sizeof(sbm)}};
        for (auto [obj_t, len] : parts) {
            const auto &obj = image.objs[obj_t].bytes;
            bytes.append(reinterpret_cast<const char *>(obj.data()), std::min(len, obj.size()));
            bytes += std::to_string(obj.size());
        }
    }
};

// Keeps of now what stood in all copies before.
static void keep_standing(std::vector<std::string> *now_p, std::set<std::string> *standing_p, bool first)
{
    std::erase_if(*now_p, [&](const std::string &line) { return !first && !standing_p->count(line); });
    *standing_p = {now_p->begin(), now_p->end()};
}

bool check_live(const std::string &dbname, int tries, bool strict, check_report *report_p)
{
    store_image image;
    std::string last, before_last;
    std::set<std::string> faults, notes;
    for (int i = 0;; ++i) {
        if (!load_store(dbname, &image))
            return false;
        *report_p = check_image(image, strict, LIVE_FAULTS);
        keep_standing(&report_p->faults, &faults, i == 0);
        keep_standing(&report_p->notes, &notes, i == 0);
        std::string now = moment(image).bytes;
        bool at_rest = i > 1 && now == last && now == before_last; // what stands then is no change
        if ((faults.empty() && (notes.empty() || i > 1)) || at_rest || i + 1 >= tries)
            return true;
        before_last = std::exchange(last, now);
        usleep(5000u << std::min(i, 4));
    }
}

std::vector<std::string> check_registry()
{
    std::vector<std::string> faults;
    store_image image;
    if (!load_store(SHKV_REGISTRY_NAME, &image) || !image.sn())
        return faults;
    std::set<std::string> listed;
    const object_image &md = image.objs[OBJ_MD1], &ud = image.objs[OBJ_UD1];
    for (uint32_t bucket = 0; bucket < image.sn()->md1.hashsz; ++bucket) {
        const mdn *mdn_p = md.at<mdn>((uint64_t)bucket * 8);
        uint32_t off = mdn_p ? mdn_p->first_ptr : 0;
        for (int steps = 0; off && steps < 10000; ++steps) {
            const udn *udn_p = ud.at<udn>(off);
            if (!udn_p || off + UDN_HEAD_SZ + udn_p->key_sz > ud.bytes.size())
                break;
            std::string uri(reinterpret_cast<const char *>(udn_p) + UDN_HEAD_SZ, udn_p->key_sz);
            std::replace(uri.begin(), uri.end(), '/', '_');
            listed.insert(uri);
            off = udn_p->md1_next;
        }
    }
    std::vector<std::string> names = list_stores();
    std::set<std::string> there(names.begin(), names.end());
    for (const std::string &name : listed)
        if (!there.count(name))
            faults.push_back(fmt::format("the registry lists '{}', which does not exist", name));
    for (const std::string &name : there)
        if (!listed.count(name))
            faults.push_back(fmt::format("'{}' is not in the registry", name));
    return faults;
}
