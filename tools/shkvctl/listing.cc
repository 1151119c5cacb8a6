// The stores of this machine: what the registry lists, and what lies in shared memory unlisted.
#include "shkvctl/listing.h"

#include <dirent.h>
#include <string.h>

#include <algorithm>
#include <set>

#include "shkvctl/common.h"
#include "shkvctl/procs.h"
#include "shkvctl/raw_records.h"

std::vector<Listed> registry_records()
{
    std::vector<Listed> list;
    RawStore registry(SHKV_REGISTRY_NAME);
    if (!registry.complete())
        return list;
    WalkAll walk;
    walk.visit = [&](const std::string &key, const std::string &value) {
        Listed store;
        store.uri = key;
        memcpy(&store.rec, value.data(), std::min(value.size(), sizeof store.rec));
        list.push_back(store);
        return true;
    };
    walk_records(registry, walk);
    return list;
}

static std::vector<std::string> supernodes()
{
    std::vector<std::string> names;
    DIR *dir = opendir(SHKV_DB_DIR);
    for (dirent *entry; dir && (entry = readdir(dir));)
        if (entry->d_name[0] != '.' || strlen(entry->d_name) > 2)
            names.push_back(entry->d_name);
    if (dir)
        closedir(dir);
    return names;
}

std::vector<Listed> all_stores()
{
    std::vector<Listed> list = registry_records();
    std::set<std::string> known = {SHKV_REGISTRY_NAME};
    std::erase_if(list, [](const Listed &store) { return store.uri == SHKV_REGISTRY_NAME; });
    for (const Listed &store : list)
        known.insert(dbname_of(store.uri));
    for (const std::string &name : supernodes())
        if (!known.contains(name))
            list.push_back({name, false, {}});
    std::sort(list.begin(), list.end(), [](const Listed &a, const Listed &b) { return a.uri < b.uri; });
    return list;
}

std::string state_words(const RawStore &store)
{
    if (!store.exists())
        return "gone";
    if (!store.complete())
        return "not complete";
    for (int kind : {OBJ_MD1, OBJ_MD2, OBJ_UD1, OBJ_UD2, OBJ_MD_TXN})
        if (store.object(kind).error)
            return std::string("lost ") + object_name(kind);
    if (obstacle(store))
        return "damaged";
    if (store.is(CF_DESTROYED))
        return "destroyed";
    if (store.is(CF_RESHAPE | MDO1N2 | MDN1O2))
        return "reshaping";
    if (store.is(CF_TXN_COMMIT))
        return "commit cut short";
    if (store.is(CF_TXN))
        return "transaction open";
    if (store.sn().iodb_mark >> 8 == IODB_LIVE)
        return "batch cut short";
    if (store.is(CF_RESH_TOKEN1 | CF_RESH_TOKEN2))
        return "reshape token held";
    if (store.is(CF_REFILL1 | CF_REFILL2))
        return "rebuild pending";
    return store.dbname().ends_with(SHKV_IODB_SUFFIX) ? "undo log" : "ok";
}

std::string writer_words(const RawStore &store)
{
    if (!store.complete())
        return "-";
    const supernode &sn = store.sn();
    if (!(sn.conf_flg & CONF_MULTIWR)) {
        uint32_t tid = sn.wr_tid[0];
        return tid == 0            ? "-"
               : thread_lives(tid) ? fmt::format("{} ({})", tid, thread_name(tid))
                                   : fmt::format("dead {}", tid);
    }
    auto live = std::count_if(std::begin(sn.wr_tid), std::end(sn.wr_tid),
                              [](uint32_t tid) { return tid != 0 && thread_lives(tid); });
    return live ? count_of((uint64_t)live, "writer") : "-";
}
