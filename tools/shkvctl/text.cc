// Keys, values and numbers as people and programs read and write them.
#include "shkvctl/text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include "shkvctl/common.h"

// Length of the UTF-8 sequence at the start of text, 0 when there is none.
static size_t utf8_length(std::string_view text)
{
    unsigned char lead = text[0];
    size_t len = lead < 0x80                   ? 1
                 : lead >= 0xc2 && lead < 0xe0 ? 2
                 : (lead & 0xf0) == 0xe0       ? 3
                 : lead >= 0xf0 && lead < 0xf5 ? 4
                                               : 0;
    if (len == 0 || len > text.size())
        return 0;
    uint32_t code = len == 1 ? lead : lead & (0x7f >> len);
    for (size_t i = 1; i < len; i++) {
        unsigned char c = text[i];
        if ((c & 0xc0) != 0x80)
            return 0;
        code = code << 6 | (c & 0x3f);
    }
    bool overlong = (len == 3 && code < 0x800) || (len == 4 && code < 0x10000);
    bool surrogate = code >= 0xd800 && code < 0xe000;
    return overlong || surrogate || code > 0x10ffff ? 0 : len;
}

bool is_utf8(std::string_view bytes)
{
    while (!bytes.empty()) {
        size_t len = utf8_length(bytes);
        if (len == 0)
            return false;
        bytes.remove_prefix(len);
    }
    return true;
}

std::string escape(std::string_view bytes, bool lines)
{
    std::string text;
    while (!bytes.empty()) {
        unsigned char c = bytes[0];
        size_t len = utf8_length(bytes);
        // The C1 control characters (U+0080 to U+009F) drive a terminal as well.
        bool control = c < 0x20 || c == 0x7f || (c == 0xc2 && len == 2 && (unsigned char)bytes[1] < 0xa0);
        if (lines && (c == '\t' || c == '\n' || c == '\\'))
            text += (char)c;
        else if (c == '\\' || c == '\t' || c == '\n' || c == '\r')
            text += c == '\\' ? "\\\\" : c == '\t' ? "\\t" : c == '\n' ? "\\n" : "\\r";
        else if (control || len == 0)
            for (size_t i = 0; i < std::max<size_t>(len, 1); i++)
                text += fmt::format("\\x{:02x}", (unsigned char)bytes[i]);
        else
            text += bytes.substr(0, len);
        bytes.remove_prefix(std::max<size_t>(len, 1));
    }
    return text;
}

static int hex_digit(char c)
{
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                  : -1;
}

std::string unescape(std::string_view text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '\\') {
            bytes += text[i];
            continue;
        }
        char kind = i + 1 < text.size() ? text[i + 1] : 0;
        int high = i + 3 < text.size() ? hex_digit(text[i + 2]) : -1;
        int low = i + 3 < text.size() ? hex_digit(text[i + 3]) : -1;
        if (kind == 'x' && high >= 0 && low >= 0) {
            bytes += (char)(high << 4 | low);
            i += 3;
            continue;
        }
        switch (kind) {
        case '\\':
            bytes += '\\';
            break;
        case 't':
            bytes += '\t';
            break;
        case 'n':
            bytes += '\n';
            break;
        case 'r':
            bytes += '\r';
            break;
        default:
            throw Failure::usage("'{}' is no escape: \\t \\n \\r \\\\ and \\xNN are",
                                 escape(text.substr(i, 4), true));
        }
        i++;
    }
    return bytes;
}

std::string to_hex(std::string_view bytes)
{
    std::string hex;
    for (unsigned char c : bytes)
        hex += fmt::format("{:02x}", c);
    return hex;
}

std::string from_hex(std::string_view hex)
{
    std::string bytes;
    if (hex.size() % 2)
        throw Failure::usage("'{}' is no hex: an odd number of digits", hex);
    for (size_t i = 0; i < hex.size(); i += 2) {
        int high = hex_digit(hex[i]), low = hex_digit(hex[i + 1]);
        if (high < 0 || low < 0)
            throw Failure::usage("'{}' is no hex: digits are 0-9 and a-f", escape(hex, true));
        bytes += (char)(high << 4 | low);
    }
    return bytes;
}

std::string human_size(uint64_t bytes)
{
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return fmt::format("{} B", bytes);
    double n = (double)bytes;
    size_t unit = 0;
    for (n /= 1024; n >= 1023.95 && unit < 3; unit++)
        n /= 1024;
    return fmt::format("{:.1f} {}", n, units[unit]);
}

std::string human_time(double seconds)
{
    return seconds < 1 ? fmt::format("{:.0f} ms", seconds * 1000) : fmt::format("{:.1f} s", seconds);
}

std::string thousands(uint64_t n)
{
    std::string digits = std::to_string(n), text;
    for (size_t i = 0; i < digits.size(); i++) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

std::string count_of(uint64_t n, const char *noun)
{
    return fmt::format("{} {}{}", thousands(n), noun, n == 1 ? "" : "s");
}

std::string percent(uint64_t part, uint64_t whole)
{
    return whole ? fmt::format("{:.1f}%", 100.0 * (double)part / (double)whole) : "-";
}

uint64_t parse_size(const std::string &text)
{
    size_t end = 0;
    while (end < text.size() && isdigit((unsigned char)text[end]))
        end++;
    static const struct {
        const char *unit;
        int shift;
    } units[] = {{"", 0}, {"B", 0}, {"K", 10}, {"KiB", 10}, {"M", 20}, {"MiB", 20}, {"G", 30}, {"GiB", 30}};
    for (const auto &u : units)
        if (end > 0 && end < 12 && strcasecmp(text.c_str() + end, u.unit) == 0)
            return strtoull(text.c_str(), nullptr, 10) << u.shift;
    throw Failure::usage("'{}' is no size: a number of bytes, or one with K, M or G behind it", text);
}

// Columns as a terminal counts them: UTF-8 continuation bytes take none.
static size_t columns(const std::string &text)
{
    return (size_t)std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; });
}

std::string table(const std::vector<std::vector<std::string>> &rows)
{
    if (rows.empty())
        return "";
    std::vector<size_t> width(rows[0].size(), 0);
    std::vector<bool> right(rows[0].size(), false);
    for (size_t col = 0; col < width.size(); col++)
        right[col] = rows[0][col].starts_with(">");
    for (size_t row = 0; row < rows.size(); row++)
        for (size_t col = 0; col < rows[row].size(); col++)
            width[col] = std::max(width[col], columns(rows[row][col]) - (row == 0 && right[col]));
    std::string text;
    for (size_t row = 0; row < rows.size(); row++) {
        std::string line;
        for (size_t col = 0; col < rows[row].size(); col++) {
            std::string cell = rows[row][col].substr(row == 0 && right[col] ? 1 : 0);
            std::string pad(width[col] - columns(cell), ' ');
            line += (col ? "  " : "") + (right[col] ? pad + cell : cell + pad);
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}
