// Records as lines of text: what load and apply read.
#include "shkvctl/lines.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "shkvctl/common.h"

LineReader::LineReader(const std::string &path)
    : path_(path == "-" ? "standard input" : path), in_(path == "-" ? stdin : fopen(path.c_str(), "re"))
{
    if (!in_)
        throw Failure(EXIT_ERROR, errno, fmt::format("cannot read {}: {}", path, strerror(errno)));
    struct stat st;
    if (in_ != stdin && fstat(fileno(in_), &st) == 0 && S_ISREG(st.st_mode))
        total_ = (uint64_t)st.st_size;
}

LineReader::~LineReader()
{
    free(line_);
    if (in_ != stdin)
        fclose(in_);
}

bool LineReader::next(std::string *line)
{
    ssize_t len;
    while ((len = getline(&line_, &room_, in_)) >= 0) {
        number_++;
        bytes_ += (uint64_t)len;
        raw_len_ = (size_t)len;
        if (len > 0 && line_[len - 1] == '\n')
            len--;
        line->assign(line_, (size_t)len);
        if (len > 0)
            return true;
    }
    if (ferror(in_) && !interrupted)
        throw Failure(EXIT_ERROR, errno, fmt::format("cannot read {}: {}", path_, strerror(errno)));
    return false;
}

std::string LineReader::where() const
{
    return fmt::format("{}, line {}", path_, thousands(number_));
}

static Failure bad_line(const LineReader &reader, const std::string &why)
{
    return {EXIT_ERROR, EINVAL, fmt::format("{}: {}", reader.where(), why)};
}

static Json parse_object(const LineReader &reader, const std::string &line)
{
    std::optional<Json> obj = Json::parse(line);
    if (!obj || !obj->is_object())
        throw bad_line(reader, "no JSON object");
    return *std::move(obj);
}

// What unescape and from_hex refuse gets its place in the file.
template <typename Fn> static auto at_line(const LineReader &reader, Fn parse)
{
    try {
        return parse();
    } catch (const Failure &failure) {
        throw bad_line(reader, failure.what());
    }
}

static Record record_of_json(const LineReader &reader, const Json &obj, bool need_value)
{
    Record rec;
    bool key = at_line(reader, [&] { return json_take(obj, "key", &rec.key); });
    bool value = at_line(reader, [&] { return json_take(obj, "value", &rec.value); });
    if (!key || (need_value && !value))
        throw bad_line(reader, fmt::format("\"{}\" is missing, or is no string", key ? "value" : "key"));
    return rec;
}

Record parse_record(const LineReader &reader, const std::string &line, Format format)
{
    size_t tab = line.find('\t');
    bool json = format == Format::JSONL || (format == Format::AUTO && line[0] == '{');
    if (json && format == Format::AUTO && tab != std::string::npos) // a key may begin so, too
        json = Json::parse(line).has_value();
    if (json)
        return record_of_json(reader, parse_object(reader, line), true);
    if (tab == std::string::npos)
        throw bad_line(reader, "no tab between key and value");
    Record rec;
    rec.key = at_line(reader, [&] { return unescape(std::string_view(line).substr(0, tab)); });
    rec.value = at_line(reader, [&] { return unescape(std::string_view(line).substr(tab + 1)); });
    return rec;
}

std::string tsv_line(const std::string &key, const std::string &value)
{
    std::string line = escape(key) + "\t" + escape(value);
    if (line[0] == '{' && Json::parse(line)) // it would pass for a JSON object, or a dump's own line
        line.replace(0, 1, "\\x7b");
    return line + "\n";
}

Record parse_change(const LineReader &reader, const std::string &line)
{
    Json obj = parse_object(reader, line);
    const Json *op = obj.find("op");
    const std::string *word = op ? op->text() : nullptr;
    bool set = word && *word == "set", del = word && *word == "del";
    if (!set && !del)
        throw bad_line(reader, "\"op\" is neither \"set\" nor \"del\"");
    Record rec = record_of_json(reader, obj, set);
    rec.erase = del;
    return rec;
}
