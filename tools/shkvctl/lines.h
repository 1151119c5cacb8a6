// Records as lines of text: what load and apply read.
#pragma once

#include <stdio.h>

#include <cstdint>
#include <string>

#include "shkvctl/json.h"
#include "shkvctl/text.h"

// Lines of a file or of standard input ("-"), counted.
class LineReader
{
  public:
    explicit LineReader(const std::string &path);
    ~LineReader();
    LineReader(const LineReader &) = delete;

    bool next(std::string *line); // without its end; empty lines are passed over
    std::string_view raw() const  // the line as it stands in the file, with its end
    {
        return {line_, raw_len_};
    }
    uint64_t number() const
    {
        return number_;
    }
    uint64_t bytes() const
    {
        return bytes_;
    }
    uint64_t total() const
    {
        return total_;
    }                          // bytes of the file, 0 of a stream
    std::string where() const; // "load.tsv, line 17"

  private:
    std::string path_;
    FILE *in_;
    char *line_ = nullptr;
    size_t room_ = 0, raw_len_ = 0;
    uint64_t number_ = 0, bytes_ = 0, total_ = 0;
};

struct Record {
    std::string key, value;
    bool erase = false; // of an apply line: delete the key
};

enum class Format { AUTO, TSV, JSONL };

// AUTO takes a line that begins with '{' for JSON. A bad line throws Failure with its place.
Record parse_record(const LineReader &reader, const std::string &line, Format format);
std::string tsv_line(const std::string &key, const std::string &value); // what AUTO reads back
Record parse_change(const LineReader &reader, const std::string &line);
