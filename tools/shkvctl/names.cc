// The names that people see for what is a number in a store.
#include "shkvctl/names.h"

#include <fmt/format.h>

#include <algorithm>

#include "shkv_format.h"

std::vector<std::string> hash_names()
{
    return {"rshash",  "jshash",  "pjwhash", "elfhash", "bkdrhash", "sdbmhash",
            "djbhash", "dekhash", "bphash",  "fnvhash", "aphash"};
}

std::string hash_list()
{
    std::string list;
    for (const std::string &name : hash_names())
        list += (list.empty() ? "" : ", ") + name;
    return list;
}

std::string hash_name(uint16_t hashfn)
{
    if (hashfn == SHKV_USER_HASHFN)
        return "the program's own";
    return hashfn < hash_names().size() ? hash_names()[hashfn] : fmt::format("unknown ({})", hashfn);
}

uint64_t hash_selector(const std::string &name)
{
    auto names = hash_names();
    return (uint64_t)(std::find(names.begin(), names.end(), name) - names.begin()) + 1;
}

const std::vector<BitName> comm_bits = {
    {CF_MD1, "CF_MD1", "table MD1 in force"},
    {CF_MD2, "CF_MD2", "table MD2 in force"},
    {CF_UD1, "CF_UD1", "record space UD1 in force"},
    {CF_UD2, "CF_UD2", "record space UD2 in force"},
    {MDO1N2, "MDO1N2", "moving from table MD1 to MD2"},
    {MDN1O2, "MDN1O2", "moving from table MD2 to MD1"},
    {UDO1N2, "UDO1N2", "moving from record space UD1 to UD2"},
    {UDN1O2, "UDN1O2", "moving from record space UD2 to UD1"},
    {CF_RESHAPE, "CF_RESHAPE", "reshape under way"},
    {CF_RESHAPE_DRAIN, "CF_RESHAPE_DRAIN", "reshape in its final check"},
    {CF_TXN, "CF_TXN", "transaction open"},
    {CF_DESTROYED, "CF_DESTROYED", "destroyed"},
    {CF_RESH_TOKEN1, "CF_RESH_TOKEN1", "reshape token held by service 0xf011"},
    {CF_RESH_TOKEN2, "CF_RESH_TOKEN2", "reshape token held by service 0xf012"},
    {CF_REFILL1, "CF_REFILL1", "table rebuild pending or under way"},
    {CF_REFILL2, "CF_REFILL2", "table rebuild pending or under way"},
    {CF_TXN_COMMIT, "CF_TXN_COMMIT", "commit being applied"},
};

const std::vector<BitName> conf_bits = {
    {CONF_FIXEDMM, "CONF_FIXEDMM", "records of fixed size"},
    {CONF_VECTORMM, "CONF_VECTORMM", "records of variable size"},
    {CONF_L3, "CONF_L3", "write-protected between writes"},
    {CONF_REG_1, "CONF_REG_1", "registry flag 0x10000"},
    {CONF_REG_2, "CONF_REG_2", "registry flag 0x20000"},
    {CONF_MULTIWR, "CONF_MULTIWR", "several writers at once"},
    {CONF_SHMAP, "CONF_SHMAP", "record space grows by chunks and never moves"},
};

const std::vector<BitName> sn_bits = {
    {SN_DBG_WR, "SN_DBG_WR", "debug writer attached"},
    {SN_WPROT, "SN_WPROT", "writes lift the record space's protection"},
};

std::vector<BitName> bits_set(uint32_t word, const std::vector<BitName> &table)
{
    std::vector<BitName> set;
    for (const BitName &bit : table)
        if (word & bit.bit)
            set.push_back(bit);
    return set;
}

std::string uuid_words(uint32_t uuid)
{
    static const struct {
        uint32_t uuid;
        const char *words;
    } known[] = {
        {UUID_NONE, "no budget"},          {UUID_REGISTRY, "the registry"}, {UUID_BIG_A, "limited per store"},
        {UUID_BIG_B, "limited per store"}, {UUID_RESHAPE1, "reshaping"},    {UUID_RESHAPE2, "reshaping"},
        {UUID_DEBUG, "debugging"},         {UUID_INTERNAL, "the library"},
    };
    for (const auto &k : known)
        if (k.uuid == uuid)
            return fmt::format("{} ({})", uuid, k.words);
    return std::to_string(uuid);
}
