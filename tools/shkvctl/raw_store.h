// A store as bytes: maps the six objects read-only by the format header, without the library, so
// that a store can be looked into whatever its state and whoever writes to it. It stores nothing
// and takes no lock. Every read is checked against the mapping and guarded against pages that go
// away under it (a writer cuts objects short), so a read fails and never faults. What comes back
// from a store in use is a set of words read one after the other, not a snapshot.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "shkv_format.h"

struct RawObject {
    int fd = -1;
    const uint8_t *base = nullptr;
    uint64_t size = 0;      // readable bytes: the file's when it was mapped; of a supernode, whole pages
    uint64_t file = 0;      // length of the file when it was mapped
    int error = 0;          // errno of the open, when there is no such object
    std::vector<bool> data; // pages that held data when it was mapped; the others are read as they are
};

class RawStore
{
  public:
    // Opens what there is under this name; a missing object stays missing (see object().error).
    explicit RawStore(const std::string &dbname);
    ~RawStore();
    RawStore(const RawStore &) = delete;

    const std::string &dbname() const
    {
        return dbname_;
    }
    static std::string path(const std::string &dbname, int kind); // in the file system
    const RawObject &object(int kind) const
    {
        return objects_[kind];
    }

    bool exists() const
    {
        return objects_[OBJ_SN].fd >= 0;
    }
    bool complete() const; // exists, long enough, and both magic words are in place

    // The supernode as it was at construction or at the last refresh, which also maps anew what
    // has changed its length since.
    const supernode &sn() const
    {
        return sn_;
    }
    void refresh();
    uint64_t length_now(int kind) const; // of the file, 0 of one that is not there

    bool read(int kind, uint64_t off, void *dst, size_t len) const;
    template <typename T> bool read(int kind, uint64_t off, T *dst) const
    {
        return read(kind, off, dst, sizeof *dst);
    }

    uint16_t mm_mode() const
    {
        return sn_.conf_flg & CONF_MM_MASK;
    }
    bool is(uint32_t comm_bits) const
    {
        return (sn_.comm_flg & comm_bits) != 0;
    }
    int active_md() const; // OBJ_MD1, OBJ_MD2, or 0; the old one in a reshape
    int active_ud() const;
    int other_md() const
    {
        return active_md() == OBJ_MD1 ? OBJ_MD2 : OBJ_MD1;
    }
    int other_ud() const
    {
        return active_ud() == OBJ_UD1 ? OBJ_UD2 : OBJ_UD1;
    }
    const md_desc &md(int kind) const;
    const ud_desc &ud(int kind) const;

  private:
    void map(int kind);
    void unmap(int kind);

    std::string dbname_;
    RawObject objects_[OBJ_MD_TXN + 1];
    supernode sn_ = {};
};

const char *object_name(int kind); // "MD1", "UD2", "supernode"

// Which of a record's two links the chains of a table run through.
enum Link { LINK_MD1, LINK_MD2 };

// A record as a walk meets it.
struct RawRecord {
    uint32_t bucket, off;
    udn head;
};

// Walks all chains of a table. A chain is left, and counted in broken, when a link points out of
// the record space or at no node, or when the walk has met more records than the space has nodes.
// visit returns false to stop. Returns false when the walk was stopped.
struct WalkResult {
    uint64_t records = 0, broken = 0;
    bool stopped = false;
};
WalkResult walk_table(const RawStore &store, int md, uint32_t buckets, Link link, int ud,
                      const std::function<bool(const RawRecord &)> &visit);
