// The state of all stores at one moment, in numbers.
#include "shkvctl/sample.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/procs.h"
#include "shkvctl/raw_stats.h"

namespace
{
double seconds(clockid_t clock)
{
    timespec now;
    clock_gettime(clock, &now);
    return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

uint64_t taken_by(const RawStore &raw)
{
    uint64_t sum = 0;
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++) {
        struct stat st;
        if (raw.object(kind).fd >= 0 && fstat(raw.object(kind).fd, &st) == 0)
            sum += (uint64_t)st.st_blocks * 512;
    }
    return sum;
}

// One metric: its name, what it says, and its value of a store.
struct Metric {
    const char *name, *help;
    double (*value)(const StoreSample &store);
};

const Metric metrics[] = {
    {"complete", "1 when the store can be opened.", [](const StoreSample &s) { return (double)s.complete; }},
    {"listed", "1 when the registry lists the store.", [](const StoreSample &s) { return (double)s.listed; }},
    {"entries", "Records in the table in force.", [](const StoreSample &s) { return (double)s.entries; }},
    {"buckets", "Buckets of the table in force.", [](const StoreSample &s) { return (double)s.buckets; }},
    {"longest_chain", "Records in the longest chain.",
     [](const StoreSample &s) { return (double)s.longest_chain; }},
    {"units", "Units of the record space.", [](const StoreSample &s) { return (double)s.units; }},
    {"units_used", "Units that records take.", [](const StoreSample &s) { return (double)s.used; }},
    {"units_held", "Units that wait for readers.", [](const StoreSample &s) { return (double)s.held; }},
    {"space_bytes", "Length of the record space.", [](const StoreSample &s) { return (double)s.space_bytes; }},
    {"taken_bytes", "Memory behind all objects.", [](const StoreSample &s) { return (double)s.taken_bytes; }},
    {"table_version", "Raised by each new table.",
     [](const StoreSample &s) { return (double)s.table_version; }},
    {"space_version", "Raised by each growth.", [](const StoreSample &s) { return (double)s.space_version; }},
    {"rebuild", "1 while a table rebuild is pending.", [](const StoreSample &s) { return (double)s.rebuild; }},
    {"reshape", "1 while a reshape has the store.", [](const StoreSample &s) { return (double)s.reshape; }},
    {"transaction", "1 while a transaction is open.",
     [](const StoreSample &s) { return (double)s.transaction; }},
    {"writer_alive", "1 when a writer holds the store.",
     [](const StoreSample &s) { return (double)s.writer_lives; }},
    {"trace_events", "Events in the ring.", [](const StoreSample &s) { return (double)s.events; }},
};

// A label's text: backslash, quote and line end are escaped; what is no text comes as \xNN.
std::string label(const std::string &name)
{
    std::string text;
    for (char c : escape(name))
        text += c == '\\' ? "\\\\" : c == '"' ? "\\\"" : std::string(1, c);
    return text;
}
} // namespace

void Sampler::count(StoreSample &sample, RawStore &raw)
{
    double now = seconds(CLOCK_MONOTONIC);
    Count &last = counts_[sample.name];
    if (last.when == 0 || last.cost < 0.05 || now - last.when > 20 * last.cost + 5) {
        int md = raw.active_md();
        ChainStats chains = chain_stats(raw, md, link_of(md), raw.active_ud());
        last = {chains.records, chains.longest, seconds(CLOCK_MONOTONIC) - now, now};
    }
    sample.entries = last.entries;
    sample.longest_chain = last.longest;
}

StoreSample Sampler::look_at(const std::string &name, bool listed)
{
    RawStore raw(name);
    StoreSample sample;
    sample.name = name;
    sample.listed = listed;
    sample.state = state_words(raw);
    sample.complete = raw.complete();
    sample.taken_bytes = taken_by(raw);
    int md = raw.active_md(), ud = raw.active_ud();
    if (!sample.complete || !md || !ud)
        return sample;
    const supernode &sn = raw.sn();
    SpaceStats space = space_stats(raw, ud);
    TraceStats trace = trace_stats(raw);
    sample.uuid = sn.uuid;
    sample.grows = sn.auto_rz && !(sn.conf_flg & CONF_MULTIWR);
    sample.vector = raw.mm_mode() == CONF_VECTORMM;
    sample.buckets = raw.md(md).hashsz;
    sample.units = space.units;
    sample.used = space.used;
    sample.free = space.free;
    sample.held = space.held;
    sample.space_bytes = raw.ud(ud).obj_sz;
    sample.table_version = sn.md1.obj_ver + sn.md2.obj_ver;
    sample.space_version = sn.ud1.obj_ver + sn.ud2.obj_ver;
    sample.rebuild = raw.is(CF_REFILL1 | CF_REFILL2) && !raw.is(CF_RESHAPE);
    sample.reshape = raw.is(CF_RESHAPE | CF_RESH_TOKEN1 | CF_RESH_TOKEN2);
    sample.transaction = raw.is(CF_TXN);
    for (uint32_t tid : sn.wr_tid)
        if (tid != 0 && !sample.writer_lives) {
            sample.writer = tid;
            sample.writer_lives = thread_lives(tid);
        }
    sample.events = trace.events;
    sample.last_event = trace.last_event;
    count(sample, raw);
    return sample;
}

Sample Sampler::take()
{
    Sample sample;
    sample.time = seconds(CLOCK_REALTIME);
    struct statvfs shm;
    if (statvfs("/dev/shm", &shm) == 0) {
        sample.shm_bytes = shm.f_blocks * shm.f_frsize;
        sample.shm_free = shm.f_bavail * shm.f_frsize;
    }
    for (const Listed &store : all_stores())
        sample.stores.push_back(look_at(dbname_of(store.uri), store.listed));
    return sample;
}

Json json_sample(const Sample &sample)
{
    Json stores = Json::array();
    for (const StoreSample &s : sample.stores) {
        Json obj = {{"store", escape(s.name)}, {"uuid", s.uuid}, {"state", s.state}, {"grows", s.grows}};
        for (const Metric &metric : metrics)
            obj[metric.name] = (uint64_t)metric.value(s);
        obj["units_free"] = s.free;
        obj["writer_tid"] = s.writer;
        obj["last_event"] = s.last_event;
        stores.push_back(obj);
    }
    return {{"time", sample.time},
            {"shm_bytes", sample.shm_bytes},
            {"shm_free", sample.shm_free},
            {"stores", stores}};
}

std::string prometheus_text(const Sample &sample)
{
    std::string text;
    auto plain = [&](const char *name, const char *help, uint64_t value) {
        text += fmt::format("# HELP shkv_{0} {1}\n# TYPE shkv_{0} gauge\nshkv_{0} {2}\n", name, help, value);
    };
    plain("shm_bytes", "Size of /dev/shm.", sample.shm_bytes);
    plain("shm_free_bytes", "Free memory of /dev/shm.", sample.shm_free);
    plain("stores", "Stores of this machine.", sample.stores.size());
    for (const Metric &metric : metrics) {
        text +=
            fmt::format("# HELP shkv_store_{0} {1}\n# TYPE shkv_store_{0} gauge\n", metric.name, metric.help);
        for (const StoreSample &store : sample.stores)
            text += fmt::format("shkv_store_{}{{store=\"{}\"}} {}\n", metric.name, label(store.name),
                                (uint64_t)metric.value(store));
    }
    return text;
}
