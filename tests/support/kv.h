// A store in a test's hand: its handle, its head and its shared words, and what the library logged
// and traced about it.
#pragma once
#include <errno.h>
#include <stdlib.h>

#include "support/store.h"

struct kv {
    int handle = 0;

    shkv_head *head() const { return &shkv_db_heads[handle - 1]; }
    supernode *sn() const { return head()->sn; }
    bool md1() const { return sn()->comm_flg & CF_MD1; }
    int add(const std::string &key, const std::string &value) const { return put(handle, key, value); }
    int del(const std::string &key) const { return ::del(handle, key); }
    contents all() const { return iterate_all(handle); }
    char *ud() const { return (char *)head()->ud1_map->map[0]; }
    // By MD1: the word that a key's chain begins at, the record there, keys of one bucket.
    uint32_t bucket_of(const std::string &key) const
    {
        return head()->md1.hash_fn(key.data(), (uint32_t)key.size()) % sn()->md1.hashsz;
    }
    uint32_t *chain_of(const std::string &key) const { return &head()->md1.base[bucket_of(key)].first_ptr; }
    udn *first_of(const std::string &key) const { return (udn *)(ud() + *chain_of(key)); }
    std::vector<std::string> keys_in(uint32_t bucket, size_t cnt = 1) const
    {
        std::vector<std::string> keys;
        for (unsigned i = 0; keys.size() < cnt; i++)
            if (bucket_of("key" + std::to_string(i)) == bucket)
                keys.push_back("key" + std::to_string(i));
        return keys;
    }
    // The value, or "#" and the result.
    std::string at(const std::string &key) const
    {
        std::string value;
        int result = get(handle, key, &value);
        return result ? "#" + std::to_string(result) : value;
    }
};

inline std::string key_no(size_t i)
{
    return "k" + std::to_string(i);
}

inline kv make_kv(const char *name, shkv_params params, uint32_t uuid = 0)
{
    uint32_t err = 0;
    kv made = {shkv_create(name, uuid, &params, 0, &err)};
    EXPECT_GT(made.handle, 0) << name << " err " << err;
    return made;
}

inline kv open_kv(const char *name, uint32_t mode)
{
    kv opened = {open_store(name, mode)};
    EXPECT_GT(opened.handle, 0) << name;
    return opened;
}

// What the library writes to its log, from here to the end of the scope.
struct log_catcher {
    char *text = nullptr;
    size_t len = 0;

    log_catcher() { shkv_dbg_fp = open_memstream(&text, &len), shkv_dbg_en = 1; }
    ~log_catcher()
    {
        shkv_dbg_en = 0;
        fclose(shkv_dbg_fp);
        shkv_dbg_fp = nullptr;
        free(text);
    }
    std::string all() const { return std::string(text, len); }
    // The last line without its date.
    std::string last() const
    {
        std::string lines = all();
        size_t at = lines.rfind("\n20");
        return at == std::string::npos ? "" : lines.substr(at + 28);
    }
};

// The newest event of a store's ring; of a pair, both values.
struct last_event {
    uint32_t code, arg, arg2 = 0;

    explicit last_event(const supernode *sn)
    {
        const trace_ring *ring_p = (const trace_ring *)((const char *)sn + SHKV_PAGE_SIZE);
        const trace_rec *recs = (const trace_rec *)(ring_p + 1);
        uint32_t at = (ring_p->index + ring_p->count - 1) % ring_p->count;
        if (recs[at].code >> 24 == TRACE_PAIR2 >> 24) {
            arg2 = recs[at].arg;
            at = (at + ring_p->count - 1) % ring_p->count;
        }
        code = recs[at].code;
        arg = recs[at].arg;
    }
};
