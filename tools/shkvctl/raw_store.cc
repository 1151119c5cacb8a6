// A store as bytes, read-only: mapping, checked reads, the walk of a table.
#include "shkvctl/raw_store.h"

#include <fcntl.h>
#include <setjmp.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "shkv.h"

// ---- The guard: a fault in guarded_copy comes back as false; any other is the library's ----

static thread_local sigjmp_buf copy_jmp;
static thread_local volatile sig_atomic_t copying;

static void on_sigbus(int sig)
{
    if (!copying)
        return shkv_sigbus_handler(sig);
    copying = 0;
    siglongjmp(copy_jmp, 1);
}

static void install_guard()
{
    static const bool installed = [] {
        struct sigaction action = {};
        action.sa_handler = on_sigbus;
        action.sa_flags = SA_NODEFER; // left by a jump: the signal must not stay blocked
        return sigaction(SIGBUS, &action, nullptr) == 0;
    }();
    (void)installed;
}

static bool guarded_copy(void *dst, const void *src, size_t len)
{
    if (sigsetjmp(copy_jmp, 0))
        return false;
    copying = 1;
    __asm__ volatile("" ::: "memory");
    memcpy(dst, src, len);
    __asm__ volatile("" ::: "memory");
    copying = 0;
    return true;
}

// ---- The store ----

const char *object_name(int kind)
{
    static const char *const names[] = {"?", "MD1", "MD2", "UD1", "UD2", "supernode", "MD_TXN"};
    return names[kind >= OBJ_MD1 && kind <= OBJ_MD_TXN ? kind : 0];
}

std::string RawStore::path(const std::string &dbname, int kind)
{
    static const char *const suffixes[] = {"", "_md1", "_md2", "_ud1", "_ud2", "", "_md_txn"};
    return std::string(kind == OBJ_SN ? SHKV_DB_DIR : SHKV_MU_DIR) + "/" + dbname + suffixes[kind];
}

// Which pages of an object hold data. A read of a hole through a mapping would make the page, in
// memory that is the store's; a hole is read through the descriptor instead, which makes nothing.
static void find_data(RawObject *obj)
{
    uint64_t page = (uint64_t)sysconf(_SC_PAGESIZE);
    obj->data.assign((obj->file + page - 1) / page, false);
    for (off_t at = 0, end; (at = lseek(obj->fd, at, SEEK_DATA)) >= 0; at = end) {
        end = lseek(obj->fd, at, SEEK_HOLE);
        for (uint64_t p = (uint64_t)at / page; end > at && p < obj->data.size() && p * page < (uint64_t)end;
             p++)
            obj->data[p] = true;
        if (end <= at)
            break;
    }
}

RawStore::RawStore(const std::string &dbname) : dbname_(dbname)
{
    install_guard();
    refresh();
}

RawStore::~RawStore()
{
    for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++) {
        unmap(kind);
        if (objects_[kind].fd >= 0)
            close(objects_[kind].fd);
    }
}

void RawStore::map(int kind)
{
    RawObject &obj = objects_[kind];
    if (obj.fd < 0)
        obj.fd = open(path(dbname_, kind).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    obj.error = obj.fd < 0 ? errno : 0;
    struct stat st;
    if (obj.fd < 0 || fstat(obj.fd, &st) != 0 || st.st_size <= 0)
        return;
    void *base = mmap(nullptr, (size_t)st.st_size, PROT_READ, MAP_SHARED, obj.fd, 0);
    if (base == MAP_FAILED) {
        obj.error = errno;
        return;
    }
    obj.base = static_cast<const uint8_t *>(base);
    obj.file = obj.size = (uint64_t)st.st_size;
    find_data(&obj);
    if (kind == OBJ_SN) { // the trace ring fills its last page, past the end of the file
        uint64_t page = (uint64_t)sysconf(_SC_PAGESIZE);
        obj.size = (obj.file + page - 1) / page * page;
    }
}

void RawStore::unmap(int kind)
{
    RawObject &obj = objects_[kind];
    if (obj.base)
        munmap(const_cast<uint8_t *>(obj.base), obj.size);
    obj.base = nullptr;
    obj.size = obj.file = 0;
    obj.data.clear();
}

uint64_t RawStore::length_now(int kind) const
{
    struct stat st;
    return objects_[kind].fd >= 0 && fstat(objects_[kind].fd, &st) == 0 ? (uint64_t)st.st_size : 0;
}

// An object is made longer before its descriptor says so: when no length has moved since the
// mapping, the mappings cover what the supernode promises.
void RawStore::refresh()
{
    for (int round = 0; round < 20; round++) {
        bool moved = false;
        for (int kind = OBJ_MD1; kind <= OBJ_MD_TXN; kind++) {
            if (objects_[kind].fd >= 0 && length_now(kind) == objects_[kind].file)
                continue;
            unmap(kind);
            map(kind);
            moved |= objects_[kind].fd >= 0;
        }
        read(OBJ_SN, 0, &sn_);
        if (round > 0 && !moved)
            return;
    }
}

bool RawStore::read(int kind, uint64_t off, void *dst, size_t len) const
{
    const RawObject &obj = objects_[kind];
    if (!obj.base || off > obj.size || len > obj.size - off)
        return false;
    static const uint64_t page = (uint64_t)sysconf(_SC_PAGESIZE);
    for (uint64_t p = off / page; len > 0 && p <= (off + len - 1) / page && p < obj.data.size(); p++)
        if (!obj.data[p])
            return pread(obj.fd, dst, len, (off_t)off) == (ssize_t)len;
    return guarded_copy(dst, obj.base + off, len);
}

bool RawStore::complete() const
{
    return exists() && objects_[OBJ_SN].size >= sizeof(supernode) && sn_.magichead != 0 &&
           (sn_.magichead ^ sn_.magictail) == UINT32_MAX;
}

int RawStore::active_md() const
{
    return is(MDO1N2) ? OBJ_MD1 : is(MDN1O2) ? OBJ_MD2 : is(CF_MD1) ? OBJ_MD1 : is(CF_MD2) ? OBJ_MD2 : 0;
}

int RawStore::active_ud() const
{
    return is(UDO1N2) ? OBJ_UD1 : is(UDN1O2) ? OBJ_UD2 : is(CF_UD1) ? OBJ_UD1 : is(CF_UD2) ? OBJ_UD2 : 0;
}

const md_desc &RawStore::md(int kind) const
{
    return kind == OBJ_MD1 ? sn_.md1 : kind == OBJ_MD2 ? sn_.md2 : sn_.md_txn;
}

const ud_desc &RawStore::ud(int kind) const
{
    return kind == OBJ_UD1 ? sn_.ud1 : sn_.ud2;
}

// ---- The walk ----

// A record starts at a node: behind the header, on a multiple of the node size, and whole.
static bool is_node(const sbm &space, uint64_t size, uint32_t off)
{
    return off >= space.dn_base && space.dn_sz >= sizeof(udn) && (off - space.dn_base) % space.dn_sz == 0 &&
           (uint64_t)off + space.dn_sz <= size;
}

WalkResult walk_table(const RawStore &store, int md, uint32_t buckets, Link link, int ud,
                      const std::function<bool(const RawRecord &)> &visit)
{
    WalkResult result;
    sbm space;
    if (!store.read(ud, 0, &space) || space.dn_sz < sizeof(udn))
        return result;
    uint64_t size = store.object(ud).size, most = size / space.dn_sz;
    for (uint32_t bucket = 0; bucket < buckets; bucket++) {
        mdn entry;
        if (!store.read(md, (uint64_t)bucket * sizeof entry, &entry)) {
            result.broken++;
            return result;
        }
        for (uint32_t off = entry.first_ptr; off != 0;) {
            RawRecord rec = {bucket, off, {}};
            if (result.records >= most || !is_node(space, size, off) || !store.read(ud, off, &rec.head)) {
                result.broken++;
                break;
            }
            result.records++;
            if (!visit(rec)) {
                result.stopped = true;
                return result;
            }
            off = link == LINK_MD1 ? rec.head.md1_next : rec.head.md2_next;
        }
    }
    return result;
}
