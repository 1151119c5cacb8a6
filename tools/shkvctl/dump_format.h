// What dump writes and load reads: records a line, JSON Lines or TSV, between a line that says of
// which store and a line with their number and a checksum over all lines before it. In TSV the two
// are JSON behind a tab: a record without a key, which there is none of. The checksum is that of
// `head -n -1 FILE | sha256sum`.
#pragma once

#include <sha2.h>

#include <optional>
#include <string>

#include "shkv.h"
#include "shkvctl/json.h"
#include "shkvctl/lines.h"
#include "shkvctl/raw_store.h"

class Digest
{
  public:
    Digest()
    {
        SHA256Init(&sha_);
    }
    void add(std::string_view bytes)
    {
        SHA256Update(&sha_, reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::string hex() const; // of what was added so far

  private:
    SHA2_CTX sha_;
};

Json dump_head(const RawStore &store);
std::string meta_line(Format format, const Json &meta);
std::string record_line(Format format, const std::string &key, const std::string &value);

// What create takes to make the store of this head again. Throws when it cannot be.
struct DumpedStore {
    shkv_params params;
    uint32_t uuid;
    uint64_t hash;
};
DumpedStore dumped_store(const Json &head);

// Records of a file that may be a dump, or several, one behind the other. A dump that is cut short
// or not as it was written throws Failure where that shows: at its end.
class RecordReader
{
  public:
    RecordReader(const std::string &path, Format format);
    bool next(Record *rec);
    const std::optional<Json> &head(); // of the dump that the file begins with
    LineReader &lines()
    {
        return lines_;
    }

    // Reads a file that begins with a dump to its end and throws what is wrong with it. Does
    // nothing to what cannot be read twice.
    void verify_first();

  private:
    bool next_line(bool records_too); // false at the end of the file
    void at_meta(const Json &meta);

    std::string path_;
    Format format_, in_format_ = Format::AUTO;
    LineReader lines_;
    Digest digest_;
    std::string line_;
    std::optional<Json> head_;
    uint64_t records_ = 0;
    bool in_dump_ = false, peeked_ = false, started_ = false;
};
