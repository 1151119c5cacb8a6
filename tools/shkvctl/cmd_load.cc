// load: stores many records from lines of text, plainly, as one transaction, or in atomic batches.
#include <errno.h>

#include <chrono>
#include <optional>

#include "shkvctl/common.h"
#include "shkvctl/dump_format.h"
#include "shkvctl/progress.h"
#include "shkvctl/transaction.h"

namespace
{
struct Args {
    std::string uri, file = "-", format = "auto";
    bool txn = false, create = false;
    uint32_t batch = 0;
};

// Collects records and hands them on, batch by batch or one by one. done() counts what is stored.
class Sink
{
  public:
    Sink(const Store &store, uint32_t batch) : store_(store), batch_(batch) {}

    void put(Record rec)
    {
        if (batch_ == 0) {
            store_.add(rec.key, rec.value);
            done_++;
            return;
        }
        store_.check_sizes(rec.key, rec.value);
        waiting_.push_back(std::move(rec));
        if (waiting_.size() == batch_)
            flush();
    }

    void flush()
    {
        if (waiting_.empty())
            return;
        std::vector<shkv_buf> keys, vals;
        for (const Record &rec : waiting_) {
            keys.push_back(buf_of(rec.key));
            vals.push_back(buf_of(rec.value));
        }
        constexpr uint16_t atomic = 1;
        int err = shkv_m_add(store_.handle(), keys.data(), vals.data(), (uint16_t)waiting_.size(), atomic);
        if (err != 0)
            throw store_.failure("store a batch", err);
        done_ += waiting_.size();
        waiting_.clear();
    }

    uint64_t done() const
    {
        return done_;
    }

  private:
    const Store &store_;
    uint32_t batch_;
    std::vector<Record> waiting_;
    uint64_t done_ = 0;
};

void check_store(const Args &args, const Store &store)
{
    if (args.batch && (store.sn().conf_flg & CONF_MULTIWR))
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("store '{}' allows several writers, and so has no batches", args.uri));
    if (!args.txn && store.in_txn())
        warn(fmt::format("store '{0}' has an open transaction: these records wait for: shkvctl txn commit {0}",
                         args.uri));
}

Format format_of(const std::string &name)
{
    return name == "tsv" ? Format::TSV : name == "jsonl" ? Format::JSONL : Format::AUTO;
}

// Reads to the end, to a failure or to an interrupt.
void read_all(const Args &args, const Context &ctx, RecordReader &reader, Sink &sink)
{
    Progress progress(ctx, "loading " + args.uri, reader.lines().total());
    Record rec;
    while (!interrupted && reader.next(&rec)) {
        sink.put(std::move(rec));
        if (reader.lines().number() % 256 == 0)
            progress.update(reader.lines().bytes(), thousands(sink.done()) + " records");
    }
    if (!interrupted)
        sink.flush();
}

// The store that the dump was taken of, empty.
void create_as_dumped(const Args &args, RecordReader &reader)
{
    if (RawStore(dbname_of(args.uri)).exists())
        return;
    refuse_registry(args.uri);
    bool begun = reader.head().has_value();
    if (interrupted)
        throw Failure(EXIT_INTERRUPTED, 0, "interrupted: nothing was stored");
    if (!begun)
        throw Failure(EXIT_ERROR, EINVAL, "the file is no dump, and does not say how to make the store",
                      fmt::format("make it with: shkvctl create {}", args.uri));
    DumpedStore made = dumped_store(*reader.head());
    uint32_t err = 0;
    int handle = shkv_create(args.uri.c_str(), made.uuid, &made.params, made.hash, &err);
    if (handle <= 0 || !check_shkv_hdl(handle))
        throw Failure(
            EXIT_ERROR, (int)err,
            fmt::format("cannot make store '{}' as it was dumped: {}", args.uri, errno_words((int)err)),
            "make it first, with shkvctl create");
    shkv_close(handle);
}

int load(const Args &args, const Context &ctx)
{
    if (args.txn && args.batch)
        throw Failure::usage("--txn and --batch exclude each other");
    catch_interrupts();
    RecordReader reader(args.file, format_of(args.format));
    reader.verify_first();
    if (args.create)
        create_as_dumped(args, reader);
    Store store(args.uri, Store::WRITE);
    check_store(args, store);
    auto start = std::chrono::steady_clock::now();
    std::optional<Transaction> txn;
    if (args.txn)
        txn.emplace(store, (uint32_t)std::min<uint64_t>(reader.lines().total() / 32 + 512, 1000000));
    Sink sink(store, args.batch);
    std::string kept = args.txn ? "nothing was stored" : "";
    try {
        read_all(args, ctx, reader, sink);
    } catch (Failure &failure) {
        if (kept.empty())
            kept = count_of(sink.done(), "record") + (sink.done() == 1 ? " was" : " were") + " stored before";
        throw Failure(failure.exit_code, failure.err, fmt::format("{} ({})", failure.what(), kept),
                      failure.hint);
    }
    if (interrupted) {
        warn(args.txn ? "interrupted: nothing was stored"
                      : fmt::format("interrupted after {}", count_of(sink.done(), "record")));
        return EXIT_INTERRUPTED;
    }
    if (txn)
        txn->commit();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (ctx.json)
        print_json({{"store", args.uri}, {"records", sink.done()}, {"seconds", seconds}});
    say(ctx, "loaded {} in {}, {} a second\n", count_of(sink.done(), "record"), human_time(seconds),
        thousands((uint64_t)((double)sink.done() / std::max(seconds, 1e-6))));
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    app.add_option("STORE", args->uri, "Name of the store").required();
    app.add_option("FILE", args->file, "File to read; - or nothing is standard input");
    app.add_option("--format", args->format, "tsv, jsonl, or auto: a line that begins with '{' is JSON (auto)")
        .type_name("NAME")
        .one_of({"auto", "tsv", "jsonl"});
    app.add_flag("--txn", args->txn, "One transaction: readers see all of it at the end, or nothing");
    app.add_option("--batch", args->batch,
                   "Atomic batches of N records, 1 to 31: each is stored whole or not at all")
        .type_name("N")
        .range(1, 31);
    app.add_flag("--create", args->create,
                 "Of a dump: make the store as it was, if there is none of this name");
    return [args, &ctx] { return load(*args, ctx); };
}
} // namespace

const Command cmd_load = {
    "load",
    nullptr,
    "Many records at once",
    "store records from a file or from standard input",
    "Reads a record a line: key, tab, value, with \\t \\n \\r \\\\ and \\xNN in them (what scan prints), or\n"
    "a JSON object {\"key\":\"..\",\"value\":\"..\"}, with key_hex and value_hex for bytes. A record takes\n"
    "the place of the one of the same key. A bad line ends the load; what was stored before it stays,\n"
    "unless the load is one transaction.\n"
    "A file that shkvctl dump wrote is held against its checksum: before the first record is stored,\n"
    "or, of a pipe, at the end.",
    {{"shkvctl load cache records.tsv", "lines of key, tab, value"},
     {"shkvctl load cache cache.dump --create", "a store as it was dumped"},
     {"shkvctl scan old | shkvctl load new", "copy a store into another"},
     {"shkvctl load cache prices.jsonl --txn", "all records, or none"},
     {"shkvctl load cache prices.jsonl --batch 16", "16 at a time; a crash leaves whole batches"}},
    setup};
