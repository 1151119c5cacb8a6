// limits: what this process may use, and what services use.
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <map>

#include "shkvctl/common.h"
#include "shkvctl/listing.h"
#include "shkvctl/names.h"

namespace
{
struct Args {
    uint32_t uuid = 0;
    bool one = false;
};

struct Use {
    uint64_t stores = 0, bytes = 0;
};

std::map<uint32_t, Use> uses(const Args &args)
{
    std::map<uint32_t, Use> by_uuid;
    if (args.one)
        by_uuid[args.uuid];
    for (const Listed &store : registry_records()) {
        if (args.one && store.rec.reg_uuid != args.uuid)
            continue;
        Use &use = by_uuid[store.rec.reg_uuid];
        use.stores++;
        use.bytes += store.rec.reg_size;
    }
    return by_uuid;
}

std::string soft_limit()
{
    rlimit limit;
    if (getrlimit(RLIMIT_AS, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return "unlimited";
    return human_size(limit.rlim_cur);
}

void print_process()
{
    const char *env = getenv("SYSMGR_MMAP_LIMIT");
    struct statvfs shm = {};
    statvfs("/dev/shm", &shm);
    fmt::print(
        out(), "this process\n{}\nshared memory\n{}\n",
        table({{"  SYSMGR_MMAP_LIMIT", env ? escape(env) : "not set"},
               {"  one store", human_size(shkv_get_process_max_db_sz()) + " at most"},
               {"  one service", human_size(shkv_memory_limit_process) + " at most, all its stores together"},
               {"  address space", soft_limit()}}),
        table({{"  /dev/shm", human_size(shm.f_blocks * shm.f_frsize)},
               {"  free", human_size(shm.f_bavail * shm.f_frsize)}}));
}

int limits(const Args &args, const Context &ctx)
{
    work_out_limits();
    uint64_t budget = shkv_memory_limit_process;
    std::map<uint32_t, Use> by_uuid = uses(args);
    if (ctx.json) {
        Json services = Json::array();
        for (const auto &[uuid, use] : by_uuid) {
            services.push_back({{"uuid", uuid}, {"stores", use.stores}, {"bytes", use.bytes}});
            if (has_budget(uuid))
                services.back()["left"] = budget - std::min(budget, use.bytes);
        }
        print_json(
            {{"store_max", shkv_get_process_max_db_sz()}, {"service_max", budget}, {"services", services}});
        return EXIT_OK;
    }
    if (!args.one)
        print_process();
    std::vector<std::vector<std::string>> rows = {{"  SERVICE", ">STORES", ">USES", ">LEFT"}};
    for (const auto &[uuid, use] : by_uuid)
        rows.push_back({"  " + uuid_words(uuid), thousands(use.stores), human_size(use.bytes),
                        has_budget(uuid) ? human_size(budget - std::min(budget, use.bytes)) : "no budget"});
    fmt::print(out(), "services\n{}", rows.size() > 1 ? table(rows) : "  none has a store\n");
    return EXIT_OK;
}

Run setup(Arguments &app, Context &ctx)
{
    auto args = std::make_shared<Args>();
    Argument uuid = app.add_option("--uuid", args->uuid, "Only this service").type_name("N");
    return [args, uuid, &ctx] {
        args->one = uuid.given();
        return limits(*args, ctx);
    };
}
} // namespace

const Command cmd_limits = {
    "limits",
    nullptr,
    "Upkeep",
    "what this process may use, and what each service uses",
    "A store, and all stores of one service together, may take so much and no more; the limit comes\n"
    "from SYSMGR_MMAP_LIMIT (bytes, 4 MiB to 2 GiB; 32 MiB when it is not set) in the process that\n"
    "makes or fills a store. What a service uses is the sum of its stores in the registry.",
    {{"shkvctl limits", "this process, and all services"},
     {"shkvctl limits --uuid 4242", "one service"},
     {"SYSMGR_MMAP_LIMIT=268435456 shkvctl limits", "what a limit of 256 MiB gives"}},
    setup};
