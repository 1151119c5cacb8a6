// dump: all records into a file, with a checksum, also of a damaged store.
#include <errno.h>

#include <optional>

#include "shkvctl/common.h"
#include "shkvctl/dump_format.h"
#include "shkvctl/output_file.h"
#include "shkvctl/progress.h"
#include "shkvctl/raw_records.h"

namespace
{
struct Args {
    std::string uri, file = "-", format = "jsonl";
    bool exact = false;
};

const char *manner_words(bool held, bool unchanged)
{
    return held        ? "exact: held the writer's place"
           : unchanged ? "exact: nobody changed the store meanwhile"
                       : "taken beside a writer: each record whole, not all of one moment";
}

WalkSum write_records(const Args &args, const Context &ctx, RawStore &raw, OutputFile &file, Digest &digest)
{
    Format format = args.format == "tsv" ? Format::TSV : Format::JSONL;
    Progress progress(ctx, "dumping " + args.uri, raw.md(raw.active_md()).hashsz);
    uint64_t records = 0;
    auto put = [&](const std::string &line) {
        digest.add(line);
        file.write(line);
    };
    put(meta_line(format, dump_head(raw)));
    WalkAll walk;
    walk.visit = [&](const std::string &key, const std::string &value) {
        put(record_line(format, key, value));
        records++;
        return !interrupted;
    };
    walk.position = [&](uint64_t bucket, uint64_t) {
        if (bucket % 256 == 0)
            progress.update(bucket, thousands(records) + " records");
    };
    WalkSum sum = walk_records(raw, walk);
    if (!interrupted)
        file.write(meta_line(format, {{"shkv_dump_end", 1},
                                      {"records", sum.records},
                                      {"exact", sum.unchanged},
                                      {"held", args.exact},
                                      {"damaged_records", sum.damaged},
                                      {"broken_chains", sum.cut_chains},
                                      {"sha256", digest.hex()}}));
    return sum;
}

void summarize(const Args &args, const Context &ctx, const WalkSum &sum, const std::string &sha)
{
    FILE *to = is_stdout(args.file) ? stderr : out();
    if (ctx.json) {
        Json done = {{"store", args.uri},  {"records", sum.records},         {"exact", sum.unchanged},
                     {"held", args.exact}, {"damaged_records", sum.damaged}, {"broken_chains", sum.cut_chains},
                     {"sha256", sha}};
        fmt::print(to, "{}\n", done.dump());
    } else if (!ctx.quiet) {
        fmt::print(to, "dumped {} of store '{}', {}\n", count_of(sum.records, "record"), args.uri,
                   manner_words(args.exact, sum.unchanged));
    }
}

int dump(const Args &args, const Context &ctx)
{
    catch_interrupts();
    RawStore raw(dbname_of(args.uri));
    auto found = raw.exists() ? obstacle(raw) : std::nullopt;
    if (!found || !found->readable)
        check_readable(args.uri, raw);
    if (found)
        warn(fmt::format("store '{}' {}; dumping what can be read", args.uri, found->words));
    std::optional<Store> place;
    if (args.exact) {
        if (raw.sn().conf_flg & CONF_MULTIWR)
            throw Failure(
                EXIT_ERROR, EINVAL,
                fmt::format("store '{}' allows several writers, and holding one place keeps nobody out",
                            args.uri),
                "a dump without --exact says whether anything changed meanwhile");
        place.emplace(args.uri, Store::WRITE);
        raw.refresh();
    }
    if (raw.is(CF_TXN))
        warn(fmt::format("store '{}' has an open transaction; what is staged is not in the dump", args.uri));
    Digest digest;
    OutputFile file(args.file);
    WalkSum sum = write_records(args, ctx, raw, file, digest);
    if (interrupted) {
        warn("interrupted: the dump is not complete");
        return EXIT_INTERRUPTED;
    }
    file.finish();
    summarize(args, ctx, sum, digest.hex());
    if (sum.damaged || sum.cut_chains)
        throw damage(args.uri, sum);
    return found ? EXIT_ERROR : EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("FILE", args->file, "File to write; - or nothing is standard output");
    app.add_option("--format", args->format, "jsonl or tsv (jsonl)").type_name("NAME").one_of({"jsonl", "tsv"});
    app.add_flag(
        "--exact", args->exact,
        "Hold the writer's place meanwhile. This opens the store for writing, which finishes what a dead "
        "writer left, and is refused while a writer lives");
    return [args, &ctx] { return dump(*args, ctx); };
}
} // namespace

const Command cmd_dump = {
    "dump",
    nullptr,
    "Many records at once",
    "write all records to a file, with a checksum",
    "Writes a line for the store, a line for each record, and a line with their number and a SHA-256\n"
    "checksum of all lines before it. Bytes that are no text come as key_hex and value_hex, or as\n"
    "\\xNN in TSV. It reads the store's bytes without opening it, so it works on stores in use, in a\n"
    "reshape, and on damaged ones: what is damaged is left out and counted, and the exit code is 3.\n"
    "It says whether the dump is exact, of one moment, or was taken beside a writer.",
    {{"shkvctl dump cache cache.dump", "into a file"},
     {"shkvctl dump cache | gzip > cache.dump.gz", "packed"},
     {"shkvctl dump cache | ssh other shkvctl load cache --create", "to another machine"},
     {"shkvctl dump cache --exact cache.dump", "of one moment, for certain"},
     {"head -n -1 cache.dump | sha256sum", "the checksum in the last line"}},
    setup};
