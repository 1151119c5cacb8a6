// JSON, as commands print it for programs and read it from files. The library behind it is in
// json.cc alone: its header takes longer to compile than most of what would include it.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

class Json
{
  public:
    struct Member;
    using Array = std::vector<Json>;
    using Object = std::vector<std::pair<std::string, Json>>; // in the order of their adding

    Json(std::nullptr_t = nullptr);
    Json(bool value);
    Json(double value);
    Json(const char *text);
    Json(std::string_view text);
    Json(const std::string &text);
    Json(const std::vector<std::string> &texts);
    Json(std::initializer_list<Member> members); // {{"name", value}, ...}
    template <std::signed_integral T> Json(T value) : value_((int64_t)value) {}
    template <std::unsigned_integral T> Json(T value) : value_((uint64_t)value) {}
    Json(const Json &);
    Json(Json &&) noexcept;
    Json &operator=(const Json &);
    Json &operator=(Json &&) noexcept;
    ~Json();

    static std::optional<Json> parse(std::string_view text); // none: it is no JSON, or too deep
    const Json *find(std::string_view name) const;           // null when this is no object that has it
    const std::string *text() const;                         // null when this is no text
    const uint64_t *count() const;                           // null when this is no whole number from 0 on
    bool is_object() const;

    static Json array();
    static Json object();
    void push_back(Json value); // of an array
    Json &back();
    Json &operator[](std::string_view name); // of an object: a new member is null, at its end
    std::string dump() const;                // one line; bytes that are no UTF-8 come as U+FFFD

  private:
    friend struct Printer;
    std::variant<std::nullptr_t, bool, int64_t, uint64_t, double, std::string, Array, Object> value_;
};

struct Json::Member {
    const char *name;
    Json value;
};

// {"name": text}, or {"name_hex": hex} when the bytes are no text.
void json_put(Json &obj, const char *name, std::string_view bytes);
// What json_put has put there; false when neither member is.
bool json_take(const Json &obj, const char *name, std::string *bytes);
