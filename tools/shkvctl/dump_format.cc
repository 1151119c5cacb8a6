// What dump writes and load reads.
#include "shkvctl/dump_format.h"

#include <errno.h>

#include <algorithm>

#include "shkvctl/common.h"
#include "shkvctl/names.h"

static constexpr const char *BEGIN = "shkv_dump", *END = "shkv_dump_end";

std::string Digest::hex() const
{
    SHA2_CTX copy = sha_;
    char text[SHA256_DIGEST_STRING_LENGTH];
    return SHA256End(&copy, text);
}

// ---- Writing ----

Json dump_head(const RawStore &store)
{
    const supernode &sn = store.sn();
    int md = store.active_md();
    return {{BEGIN, 1},
            {"store", escape(store.dbname())},
            {"uuid", sn.uuid},
            {"conf_flg", sn.conf_flg},
            {"key_max", sn.maxksz},
            {"value_max", sn.maxvsz},
            {"entries", sn.maxents},
            {"arg", sn.conf_arg},
            {"hash", hash_name(store.md(md).hashfn)}};
}

std::string meta_line(Format format, const Json &meta)
{
    return (format == Format::TSV ? "\t" : "") + meta.dump() + "\n";
}

std::string record_line(Format format, const std::string &key, const std::string &value)
{
    if (format == Format::TSV)
        return tsv_line(key, value);
    Json rec = Json::object();
    json_put(rec, "key", key);
    json_put(rec, "value", value);
    return rec.dump() + "\n";
}

// ---- Reading ----

static uint64_t number(const Json &meta, const char *name, uint64_t most)
{
    const Json *member = meta.find(name);
    const uint64_t *value = member ? member->count() : nullptr;
    if (!value || *value > most)
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("the dump does not say how its store was made: \"{}\"", name));
    return *value;
}

DumpedStore dumped_store(const Json &head)
{
    const Json *member = head.find("hash");
    const std::string *hash = member ? member->text() : nullptr;
    auto names = hash_names();
    if (!hash || std::find(names.begin(), names.end(), *hash) == names.end())
        throw Failure(EXIT_ERROR, EINVAL, "the dumped store used a hash function of its program's own",
                      "make the store first, with shkvctl create, and load without --create");
    return {{(uint16_t)number(head, "key_max", UINT16_MAX), (uint16_t)number(head, "value_max", UINT16_MAX),
             (uint32_t)number(head, "entries", UINT32_MAX), (uint32_t)number(head, "conf_flg", UINT16_MAX),
             (uint32_t)number(head, "arg", UINT32_MAX)},
            (uint32_t)number(head, "uuid", UINT32_MAX),
            hash_selector(*hash)};
}

// The object of a line that begins or ends a dump.
static std::optional<Json> meta_of(const std::string &line, bool in_tsv)
{
    std::string_view text = line;
    if (text.starts_with('\t'))
        text.remove_prefix(1);
    else if (in_tsv) // a key that begins so
        return std::nullopt;
    if (!text.starts_with("{\"shkv_dump"))
        return std::nullopt;
    std::optional<Json> meta = Json::parse(text);
    return meta && (meta->find(BEGIN) || meta->find(END)) ? meta : std::nullopt;
}

static Failure bad_dump(const LineReader &lines, const std::string &why)
{
    return {EXIT_ERROR, EINVAL, fmt::format("{}: {}", lines.where(), why)};
}

RecordReader::RecordReader(const std::string &path, Format format) : path_(path), format_(format), lines_(path)
{
}

void RecordReader::at_meta(const Json &meta)
{
    if (meta.find(BEGIN)) {
        if (in_dump_)
            throw bad_dump(lines_, "a dump begins in the middle of another, which is cut short");
        if (number(meta, BEGIN, UINT64_MAX) != 1)
            throw bad_dump(lines_, "the dump is of a newer kind than this tool knows");
        in_dump_ = true;
        in_format_ = lines_.raw()[0] == '\t' ? Format::TSV : Format::JSONL;
        records_ = 0;
        digest_ = Digest();
        digest_.add(lines_.raw());
        if (!started_)
            head_ = meta;
        return;
    }
    if (!in_dump_)
        throw bad_dump(lines_, "a dump ends that has not begun: its first lines are missing");
    in_dump_ = false;
    const Json *sum = meta.find("sha256");
    if (!sum || !sum->text() || *sum->text() != digest_.hex() ||
        number(meta, "records", UINT64_MAX) != records_)
        throw bad_dump(lines_, "the dump is not as it was written: its checksum is another");
}

// The next line of a record, into line_; dumps' own lines are taken on the way. Without
// records_too it stops behind the first of those as well.
bool RecordReader::next_line(bool records_too)
{
    while (lines_.next(&line_)) {
        std::optional<Json> meta = meta_of(line_, in_dump_ && in_format_ == Format::TSV);
        if (meta)
            at_meta(*meta);
        else if (in_dump_)
            digest_.add(lines_.raw());
        started_ = true;
        if (!meta)
            records_++;
        if (!meta || !records_too)
            return true;
    }
    if (in_dump_ && !interrupted)
        throw bad_dump(lines_, "the dump is cut short: its last lines are missing");
    return false;
}

const std::optional<Json> &RecordReader::head()
{
    if (!started_ && next_line(false))
        peeked_ = !head_;
    return head_;
}

void RecordReader::verify_first()
{
    if (!head() || lines_.total() == 0)
        return;
    RecordReader all(path_, format_);
    while (!interrupted && all.next_line(true))
        continue;
}

bool RecordReader::next(Record *rec)
{
    if (!peeked_ && !next_line(true))
        return false;
    peeked_ = false;
    *rec = parse_record(lines_, line_, in_dump_ ? in_format_ : format_);
    return true;
}
