// The events that a store's ring can hold, as people read them: which function writes one, what it
// says in the log at the same place, how grave it is and what its value means.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

enum class Severity { NOTE, CALLER, REFUSED, LIMIT, SYSTEM, DAMAGE };

enum class ValueKind { NONE, HANDLE, UUID, ERRNO, RESULT, BYTES, COUNT, FLAGS, OFFSET, NUMBER };

struct EventValue {
    ValueKind kind = ValueKind::NONE;
    const char *words = "";
};

struct Event {
    uint32_t id;
    Severity severity;
    const char *functions;    // one, or a function and its close variants
    EventValue value, second; // second: of an event that takes a pair of records
    const char *texts;        // all messages of its sites, '|' between them; in brackets: there is none
};

std::span<const Event> events();          // by id
const Event *find_event(uint32_t id);     // null: no event of this library
const char *severity_name(Severity sev);  // "refused"
const char *severity_words(Severity sev); // what that means and what to do, a sentence or two
std::vector<std::string> event_texts(const Event &event);

std::string value_words(const EventValue &value, uint32_t number); // "handle 3", "ENOMEM", "0x405"
