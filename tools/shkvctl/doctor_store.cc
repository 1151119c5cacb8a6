// What a store's state and its processes mean.
#include <algorithm>

#include "shkvctl/common.h"
#include "shkvctl/doctor.h"
#include "shkvctl/events.h"
#include "shkvctl/listing.h"
#include "shkvctl/raw_stats.h"
#include "shkvctl/ring.h"

namespace
{
// One store under examination.
struct Patient {
    Findings &findings;
    RawStore &raw;
    std::string name;
    std::vector<Writer> writers;
    std::vector<User> users;
    bool living = false; // some writer may live

    void add(Finding::Level level, std::string what, std::string todo = "")
    {
        findings.push_back({level, name, std::move(what), std::move(todo)});
    }
    const supernode &sn() const
    {
        return raw.sn();
    }
};

void examine_writers(Patient &p)
{
    for (const Writer &writer : p.writers)
        if (writer.state == Writer::STRANGER)
            p.add(Finding::PROBLEM,
                  fmt::format(
                      "its writer is dead, but the writer's thread id {} now belongs to process {} ({}): opens "
                      "for writing are refused",
                      writer.tid, writer.process->pid, escape(writer.process->name)),
                  fmt::format("end that process, or the store: shkvctl destroy --force {}", p.name));
        else if (writer.state == Writer::DEAD && !(p.sn().conf_flg & CONF_MULTIWR))
            p.add(Finding::NOTE, fmt::format("its writer, thread {}, has died", writer.tid),
                  "nothing: the next process that opens it for writing repairs what there is to repair");
    for (const User &user : p.users)
        if (user.process.other_pids)
            p.add(Finding::WARNING,
                  fmt::format("process {} ({}) uses it from another PID namespace: thread ids of writers mean "
                              "something else there, and a living writer may be taken for dead",
                              user.process.pid, escape(user.process.name)),
                  "let all containers that share stores share their PID namespace (--pid=host, "
                  "shareProcessNamespace)");
}

// Whoever moves a store has it mapped for writing, and is not the writer.
bool has_reshaper(const Patient &p)
{
    return std::any_of(p.users.begin(), p.users.end(), [&](const User &user) {
        return user.writes && std::none_of(p.writers.begin(), p.writers.end(), [&](const Writer &writer) {
                   return writer.process && writer.process->pid == user.process.pid;
               });
    });
}

void examine_state(Patient &p)
{
    const RawStore &raw = p.raw;
    if (raw.is(CF_RESH_TOKEN1 | CF_RESH_TOKEN2 | CF_RESHAPE) && !has_reshaper(p))
        p.add(Finding::PROBLEM,
              raw.is(CF_RESHAPE)
                  ? "a reshape was begun, and no process moves it on: new writers are refused"
                  : "a reshaper took the token and has died: the store works on, and takes no other "
                    "reshape",
              fmt::format(
                  "save it (shkvctl dump {0}), destroy it (shkvctl destroy --force {0}), make it anew and load "
                  "it",
                  p.name));
    if (p.living)
        return;
    if (raw.is(CF_TXN_COMMIT))
        p.add(Finding::WARNING, "a commit was cut short: part of the transaction shows",
              "open it for writing, which finishes the commit: a shkvctl set of any key does");
    else if (raw.is(CF_TXN))
        p.add(Finding::NOTE, "a transaction is open, and no writer lives: its changes wait",
              fmt::format("shkvctl txn commit {0}, or shkvctl txn abort {0}", p.name));
    if (p.sn().iodb_mark >> 8 == IODB_LIVE)
        p.add(Finding::WARNING, "an atomic batch was cut short: part of it shows",
              "open it for writing, which takes the batch back");
    if (raw.is(CF_REFILL1 | CF_REFILL2) && !raw.is(CF_RESHAPE))
        p.add(Finding::NOTE, "a table rebuild is pending", "nothing: the next writer does it");
}

// Objects shorter than the header says are a fault in memory for whoever reads there.
void examine_lengths(Patient &p)
{
    const supernode &sn = p.sn();
    const struct {
        int kind;
        uint32_t size;
    } objects[] = {
        {OBJ_MD1, sn.md1.obj_sz}, {OBJ_MD2, sn.md2.obj_sz}, {OBJ_UD1, sn.ud1.obj_sz}, {OBJ_UD2, sn.ud2.obj_sz}};
    for (const auto &object : objects) {
        if (p.raw.object(object.kind).error)
            p.add(Finding::PROBLEM, fmt::format("its object {} is missing", object_name(object.kind)),
                  fmt::format("what is left can be removed with: shkvctl destroy --force {}", p.name));
        else if (p.raw.object(object.kind).file < object.size)
            p.add(Finding::PROBLEM,
                  fmt::format("its object {} has {} bytes, and its header says {}", object_name(object.kind),
                              p.raw.object(object.kind).file, object.size),
                  fmt::format("save what can be read (shkvctl dump {0}), then shkvctl destroy --force {0}",
                              p.name));
    }
}

void examine_tables(Patient &p)
{
    int md = p.raw.active_md(), ud = p.raw.active_ud();
    if (!md || !ud)
        return p.add(Finding::PROBLEM, "its state word names no table or no record space in force",
                     fmt::format("shkvctl check {0}; shkvctl destroy --force {0}", p.name));
    ChainStats chains = chain_stats(p.raw, md, link_of(md), ud);
    SpaceStats space = space_stats(p.raw, ud);
    uint32_t buckets = p.raw.md(md).hashsz;
    if (chains.broken || !space.sane)
        p.add(p.living ? Finding::WARNING : Finding::PROBLEM,
              p.living
                  ? "chains or counts do not fit together, which in a store that is written to may be a change "
                    "under way"
                  : "chains lead nowhere, or counts do not fit together",
              fmt::format("look closer with: shkvctl check {}", p.name));
    uint64_t room = space.units > space.reserve ? space.units - space.reserve : 0;
    bool grows = p.sn().auto_rz && !(p.sn().conf_flg & CONF_MULTIWR);
    uint64_t limit = shkv_get_process_max_db_sz();
    std::string fill =
        fmt::format("{} in {} buckets, {} of the record space used", count_of(chains.records, "record"),
                    thousands(buckets), percent(space.used, room));
    if (room && space.used * 100 > room * 90 && (!grows || p.raw.ud(ud).obj_sz >= limit))
        p.add(
            Finding::WARNING,
            fmt::format("{}, and it {}", fill, grows ? "is as large as a store may be here" : "does not grow"),
            grows ? "set SYSMGR_MMAP_LIMIT higher in its writer"
                  : fmt::format(
                        "shkvctl set-opts {} --grow on; a store with several writers has to be made anew, "
                        "larger",
                        p.name));
    else
        p.add(Finding::FINE, fill);
    if (buckets && chains.records > 3ull * buckets && !p.raw.is(CF_REFILL1 | CF_REFILL2))
        p.add(Finding::WARNING,
              fmt::format("its table is small for what it holds: {:.1f} records a bucket",
                          (double)chains.records / buckets),
              fmt::format("make it larger with: shkvctl reshape {}", p.name));
    else if (chains.longest > 24 && chains.longest > 8 * (1 + chains.records / std::max(buckets, 1u)))
        p.add(Finding::WARNING,
              fmt::format("its longest chain has {} records: the hash function does not spread these "
                          "keys",
                          chains.longest),
              fmt::format("try another: shkvctl reshape {} --hash djbhash", p.name));
    if (p.raw.md(md).hashfn == SHKV_USER_HASHFN)
        p.add(Finding::NOTE, "it uses a hash function of its program's own: only that program can open it");
}

void examine_events(Patient &p)
{
    Ring ring = read_ring(p.raw);
    if (!ring.fault.empty())
        return p.add(Finding::WARNING, "its event ring is not valid: " + ring.fault, "");
    size_t damage = 0, limit = 0;
    for (const RingEvent &event : ring.events)
        if (const Event *known = find_event(event.id); known && !event.unknown) {
            damage += known->severity == Severity::DAMAGE;
            limit += known->severity == Severity::LIMIT;
        }
    std::string todo = fmt::format("see when and where: shkvctl trace {}", p.name);
    if (damage)
        p.add(Finding::WARNING, fmt::format("its processes met damage, {} noted", count_of(damage, "event")),
              todo);
    if (limit)
        p.add(Finding::NOTE, fmt::format("its processes met limits, {} noted", count_of(limit, "event")), todo);
}
} // namespace

void examine_store(Findings &findings, const std::string &name, const Users &users)
{
    RawStore raw(name);
    if (!raw.complete())
        return; // the leftovers tell
    Patient p = {findings, raw, name, users.writers(raw), users.of(raw), false};
    p.living = std::any_of(p.writers.begin(), p.writers.end(),
                           [](const Writer &writer) { return writer.state == Writer::LIVES; });
    examine_writers(p);
    examine_lengths(p);
    if (raw.is(CF_DESTROYED))
        return;
    examine_state(p);
    examine_tables(p);
    examine_events(p);
}
