// A store's handle: opening with clear errors, the operations, and what a refusal means.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>

#include "shkvctl/common.h"
#include "shkvctl/procs.h"
#include "shkvctl/raw_records.h"

std::string dbname_of(const std::string &uri)
{
    char name[SHKV_NAME_MAX + 1] = "";
    shkv_uri2dbname(uri.c_str(), name, SHKV_NAME_MAX);
    if (strcmp(name, "") == 0 || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        throw Failure::usage("'{}' names no store", uri);
    return name;
}

bool registry_exists()
{
    struct stat st;
    return stat(SHKV_DB_DIR "/" SHKV_REGISTRY_NAME, &st) == 0;
}

void work_out_limits()
{
    static bool done;
    if (done)
        return;
    done = true;
    // Refused for its key size of 0 right after the limits, before it touches anything.
    shkv_params none = {0, 0, 0, CONF_FIXEDMM, 0};
    uint32_t err = 0;
    shkv_create("limits", UUID_REGISTRY, &none, 0, &err);
}

bool has_budget(uint32_t uuid)
{
    return uuid != UUID_NONE && uuid != UUID_BIG_A && uuid != UUID_BIG_B && uuid != UUID_REGISTRY;
}

// ---- Why a store does not open ----

// The library's own log while it lives, in memory: its last line is the reason of a refusal that
// nothing else explains. Off when the log goes to a file.
class LibraryWords
{
  public:
    LibraryWords()
    {
        if (shkv_dbg_en || !(shkv_dbg_fp = open_memstream(&text_, &size_)))
            return;
        mine_ = true;
        shkv_dbg_unformat = 0;
        shkv_dbg_en = 1;
    }
    ~LibraryWords()
    {
        last();
    }
    LibraryWords(const LibraryWords &) = delete;

    std::string last()
    {
        if (!mine_)
            return words_;
        mine_ = false;
        shkv_debug_off(0);
        std::string log(text_, size_);
        free(text_);
        constexpr size_t stamp = sizeof "2024-01-31 12:00:00.000000"; // and the space behind it
        size_t line = log.rfind('\n');
        if (line != std::string::npos && log.size() > line + 1 + stamp)
            words_ = log.substr(line + 1 + stamp);
        return words_;
    }

  private:
    char *text_ = nullptr;
    size_t size_ = 0;
    bool mine_ = false;
    std::string words_;
};

static Failure no_store(const std::string &uri, const RawStore &raw)
{
    int err = raw.object(OBJ_SN).error;
    if (err != ENOENT)
        return {EXIT_ERROR, err, fmt::format("store '{}' cannot be read: {}", uri, strerror(err))};
    return {EXIT_ERROR, ENOENT, fmt::format("store '{}' does not exist", uri),
            fmt::format("see all stores with: shkvctl ls; make it with: shkvctl create {}", uri)};
}

void check_readable(const std::string &uri, const RawStore &raw)
{
    if (!raw.exists())
        throw no_store(uri, raw);
    auto found = obstacle(raw);
    if (!found)
        return;
    std::string save =
        found->readable ? fmt::format("save what can be read with: shkvctl dump {} FILE; ", uri) : "";
    throw Failure(EXIT_ERROR, found->err, fmt::format("store '{}' {}", uri, found->words),
                  save + fmt::format("remove it with: shkvctl destroy --force {}", uri));
}

Failure damage(const std::string &uri, const WalkSum &sum)
{
    std::string what = sum.damaged ? count_of(sum.damaged, "damaged record") : "";
    if (sum.cut_chains)
        what +=
            (what.empty() ? "the rest of " : " and the rest of ") + count_of(sum.cut_chains, "broken chain");
    return {EXIT_ERROR, EINVAL, fmt::format("store '{}': left out {}; the first: {}", uri, what, sum.fault),
            fmt::format("see: shkvctl check {}", uri)};
}

Failure open_failure(const std::string &uri, bool write, uint32_t err, const std::string &words)
{
    RawStore raw(dbname_of(uri));
    try {
        check_readable(uri, raw);
    } catch (const Failure &failure) {
        return failure;
    }
    const supernode &sn = raw.sn();
    if (write && raw.is(MDO1N2 | MDN1O2))
        return {EXIT_ERROR, (int)err, fmt::format("store '{}' is being reshaped and takes no new writer", uri),
                fmt::format("see how far it is with: shkvctl stat {}", uri)};
    uint32_t tid = sn.wr_tid[0];
    if (write && !(sn.conf_flg & CONF_MULTIWR) && tid != 0 && tid != (uint32_t)gettid() && thread_lives(tid))
        return {EXIT_ERROR, (int)err, fmt::format("store '{}' has a writer: {}", uri, thread_words(tid)),
                "a store has one writer at a time; try again when it has closed or ended"};
    if (raw.md(raw.active_md()).hashfn == SHKV_USER_HASHFN)
        return {
            EXIT_ERROR, (int)err, fmt::format("store '{}' uses a hash function of its program's own", uri),
            fmt::format("only a program that passes this function can open it; shkvctl stat {} shows its state",
                        uri)};
    if (write && err == ENOENT && !registry_exists())
        return {EXIT_ERROR, (int)err,
                fmt::format("store '{}' cannot be opened for writing: the registry is missing", uri),
                "the next create makes it again"};
    return {EXIT_ERROR, (int)err,
            fmt::format("store '{}' does not open: {}{}{}", uri, errno_words((int)err),
                        words.empty() ? "" : "; the library says: ", words)};
}

void refuse_registry(const std::string &uri)
{
    if (dbname_of(uri) == SHKV_REGISTRY_NAME)
        throw Failure::usage("'{}' is the registry, which only the library changes", uri);
}

static const std::string &may_open(const std::string &uri, Store::Mode mode)
{
    if (mode == Store::WRITE)
        refuse_registry(uri);
    return uri;
}

Store::Store(const std::string &uri, Mode mode)
    : Store(may_open(uri, mode), UUID_NONE, mode == WRITE ? SHKV_AM_WRITE : SHKV_AM_READ)
{
}

Store::Store(const std::string &uri, uint32_t uuid, uint32_t access_mode) : uri_(uri)
{
    check_readable(uri, RawStore(dbname_of(uri)));
    bool write = (access_mode & (SHKV_AM_WRITE | SHKV_AM_WPROT)) != 0;
    if (write)
        work_out_limits();
    LibraryWords words;
    uint32_t err = 0;
    handle_ = shkv_open(uri.c_str(), uuid, 0, access_mode, &err);
    if (handle_ <= 0 || !check_shkv_hdl(handle_))
        throw open_failure(uri, write, err, words.last());
}

Store::~Store()
{
    if (handle_ > 0)
        shkv_close(handle_);
}

int Store::release()
{
    int handle = handle_;
    handle_ = 0;
    return handle;
}

// ---- Operations ----

Failure Store::failure(const std::string &doing, int err) const
{
    const supernode &s = sn();
    std::string name = fmt::format("store '{}'", uri_);
    if (s.comm_flg & CF_DESTROYED)
        return {EXIT_ERROR, err, name + " has been destroyed by another process"};
    if (s.sn_flg & SN_DBG_WR)
        return {EXIT_ERROR, err,
                name + " has a debug writer attached, and takes no other write until that closes"};
    if (err == ENOMEM && !s.auto_rz)
        return {EXIT_ERROR, err, name + " is full, and does not grow by itself",
                s.conf_flg & CONF_MULTIWR
                    ? "a store with several writers keeps its size; make a larger one"
                    : fmt::format("let it grow with: shkvctl set-opts {} --grow on", uri_)};
    if (err == ENOMEM)
        return {EXIT_ERROR, err,
                fmt::format("{} is full, and may not grow: this process is allowed {}", name,
                            human_size(shkv_get_process_max_db_sz())),
                "set SYSMGR_MMAP_LIMIT to a larger number of bytes (2147483648 at most), see: shkvctl limits"};
    return {EXIT_ERROR, err, fmt::format("{}: cannot {}: {}", name, doing, errno_words(err))};
}

Failure Store::lookup_failure(const std::string &key, int err) const
{
    Failure other = failure(fmt::format("look up '{}'", escape(key)), err);
    if ((err != EINVAL && err != ENOMEM) || (sn().comm_flg & CF_DESTROYED))
        return other;
    return {EXIT_ERROR, err,
            fmt::format("store '{}': the record or the chain of '{:.40}' is damaged ({})", uri_, escape(key),
                        errno_words(err)),
            fmt::format("see: shkvctl check {}", uri_)};
}

bool Store::lookup(const std::string &key, std::string *value) const
{
    value->resize(UINT16_MAX);
    shkv_buf k = buf_of(key), v = buf_of(*value);
    int err = shkv_lookup(handle_, &k, &v);
    if (err != 0 && err != ENOENT)
        throw lookup_failure(key, err);
    value->resize(err == 0 ? v.len : 0);
    return err == 0;
}

void check_sizes(const std::string &uri, const supernode &sn, const std::string &key, const std::string &value)
{
    bool fixed = (sn.conf_flg & CONF_MM_MASK) == CONF_FIXEDMM;
    uint32_t key_max = fixed ? sn.maxksz : MAX_KEY, val_max = fixed ? sn.maxvsz : MAX_VALUE;
    if (key.empty())
        throw Failure(EXIT_ERROR, EINVAL, "a key has at least one byte");
    if (key.size() > key_max)
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("key '{:.40}' has {}, and store '{}' takes {} at most", escape(key),
                                  count_of(key.size(), "byte"), uri, key_max),
                      fixed ? "the store has records of fixed size; see create --vector and --key-max" : "");
    if (value.size() > val_max)
        throw Failure(EXIT_ERROR, EINVAL,
                      fmt::format("the value of '{:.40}' has {}, and store '{}' takes {} at most", escape(key),
                                  count_of(value.size(), "byte"), uri, val_max),
                      fixed ? "the store has records of fixed size; see create --vector and --value-max" : "");
}

void Store::check_sizes(const std::string &key, const std::string &value) const
{
    ::check_sizes(uri_, sn(), key, value);
}

void Store::add(const std::string &key, const std::string &value) const
{
    check_sizes(key, value);
    shkv_buf k = buf_of(key), v = buf_of(value);
    int err = shkv_add(handle_, &k, &v, 0);
    if (err != 0)
        throw failure(fmt::format("store '{}'", escape(key)), err);
}

bool Store::remove(const std::string &key) const
{
    shkv_buf k = buf_of(key);
    int err = shkv_delete(handle_, &k);
    if (err != 0 && err != ENOENT)
        throw failure(fmt::format("delete '{}'", escape(key)), err);
    return err == 0;
}
