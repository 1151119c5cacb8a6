// ls: the stores of this machine.
#include <sys/stat.h>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/raw_stats.h"

namespace
{
struct Args {
    bool records = false;
};

// Length of all six objects; what of it is in memory is less, since they are sparse.
uint64_t length_of(const RawStore &raw)
{
    uint64_t sum = 0;
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++)
        sum += raw.object(kind).file;
    return sum;
}

uint64_t records_of(RawStore &raw)
{
    int md = raw.active_md(), ud = raw.active_ud();
    return raw.complete() && md && ud ? chain_stats(raw, md, link_of(md), ud).records : 0;
}

std::string kind_words(const RawStore &raw)
{
    if (!raw.complete())
        return "-";
    return raw.mm_mode() == CONF_VECTORMM ? raw.sn().conf_flg & CONF_SHMAP ? "chunks" : "vector" : "fixed";
}

int ls(const Args &args, const Context &ctx)
{
    std::vector<std::vector<std::string>> rows = {
        {"STORE", ">OWNER", ">VDC", "KIND", ">SIZE", "WRITER", "STATE"}};
    if (args.records)
        rows[0].insert(rows[0].begin() + 4, ">RECORDS");
    for (const Listed &store : all_stores()) {
        RawStore raw(dbname_of(store.uri));
        uint32_t uuid = store.listed ? store.rec.reg_uuid : raw.sn().uuid;
        std::string state = state_words(raw);
        uint64_t records = args.records ? records_of(raw) : 0;
        if (ctx.json) {
            Json line = {{"store", store.uri},      {"listed", store.listed},  {"uuid", uuid},
                         {"vdc", store.rec.vdc_id}, {"kind", kind_words(raw)}, {"size", length_of(raw)},
                         {"state", state}};
            if (args.records)
                line["records"] = records;
            print_json(line);
            continue;
        }
        rows.push_back({escape(store.uri), std::to_string(uuid), std::to_string(store.rec.vdc_id),
                        kind_words(raw), human_size(length_of(raw)), writer_words(raw),
                        state + (store.listed ? "" : ", unlisted")});
        if (args.records)
            rows.back().insert(rows.back().begin() + 4, thousands(records));
    }
    if (rows.size() > 1)
        fmt::print(out(), "{}", table(rows));
    else
        say(ctx, "there are no stores; make one with: shkvctl create NAME\n");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_flag("-r,--records", args->records, "Count the records of each store, too");
    return [args, &ctx] { return ls(*args, ctx); };
}
} // namespace

const Command cmd_ls = {
    "ls",
    nullptr,
    "Stores",
    "list the stores of this machine",
    "Lists every store: its owner and VDC as the registry has them, how its records are kept, the\n"
    "length of its objects, who writes to it, and its state. A store that is listed and not there is\n"
    "\"gone\"; one that is there and not listed is \"unlisted\".",
    {{"shkvctl ls", "all stores"},
     {"shkvctl ls --records", "with the number of records, which takes a walk of each"},
     {"shkvctl ls --json", "a JSON object a line"}},
    setup};
