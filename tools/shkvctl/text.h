// Keys, values and numbers as people and programs read and write them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Bytes as text: \t \n \r \\ and \xNN for whatever is not printable UTF-8. unescape is the
// inverse and throws Failure (usage) on a bad escape. With lines, tabs, line ends and
// backslashes stay as they are (for people, not for unescape).
std::string escape(std::string_view bytes, bool lines = false);
std::string unescape(std::string_view text);

std::string to_hex(std::string_view bytes);
std::string from_hex(std::string_view hex); // throws Failure (usage)
bool is_utf8(std::string_view bytes);

std::string human_size(uint64_t bytes);             // "140.0 KiB"
std::string human_time(double seconds);             // "33 ms", "4.2 s"
std::string thousands(uint64_t n);                  // "63,666"
std::string count_of(uint64_t n, const char *noun); // "1 record", "2,000 records"
std::string percent(uint64_t part, uint64_t whole);
uint64_t parse_size(const std::string &text); // "64K", "8M", "1G", plain bytes; throws Failure

// Rows as aligned columns, two spaces between them. A column whose heading begins with '>' is
// aligned to the right; the sign is not printed.
std::string table(const std::vector<std::vector<std::string>> &rows);
