// The demo's data: the package records of this machine, as the package tools print them.
#include "demo/packages.h"

#include <fmt/format.h>
#include <stdio.h>
#include <stdlib.h>

#include <unordered_set>

static uint64_t checksum(std::string_view text)
{
    uint64_t sum = 0xcbf29ce484222325u;
    for (unsigned char c : text)
        sum = (sum ^ c) * 0x100000001b3u;
    return sum;
}

struct Stanza {
    std::string name, version, architecture, section, description;
};

static std::string value_of(const Stanza &s)
{
    std::string text = fmt::format("{}\n{}\n{}\n{}\n{}\n", s.name, s.version, s.architecture, s.section,
                                   s.description.substr(0, 1500));
    return text + fmt::format("{:016x}", checksum(text));
}

bool value_is_whole(std::string_view value, std::string_view name)
{
    constexpr size_t digits = 16;
    if (value.size() < name.size() + 1 + digits || !value.starts_with(name) || value[name.size()] != '\n')
        return false;
    uint64_t sum = 0;
    for (char c : value.substr(value.size() - digits)) {
        if (!(c >= '0' && c <= '9') && !(c >= 'a' && c <= 'f'))
            return false;
        sum = sum << 4 | (uint64_t)(c <= '9' ? c - '0' : c - 'a' + 10);
    }
    return sum == checksum(value.substr(0, value.size() - digits));
}

// "Field: text" into the stanza. A line that begins with a space goes on with the field before,
// which none of these needs.
static void take_line(Stanza *stanza, std::string_view line)
{
    const struct {
        std::string_view field;
        std::string *into;
    } fields[] = {{"Package: ", &stanza->name},
                  {"Version: ", &stanza->version},
                  {"Architecture: ", &stanza->architecture},
                  {"Section: ", &stanza->section},
                  {"Description: ", &stanza->description},
                  {"Description-en: ", &stanza->description}};
    for (const auto &f : fields)
        if (line.starts_with(f.field))
            *f.into = line.substr(f.field.size());
}

static void read_stanzas(FILE *in, Packages *all)
{
    std::unordered_set<std::string> known;
    char *text = nullptr;
    size_t room = 0;
    Stanza stanza;
    auto finish = [&] {
        if (!stanza.name.empty() && stanza.name.size() <= 256 && known.insert(stanza.name).second) {
            all->list.push_back({stanza.name, value_of(stanza)});
            all->bytes += stanza.name.size() + all->list.back().value.size();
        }
        stanza = {};
    };
    for (ssize_t len; (len = getline(&text, &room, in)) > 0;) {
        std::string_view view(text, (size_t)len);
        if (view.ends_with('\n'))
            view.remove_suffix(1);
        if (view.empty())
            finish();
        else
            take_line(&stanza, view);
    }
    finish();
    free(text);
}

static Packages read_from(const std::string &source, FILE *in, int (*close)(FILE *))
{
    Packages all;
    all.source = source;
    if (in) {
        read_stanzas(in, &all);
        close(in);
    }
    return all;
}

Packages read_packages(const std::string &file)
{
    if (!file.empty())
        return read_from(file, fopen(file.c_str(), "re"), fclose);
    Packages all = read_from("apt-cache dumpavail", popen("apt-cache dumpavail 2>/dev/null", "re"), pclose);
    if (all.list.size() >= 100)
        return all;
    return read_from("/var/lib/dpkg/status", fopen("/var/lib/dpkg/status", "re"), fclose);
}
