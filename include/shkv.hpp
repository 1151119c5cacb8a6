// shkv.hpp - the interface of shkv.h for C++20: an owning handle, keys and values as string views,
// results that say what went wrong, a range over the records, a transaction that ends with its scope.
//
//     auto db = shkv::store::open("prices", 8, SHKV_AM_READ);
//     if (!db)
//         return fprintf(stderr, "%s\n", shkv::text(db.error())), 1;
//     char room[64];
//     if (auto price = db->get("apple", room))             // a string_view into room
//         fwrite(price->data(), 1, price->size(), stdout);
//     for (auto [key, value] : db->records())
//         ...
//
// Nothing here allocates, but for the get that returns a std::string and the range's buffers; nothing
// throws of its own accord; a call costs what the C call costs. What shkv.h says of a call holds for it:
// threads, fork, signals, limits. The C interface is the product, and handle() leads to all of it.
#ifndef SHKV_HPP
#define SHKV_HPP

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "shkv.h"

namespace shkv
{
// Results of the C interface, by name.
enum class status : int {
    ok = 0,
    not_found = 2,    // ENOENT
    bad_handle = 9,   // EBADF: or the store has been destroyed
    no_memory = 12,   // ENOMEM: full, over a limit, or a mapping out of step
    lock_failed = 14, // EFAULT
    exists = 17,      // EEXIST
    invalid = 22      // EINVAL: bad argument, refused, room too small, bad checksum
};

inline const char *text(status s)
{
    return s == status::ok ? "ok" : strerror(static_cast<int>(s));
}

// A value, or why there is none: much of std::expected<T, status>, which C++20 does not have yet. The value
// of a failed result is an empty T.
template <class T> class [[nodiscard]] result
{
  public:
    result(T value) : value_(std::move(value)) {}
    result(status error) : error_(error) {}
    bool has_value() const
    {
        return error_ == status::ok;
    }
    explicit operator bool() const
    {
        return has_value();
    }
    status error() const
    {
        return error_;
    }
    T &operator*()
    {
        return value_;
    }
    const T &operator*() const
    {
        return value_;
    }
    T *operator->()
    {
        return &value_;
    }
    const T *operator->() const
    {
        return &value_;
    }
    T value_or(T other) const
    {
        return has_value() ? value_ : std::move(other);
    }

  private:
    T value_{};
    status error_ = status::ok;
};

// Largest key and value that any store holds, in bytes.
inline constexpr uint32_t max_key = 2048, max_value = 65000, max_fixed_value = 2048;

// A length for the C interface. What does not fit stays too long for every store: it is refused, not cut.
inline uint32_t length(size_t bytes)
{
    return static_cast<uint32_t>(bytes < UINT32_MAX ? bytes : UINT32_MAX);
}

inline shkv_buf buf(std::string_view bytes)
{
    return {const_cast<char *>(bytes.data()), length(bytes.size())};
}

struct record {
    std::string_view key, value; // good until the range moves on
};

// The records of a store, in bucket order, one pass; not a snapshot (see shkv_iterate). One range of a
// handle at a time: the cursor belongs to the handle. error() says afterwards why it ended:
// status::not_found is the end of the records.
class record_range
{
  public:
    explicit record_range(int handle) : handle_(handle), room_(new char[max_key + max_value]) {}
    class iterator
    {
      public:
        using value_type = record;
        using difference_type = std::ptrdiff_t;
        using iterator_concept = std::input_iterator_tag;
        iterator() = default;
        explicit iterator(record_range *range) : range_(range) {}
        const record &operator*() const
        {
            return range_->at_;
        }
        const record *operator->() const
        {
            return &range_->at_;
        }
        iterator &operator++()
        {
            range_->next();
            return *this;
        }
        void operator++(int)
        {
            range_->next();
        }
        friend bool operator==(const iterator &it, std::default_sentinel_t)
        {
            return it.range_->error() != status::ok;
        }

      private:
        record_range *range_ = nullptr;
    };
    iterator begin()
    {
        error_ = static_cast<status>(shkv_iterate(handle_, nullptr, nullptr, nullptr, 1));
        if (error_ == status::ok)
            next();
        return iterator(this);
    }
    std::default_sentinel_t end() const
    {
        return {};
    }
    status error() const
    {
        return error_;
    }

  private:
    void next()
    {
        shkv_buf key = {room_.get(), max_key}, value = {room_.get() + max_key, max_value};
        error_ = static_cast<status>(shkv_iterate(handle_, &key, &value, nullptr, 0));
        at_ = {{room_.get(), key.len}, {room_.get() + max_key, value.len}};
    }
    int handle_;
    status error_ = status::ok;
    record at_;
    std::unique_ptr<char[]> room_;
};

// An open transaction: commit() applies it; otherwise the end of the scope drops what was staged.
class [[nodiscard]] transaction
{
  public:
    transaction() = default;
    explicit transaction(int handle) : handle_(handle) {}
    transaction(transaction &&from) noexcept : handle_(std::exchange(from.handle_, 0)) {}
    transaction &operator=(transaction &&) = delete;
    ~transaction()
    {
        if (handle_ != 0)
            shkv_txn_abort(handle_);
    }
    status commit()
    {
        return static_cast<status>(shkv_txn_commit(std::exchange(handle_, 0), nullptr));
    }
    status abort()
    {
        return static_cast<status>(shkv_txn_abort(std::exchange(handle_, 0)));
    }

  private:
    int handle_ = 0;
};

// An open store. The end of its scope closes the handle; the store stays. It moves and does not copy.
class store
{
  public:
    store() = default;
    explicit store(int handle) : handle_(handle) {} // takes an open handle over
    store(store &&from) noexcept : handle_(from.release()) {}
    store &operator=(store &&from) noexcept
    {
        if (this != &from)
            store(std::move(from)).swap(*this);
        return *this;
    }
    ~store()
    {
        if (handle_ != 0)
            shkv_close(handle_);
    }

    static result<store> create(const char *uri, uint32_t uuid,
                                const shkv_params &params = {16, 32, 2000, CONF_FIXEDMM, 0}, uint64_t hash = 0)
    {
        uint32_t err = 0;
        const int handle = shkv_create(uri, uuid, &params, hash, &err); // before err is read
        return adopt(handle, err);
    }
    static result<store> open(const char *uri, uint32_t uuid, uint32_t access_mode, uint64_t hash = 0)
    {
        uint32_t err = 0;
        const int handle = shkv_open(uri, uuid, hash, access_mode, &err);
        return adopt(handle, err);
    }

    int handle() const
    {
        return handle_;
    }
    int release()
    {
        return std::exchange(handle_, 0);
    }
    void swap(store &other) noexcept
    {
        std::swap(handle_, other.handle_);
    }
    status close()
    {
        return static_cast<status>(shkv_close(release()));
    }
    // Removes the store for everyone. Where it fails, the handle stays and the scope closes it.
    status destroy()
    {
        // A store that somebody else has destroyed is no failure either, but its handle stays open. Asked
        // first: afterwards the number may be another thread's.
        const shkv_buf key = buf("x");
        shkv_buf none = {nullptr, 0};
        const bool gone = shkv_lookup(handle_, &key, &none) == EBADF;
        const auto ended = static_cast<status>(shkv_destroy(handle_));
        if (ended != status::ok)
            return ended;
        const int handle = release();
        return gone ? static_cast<status>(shkv_close(handle)) : ended;
    }

    status add(std::string_view key, std::string_view value)
    {
        const shkv_buf key_buf = buf(key), value_buf = buf(value);
        return static_cast<status>(shkv_add(handle_, &key_buf, &value_buf, 0));
    }
    status erase(std::string_view key)
    {
        const shkv_buf key_buf = buf(key);
        return static_cast<status>(shkv_delete(handle_, &key_buf));
    }
    // The value, copied into room; status::invalid also when the room is too small.
    result<std::string_view> get(std::string_view key, std::span<char> room) const
    {
        const shkv_buf key_buf = buf(key);
        shkv_buf value = {room.data(), length(room.size())};
        const int got = shkv_lookup(handle_, &key_buf, &value);
        if (got != 0)
            return static_cast<status>(got);
        return std::string_view(room.data(), value.len);
    }
    // The value in a string of its own size.
    result<std::string> get(std::string_view key) const
    {
        if (shkv_get_smode(handle_) & CONF_VECTORMM)
            return to_string(get(key, {std::make_unique_for_overwrite<char[]>(max_value).get(), max_value}));
        char room[max_fixed_value];
        return to_string(get(key, room));
    }
    // A value that is the bytes of a T. status::invalid when the store holds another number of bytes.
    template <class T> result<T> get_as(std::string_view key) const
    {
        static_assert(std::is_trivially_copyable_v<T>);
        T out;
        const shkv_buf key_buf = buf(key);
        shkv_buf value = {&out, sizeof out};
        const int got = shkv_lookup(handle_, &key_buf, &value);
        if (got != 0)
            return static_cast<status>(got);
        if (value.len != sizeof out)
            return status::invalid;
        return out;
    }
    template <class T> status add_as(std::string_view key, const T &value)
    {
        static_assert(std::is_trivially_copyable_v<T>);
        return add(key, {reinterpret_cast<const char *>(&value), sizeof value});
    }
    record_range records() const
    {
        return record_range(handle_);
    }
    // expected: keys that it will stage, as shkv_txn_start takes it.
    result<transaction> begin(uint32_t expected)
    {
        const int got = shkv_txn_start(handle_, &expected);
        if (got != 0)
            return static_cast<status>(got);
        return transaction(handle_);
    }

  private:
    static result<std::string> to_string(result<std::string_view> value)
    {
        if (!value)
            return value.error();
        return std::string(*value);
    }
    static result<store> adopt(int handle, uint32_t err)
    {
        if (handle == 0)
            return err == 0 ? status::lock_failed : static_cast<status>(err);
        return store(handle);
    }
    int handle_ = 0;
};
} // namespace shkv

#endif
