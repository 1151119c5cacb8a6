// The table of events against the library's sources: every failure site has its row, with its
// message and its class, and no row speaks of a site that has gone. docs/events.md is made from
// the table; RENEW=1 writes it.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "shkvctl/events.h"

namespace
{
std::string read_text(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A message with single spaces and no line end: the gaps in some are no matter here.
std::string plain(std::string text)
{
    text = std::regex_replace(text, std::regex("\\\\n"), "");
    text = std::regex_replace(text, std::regex(" +"), " ");
    return std::regex_replace(text, std::regex("^ | $"), "");
}

// All sources without comments, with the parts of a text in one piece.
std::string sources()
{
    std::string all;
    for (const auto &file : std::filesystem::recursive_directory_iterator(SHKV_SOURCE_DIR "/shared/src"))
        if (file.path().extension() == ".cc" && file.path().parent_path().filename() != "diag")
            all += read_text(file.path());
    all = std::regex_replace(all, std::regex("//[^\n]*"), "");
    return std::regex_replace(all, std::regex("\"\\s*\n\\s*\""), "");
}

// The arguments of the call whose bracket opens at at.
std::vector<std::string> arguments(const std::string &text, size_t at)
{
    std::vector<std::string> args(1);
    int depth = 0;
    for (bool quoted = false; at < text.size(); at++) {
        char c = text[at];
        quoted ^= c == '"';
        depth += quoted ? 0 : (c == '(' || c == '{') - (c == ')' || c == '}');
        if (depth == 0)
            break;
        if (c == ',' && depth == 1 && !quoted)
            args.emplace_back();
        else if (depth > 1 || quoted || c != '(')
            args.back() += c;
    }
    for (std::string &arg : args)
        arg = plain(std::regex_replace(arg, std::regex("\\s+"), " "));
    return args;
}

struct Site {
    std::vector<uint32_t> ids; // none: the caller gives it
    bool pair;
    std::vector<std::string> texts; // none: the caller gives it, or there is no message
};

std::vector<Site> sites_of(const std::string &text)
{
    std::vector<Site> sites;
    std::regex call("\\b(fail|fail_err|fail_pair|trace_one|trace_pair)\\("), id("0x([0-9A-Fa-f]+)"),
        quoted("\"((?:[^\"\\\\]|\\\\.)*)\"");
    for (std::sregex_iterator at(text.begin(), text.end(), call), end; at != end; ++at) {
        auto args = arguments(text, (size_t)(at->position() + at->length()) - 1);
        bool pair = at->str(1).ends_with("pair"), traced = at->str(1).starts_with("trace");
        size_t format = pair || at->str(1) == "fail_err" ? 5 : 4;
        if (args.size() < 3 || args[0] == "nullptr" || args[1] == "0")
            continue;
        Site site = {{}, pair, {}};
        for (std::sregex_iterator num(args[1].begin(), args[1].end(), id); num != end; ++num)
            site.ids.push_back((uint32_t)std::stoul(num->str(1), nullptr, 16));
        for (size_t i = format; !traced && i == format && i < args.size(); i++)
            for (std::sregex_iterator part(args[i].begin(), args[i].end(), quoted); part != end; ++part)
                if (part->str(1) != "%s")
                    site.texts.push_back(plain(part->str(1)));
        sites.push_back(site);
    }
    return sites;
}

TEST(events, table_and_sources_tell_the_same)
{
    const std::string text = sources(), plain_text = plain(text);
    std::map<uint32_t, std::set<std::string>> by_id;
    std::set<uint32_t> literals;
    const std::regex literal("\\b0x[0-9A-Fa-f]{2}\\b");
    for (std::sregex_iterator at(text.begin(), text.end(), literal), end; at != end; ++at)
        literals.insert((uint32_t)std::stoul(at->str(), nullptr, 16));
    size_t from_callers = 0;
    for (const Site &site : sites_of(text)) {
        from_callers += site.ids.empty();
        for (size_t i = 0; i < site.ids.size(); i++) {
            const Event *event = find_event(site.ids[i]);
            ASSERT_TRUE(event) << fmt::format("{:#x}", site.ids[i]);
            EXPECT_EQ(site.pair, event->second.kind != ValueKind::NONE) << fmt::format("{:#x}", event->id);
            if (site.ids.size() > 1 && site.texts.size() == site.ids.size())
                by_id[event->id].insert(site.texts[i]);
            else
                by_id[event->id].insert(site.texts.begin(), site.texts.end());
        }
    }
    // Sites that get their event from a caller: the supernode's object, a mapping, a directory, a
    // record's checksum, and the two of an object that does not open. One more needs rows by hand.
    EXPECT_EQ(from_callers, 6u);
    EXPECT_EQ(events().size(), 152u);
    for (const Event &event : events()) {
        SCOPED_TRACE(fmt::format("{:#x}", event.id));
        EXPECT_TRUE(literals.contains(event.id));
        auto texts = event_texts(event);
        for (const std::string &message : by_id[event.id])
            EXPECT_NE(std::find(texts.begin(), texts.end(), message), texts.end()) << message;
        for (const std::string &message : texts)
            EXPECT_TRUE(message[0] == '(' || plain_text.find("\"" + message) != std::string::npos) << message;
        const std::regex word("\\w+");
        for (std::cregex_iterator at(event.functions, event.functions + strlen(event.functions), word), end;
             at != end; ++at)
            EXPECT_NE(text.find(at->str() + "("), std::string::npos) << at->str();
    }
    EXPECT_EQ(find_event(0), nullptr);
    EXPECT_EQ(find_event(0xf5), nullptr);
}

std::string page()
{
    std::string text = "# Events\n\n"
                       "Every failure writes an event into the ring of its store and, when the log is on, a "
                       "line into the log of\n"
                       "its process. `shkvctl trace STORE` shows the ring, `shkvctl trace --list` this table. "
                       "A create that fails\n"
                       "before its supernode is there has no ring to write to, and is in the log alone. Runs "
                       "of spaces in messages\n"
                       "are written as one here.\n\n| Severity | |\n|---|---|\n";
    for (int sev = 0; sev <= (int)Severity::DAMAGE; sev++)
        text += fmt::format("| {} | {} |\n", severity_name((Severity)sev), severity_words((Severity)sev));
    text += "\nA record's `code` is 0x01 in the top byte and the event below it; an event with two values "
            "takes two\n"
            "records, 0x03 and 0x04. Several messages: several places of the function share the event.\n\n"
            "| Event | Severity | Function | Messages | Value | Second value |\n|---|---|---|---|---|---|\n";
    for (const Event &event : events()) {
        std::string messages;
        for (const std::string &message : event_texts(event))
            messages += (messages.empty() ? "" : "<br>") + (message[0] == '(' ? message : "`" + message + "`");
        text += fmt::format("| {:#04X} | {} | {} | {} | {} | {} |\n", event.id, severity_name(event.severity),
                            std::regex_replace(event.functions, std::regex("\\w+"), "`$&`"), messages,
                            event.value.words, event.second.words);
    }
    return std::regex_replace(text, std::regex("\\b0X"), "0x");
}

TEST(events, the_page_is_what_the_table_says)
{
    const char *path = SHKV_SOURCE_DIR "/docs/events.md";
    if (getenv("RENEW"))
        std::ofstream(path) << page();
    EXPECT_EQ(read_text(path), page()) << "renew it with: ./dev renew";
}
} // namespace
