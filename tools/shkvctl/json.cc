// Values for programs, and their text.
#include "shkvctl/json.h"

#include <nlohmann/json.hpp>

#include "shkvctl/text.h"

using Printed = nlohmann::ordered_json;

Json::Json(std::nullptr_t) : value_(nullptr) {}

Json::Json(bool value) : value_(value) {}

Json::Json(double value) : value_(value) {}

Json::Json(const char *text) : value_(std::string(text)) {}

Json::Json(std::string_view text) : value_(std::string(text)) {}

Json::Json(const std::string &text) : value_(text) {}

Json::Json(const std::vector<std::string> &texts) : value_(Array(texts.begin(), texts.end())) {}

Json::Json(std::initializer_list<Member> members) : value_(Object())
{
    for (const Member &member : members)
        std::get<Object>(value_).emplace_back(member.name, member.value);
}

Json::Json(const Json &) = default;
Json::Json(Json &&) noexcept = default;
Json &Json::operator=(const Json &) = default;
Json &Json::operator=(Json &&) noexcept = default;
Json::~Json() = default;

const Json *Json::find(std::string_view name) const
{
    if (const Object *members = std::get_if<Object>(&value_))
        for (const auto &[have, value] : *members)
            if (have == name)
                return &value;
    return nullptr;
}

const std::string *Json::text() const
{
    return std::get_if<std::string>(&value_);
}

const uint64_t *Json::count() const
{
    return std::get_if<uint64_t>(&value_);
}

bool Json::is_object() const
{
    return std::holds_alternative<Object>(value_);
}

Json Json::array()
{
    Json made;
    made.value_ = Array();
    return made;
}

Json Json::object()
{
    Json made;
    made.value_ = Object();
    return made;
}

void Json::push_back(Json value)
{
    std::get<Array>(value_).push_back(std::move(value));
}

Json &Json::back()
{
    return std::get<Array>(value_).back();
}

Json &Json::operator[](std::string_view name)
{
    if (const Json *there = find(name))
        return const_cast<Json &>(*there);
    return std::get<Object>(value_).emplace_back(name, nullptr).second;
}

// ---- From and to the library's own values ----

struct Printer {
    static Printed printed(const Json &value)
    {
        return std::visit(Printer(), value.value_);
    }
    Printed operator()(const Json::Array &values) const
    {
        Printed all = Printed::array();
        for (const Json &value : values)
            all.push_back(printed(value));
        return all;
    }
    Printed operator()(const Json::Object &members) const
    {
        Printed all = Printed::object();
        for (const auto &[name, value] : members)
            all[name] = printed(value);
        return all;
    }
    template <typename Plain> Printed operator()(const Plain &plain) const
    {
        return plain;
    }
};

static Json value_of(const Printed &parsed)
{
    Json made;
    switch (parsed.type()) {
    case Printed::value_t::object:
        made = Json::object();
        for (const auto &[name, value] : parsed.items())
            made[name] = value_of(value);
        return made;
    case Printed::value_t::array:
        made = Json::array();
        for (const Printed &value : parsed)
            made.push_back(value_of(value));
        return made;
    case Printed::value_t::string:
        return parsed.get_ref<const std::string &>();
    case Printed::value_t::boolean:
        return parsed.get<bool>();
    case Printed::value_t::number_integer:
        return parsed.get<int64_t>();
    case Printed::value_t::number_unsigned:
        return parsed.get<uint64_t>();
    case Printed::value_t::number_float:
        return parsed.get<double>();
    default:
        return made;
    }
}

std::optional<Json> Json::parse(std::string_view text)
{
    // What is nested deeper is never built: values are copied and destroyed by recursion.
    constexpr int depth_max = 64;
    bool too_deep = false;
    auto keep = [&](int depth, Printed::parse_event_t, Printed &) {
        too_deep |= depth > depth_max;
        return !too_deep;
    };
    Printed parsed = Printed::parse(text, keep, false);
    if (too_deep || parsed.is_discarded())
        return std::nullopt;
    return value_of(parsed);
}

std::string Json::dump() const
{
    return Printer::printed(*this).dump(-1, ' ', false, Printed::error_handler_t::replace);
}

void json_put(Json &obj, const char *name, std::string_view bytes)
{
    if (is_utf8(bytes))
        obj[name] = bytes;
    else
        obj[std::string(name) + "_hex"] = to_hex(bytes);
}

bool json_take(const Json &obj, const char *name, std::string *bytes)
{
    const Json *plain = obj.find(name), *hex = obj.find(std::string(name) + "_hex");
    if (plain && plain->text())
        *bytes = *plain->text();
    else if (hex && hex->text())
        *bytes = from_hex(*hex->text());
    else
        return false;
    return true;
}
