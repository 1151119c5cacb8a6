/* shkv.h - key/value stores in POSIX shared memory: the interface, as a manual.
 *
 * A store is a named hash table in shared memory. Any number of processes open it by name and
 * read it without a lock and without a system call; one writer (up to eight and more where it
 * was created with CONF_MULTIWR) adds, replaces and deletes beside them. There is no server. A
 * store outlives its processes: it ends with shkv_destroy or with the machine.
 *
 *     uint32_t err;
 *     int db = shkv_create("prices", 7, NULL, 0, &err);   // or shkv_open(..., SHKV_AM_WRITE, &err)
 *     shkv_buf key = {"apple", 5}, value = {"120", 3};
 *     shkv_add(db, &key, &value, 0);
 *
 *     char room[32];                                       // in another process
 *     shkv_buf found = {room, sizeof room};
 *     int db = shkv_open("prices", 8, 0, SHKV_AM_READ, &err);
 *     if (shkv_lookup(db, &key, &found) == 0)              // found.len is 3 now
 *         fwrite(room, 1, found.len, stdout);
 *
 * Names. A store is named by a uri. What follows its first ':' (or all of it) is the name; a '/'
 * in it becomes '_' in the names of the objects under /dev/shm. At most 219 bytes.
 *
 * Handles. An int from 1 to 32, per process; 0 is none. A handle may be used by any thread, and
 * by several at once, but for what a call excludes below.
 *
 * Services. A process names itself by a uuid, a number that its operator hands out. Memory is
 * budgeted by uuid (shkv_check_memsz_per_uuid). 0 is exempt.
 *
 * Results. 0 or a positive errno-style value:
 *     ENOENT 2   no such key, store or object; the end of an iteration
 *     EBADF  9   bad handle, or the store has been destroyed
 *     ENOMEM 12  out of memory or over a limit; a mapping out of step
 *     EFAULT 14  a lock, semaphore or fstat failure
 *     EEXIST 17  exists already, or is in that state already
 *     EINVAL 22  bad argument, refused operation, too small a buffer, bad checksum
 * Calls that return a handle give 0 on failure and the value through their error word.
 *
 * Reporting. A failure writes a line to the debug log, when that is on (shkv_debugs_on), and an
 * event to the store's trace ring, which is always on.
 *
 * Signals. Loading the library installs a handler for SIGBUS (memory behind a shared object that
 * the system cannot supply becomes the result 12). A program that has its own handler for SIGBUS
 * loses it; one that installs its own afterwards takes that protection away. The jump target is
 * one per process, and every operation of any thread sets it: a fault in one thread is caught for
 * certain only while no other one uses the library.
 *
 * Fork. Handles do not survive a fork as a writer's claim does not: open anew in the child, and do
 * not close there what the parent has open.
 * Usable from C11 and C++. Link with -lovo_shkv. */
#ifndef SHKV_H
#define SHKV_H

#include <setjmp.h>
#include <stdint.h>
#include <stdio.h>

#include "shkv_format.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define SHKV_API __attribute__((visibility("default")))
#else
#define SHKV_API
#endif

/* ---- Records -------------------------------------------------------------------------------- */

/* Bytes of a caller: len bytes at ptr. Where a call stores into it, len is the room on entry and
 * the size of what was found on return, also when the room was too small. */
typedef struct shkv_buf {
    void *ptr;
    uint32_t len;
} shkv_buf;

/* A hash function of a caller: pure, the same in every process of the store. */
typedef uint32_t (*shkv_hash_fn)(const void *key, uint32_t len);

/* Configuration of a store: given to shkv_create, handed back by shkv_get_params. */
typedef struct shkv_params {
    uint16_t maxksz;   /* largest key in bytes: 1 to 256 (0 is legal in a vector store) */
    uint16_t maxvsz;   /* largest value in bytes: 0 to 2048. Both bind fixed stores; they size a vector's */
    uint32_t maxents;  /* planned number of records */
    uint32_t conf_flg; /* CONF_FIXEDMM or CONF_VECTORMM, ORed with further CONF_*; low 16 bits count */
    uint32_t conf_arg; /* yours; stored and handed back */
} shkv_params;

/* Options that can change later: shkv_db_set_opts with opts_type 1. */
typedef struct shkv_opts {
    uint32_t reserved;  /* not read */
    uint32_t auto_rz;   /* non-zero: the store grows by itself */
    uint32_t rz_tm_chk; /* microseconds that one add may spend on a table rebuild, low 16 bits; 0: no limit */
} shkv_opts;

/* Where shkv_iterate stands: optional output. */
typedef struct shkv_iter_pos {
    uint32_t flags; /* comm_flg as this call saw it */
    uint32_t off;   /* of the record given out, bytes from the start of the record space */
    uint32_t bkt;   /* its bucket */
    uint32_t cnt;   /* its place in the bucket, from 1 */
} shkv_iter_pos;

/* What a reshape asks for. A hash selector is 0 (dekhash), 1 to 11 (a built-in) or the address of
 * a caller's function. */
typedef struct shkv_rscf {
    uint32_t md_sz;    /* bytes of the new table; 0: as the old */
    uint32_t ud_sz;    /* bytes of the new record space; 1: as the old; 0: no new one */
    uint64_t old_hash; /* selector of the table in force */
    uint64_t new_hash; /* selector of the new table */
} shkv_rscf;

/* What shkv_debug_cmd_handler takes. */
typedef struct shkv_debug_cmd {
    uint32_t reserved; /* not read */
    uint32_t cmd;      /* 0 off, 1 on; anything else does nothing */
    char path[260];    /* log file; empty: the default */
    uint8_t unformat;  /* bit 0: short line prefix */
} shkv_debug_cmd;

/* Access modes of shkv_open. */
#define SHKV_AM_WRITE 0x1u   /* writes, reads and iteration; takes the writer's place */
#define SHKV_AM_READ 0x2u    /* reads */
#define SHKV_AM_ITER 0x4u    /* iteration too; given together with SHKV_AM_READ */
#define SHKV_AM_DBG 0x8u     /* a debug writer beside a running one; uuids 0x8aa45 and 0xd431 only */
#define SHKV_AM_RESHAPE 0x10u /* a reshaper's handle; uuids 0xf011 and 0xf012 only */
#define SHKV_AM_WPROT 0x20u  /* with a write: protect the record space between writes from now on */
#define SHKV_AM_UD_GREW 0x40u /* never asked for: this handle has grown the record space */

/* A head: what one process knows of one open store. It is part of the interface for debuggers
 * and tests; programs use handles. */
typedef struct md_rec {
    mdn *base;          /* null while unmapped */
    int32_t fd;
    uint32_t mapped_sz;
    shkv_hash_fn hash_fn;
    uint32_t ver;       /* obj_ver that this mapping reflects */
} md_rec;

typedef struct ud_map {
    void *map[UD_MAPS]; /* 0: the mapping made at open; from 1: chunks mapped later */
    uint32_t ver;
    uint32_t map_cnt;
    int32_t fd;
    uint32_t mapped_sz; /* bytes of the record space that the maps cover */
} ud_map;

typedef struct shkv_head shkv_head;
typedef void (*shkv_mm_init_fn)(sbm *sbm_p, uint32_t obj_sz, uint32_t dn_sz, uint32_t maxents);
typedef void *(*shkv_getnd_fn)(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off);
typedef void (*shkv_putnd_fn)(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off);

struct shkv_head {
    supernode *sn;       /* null: no open store */
    uint32_t iter_off;   /* cursor of shkv_iterate: next record, */
    uint32_t iter_bkt;   /* bucket, */
    uint32_t iter_cnt;   /* records of it given out */
    md_rec md1;
    md_rec md2;
    md_rec md_txn;
    ud_map *ud1_map;
    ud_map *ud2_map;
    uint32_t access_mode; /* SHKV_AM_*; 0: the slot is free */
    uint32_t refill_pos; /* next bucket of a running table rebuild; 0: none */
    uint32_t open_tid;   /* kernel thread id of the opener */
    shkv_mm_init_fn mm_init; /* the record allocator */
    shkv_getnd_fn getnd;
    shkv_putnd_fn putnd;
    int32_t map0_chunk;  /* CONF_SHMAP: chunk in which map 0 ends, */
    uint32_t map0_gap;   /* how far into it, */
    uint64_t map0_sz;    /* and the length of map 0; 0 without shared mapping */
};

/* A table in force and its record space, as get_active_db gives them. */
typedef struct active_db {
    md_desc *desc;
    md_rec *rec;
    ud_map *ud;
} active_db;

/* ---- Store lifecycle ------------------------------------------------------------------------ */

/* Makes a new store and opens it for writing.
 *   srcuri      its name
 *   uuid        the owner: its budget is charged with the store's size
 *   confparams  null: keys to 16 bytes, values to 32, 2000 records, fixed
 *   hashfn      0: dekhash; 1 to 11: entry hashfn - 1 of shkv_hash_matrix; else the address of a
 *               shkv_hash_fn, which every later opener has to pass again
 *   errptr      must not be null
 * The handle, or 0 with *errptr: EEXIST the name is taken (also by a creator that died half-way:
 * remove it with the tool), EINVAL a limit or a flag, ENOMEM no memory, a size above
 * shkv_max_db_sz or an exhausted budget, EFAULT a lock. A failed create leaves no name behind.
 * The first create of a process works out the process's limits (SYSMGR_MMAP_LIMIT) and, on a
 * fresh machine, makes the registry. Returns 9, an EBADF and no handle, if the registry's handle
 * is bad. Two creators of one name: one wins. */
SHKV_API int shkv_create(const char *srcuri, uint32_t uuid, const shkv_params *confparams, uint64_t hashfn,
                         uint32_t *errptr);

/* Opens a store.
 *   uuid         who asks
 *   hashfn       0: what the store records; 1 to 11: that built-in, unchecked; else the address of
 *                the function that the store was made with
 *   access_mode  SHKV_AM_WRITE, or SHKV_AM_READ, or SHKV_AM_READ | SHKV_AM_ITER, ...
 * The handle, or 0 with *errptr: ENOENT no such store, EINVAL a bad mode, an incomplete store, a
 * writer that lives (its thread still runs), a reshape under way (write open), another hash, or
 * all 32 handles taken; EFAULT, ENOMEM. A write open takes over from a dead writer and finishes
 * what it left: a batch is undone, a commit finished, a table rebuilt. A second write open in the
 * writer's own thread gives the same handle. A read open changes nothing in the store. */
SHKV_API int shkv_open(const char *uri, uint32_t uuid, uint64_t hashfn, uint32_t access_mode, uint32_t *errptr);

/* Gives a handle back. The store stays. The writer's place becomes free. An open transaction
 * stays open. The close of a reshaper ends the reshape and takes a second. 0, EBADF, EFAULT,
 * EINVAL. No other thread may use the handle meanwhile. */
SHKV_API int shkv_close(int handle);

/* Removes a store for all processes: their further calls give EBADF; they still close. Needs a
 * write handle, and ends it: no shkv_close follows. 0 also when the store was marked destroyed
 * already; then the handle is still open and has to be closed. EBADF, EINVAL, EFAULT. */
SHKV_API int shkv_destroy(int handle);

/* ---- Records -------------------------------------------------------------------------------- */

/* Stores key and value, replacing the record of the same key. Readers see the old record or the
 * new one, each whole. mode is 0 (other values are the reshaper's).
 * Fixed stores: key 1 to maxksz, value 0 to maxvsz bytes. Vector stores: key 1 to 2048, value 0 to
 * 65000 bytes. A value of length 0 may have a null pointer.
 * 0; EBADF; EINVAL bad arguments or no write access; ENOMEM the store is full and may not or cannot
 * grow; it stays as it was. Without CONF_MULTIWR only the writer's threads call this, one at a
 * time; readers run beside it. No system call unless the store grows or is write-protected. */
SHKV_API int shkv_add(int handle, const shkv_buf *key, const shkv_buf *value, uint32_t mode);

/* shkv_add with a ready-made record: node, when not null, is linked as it stands, and key gives
 * its key. Modes: 1 store a deletion mark, 0x99 and 0x88 the reshaper's adds into the old and the
 * new tables. For the library's own use. */
SHKV_API int __shkv_add(int handle, const shkv_buf *key, const shkv_buf *value, udn *node, uint16_t mode);

/* Finds key and copies its value. value->len: in, room in bytes; out, size stored, also when the
 * room was too small. A value of length 0 and null pointer asks for the size alone. The room may begin
 * where the key does, but not elsewhere within it; after another result than 0 its bytes may be those
 * of a copy that was given up.
 * 0; ENOENT; EBADF; ENOMEM a mapping out of step twice in a row, or memory gone; EINVAL bad
 * arguments, too small a buffer, or a record damaged in the store. Takes no lock and makes no
 * system call; any thread of any process, at any time, beside the writer. A key that is always
 * present is always found; a value is never a mixture of two. The writer of an open transaction
 * sees what it has staged, everyone else the last committed state. */
SHKV_API int shkv_lookup(int handle, const shkv_buf *key, shkv_buf *value);

/* shkv_lookup, once, with a mode: 0, or 0x33 for tables alone, past a reshape's interim list. */
SHKV_API int __shkv_lookup(int handle, const shkv_buf *key, shkv_buf *value, uint32_t mode);

/* Fixed stores only (else ENOMEM): value->ptr and value->len become the place of the value inside
 * the store. No copy, no checksum, no look at transactions, reshapes or UD2. The bytes are good
 * while the record lives and, once it is replaced or deleted, for at least 50 ms more (unless the
 * store is nearly full): finish with them at once and never write to them. 0, ENOENT, EBADF,
 * EINVAL, ENOMEM. */
SHKV_API int shkv_lookup_lite(int handle, const shkv_buf *key, shkv_buf *value);

/* Looks up to 32 keys up with their cache misses overlapped: about twice as fast a key as single
 * lookups once the store is larger than the caches. keys, vals and results hold m_cnt entries;
 * results[i] and vals[i] are exactly what shkv_lookup(handle, &keys[i], &vals[i]) would give.
 * Returns 0, or the first result that is neither 0 nor ENOENT. A null array or an m_cnt outside
 * 1 to 32 gives EINVAL and looks nothing up. Not one snapshot: each key is read on its own. */
SHKV_API int shkv_m_lookup(int handle, const shkv_buf *keys, shkv_buf *vals, int *results, uint16_t m_cnt);

/* Takes key out. 0; ENOENT no such key, and the line "key not found" goes to standard output;
 * EBADF; EINVAL; ENOMEM. Callers as for shkv_add. */
SHKV_API int shkv_delete(int handle, const shkv_buf *key);

/* shkv_delete with a mode: 0, or the reshaper's 0x66 (old tables) and 0x77 (new tables). */
SHKV_API int __shkv_delete(int handle, const shkv_buf *key, uint32_t mode);

/* Gives out the records one a call, in bucket order.
 *   reset  1: go to the start, give out nothing (begin every iteration so); 0: the next record
 *   key, val, pos  each may be null; without key or val, pos must be given. Set the lengths again
 *                  before every call: each call overwrites them.
 * 0; ENOENT the end; EINVAL not opened for iteration, bad buffers, a bad checksum (the record
 * stays under the cursor until a reset), or a buffer too small (len becomes what is needed, and
 * the next call gives the same record). Not a snapshot: what a writer does meanwhile may or may
 * not show, and a table that flips between two calls can show records twice or not at all. One
 * cursor a handle: no two threads on the same one. */
SHKV_API int shkv_iterate(int handle, shkv_buf *key, shkv_buf *val, shkv_iter_pos *pos, int reset);

/* ---- Transactions and batches --------------------------------------------------------------- */

/* Opens a transaction: from here adds and deletes of this store are staged, unseen by others, until
 * shkv_txn_commit or shkv_txn_abort. *est_ents: keys that you expect to stage; null: about 500.
 * It belongs to the store: it survives the close and the death of its writer. The writer's thread
 * only. 0; EBADF also for a CONF_MULTIWR store; EEXIST one is open; ENOMEM; EINVAL. */
SHKV_API int shkv_txn_start(int handle, const uint32_t *est_ents);

/* Applies what is staged. A crash at any moment is finished by the next write open: all or nothing.
 * Readers beside it see each key old or new, in no particular order. unused is not read. 0 also
 * when no transaction is open; EBADF. The transaction stays open with EINVAL, a handle that may not
 * write or does not know the store's hash function, and ENOMEM, a table that is not mapped here, or
 * no memory in /dev/shm for buckets that were never used: commit again when there is. */
SHKV_API int shkv_txn_commit(int handle, void *unused);

/* Drops what is staged. 0 also when no transaction is open; EBADF, EINVAL, ENOMEM as a commit. */
SHKV_API int shkv_txn_abort(int handle);

/* 1 while the store has an open transaction, also one that a dead writer left; 0 otherwise, and for
 * a bad handle. */
SHKV_API int shkv_txn_is_active(int handle);

/* Adds (opflg 0) or deletes (opflg 0x10) up to 32 keys; keys and vals hold m_cnt entries. With 0x01
 * in opflg the batch is atomic: after a failure or a crash none of it remains, for up to 31
 * distinct keys (of 32 one, whichever the undo log holds last, is not undone), as long as there is
 * memory to undo it. Readers see entry after entry. An atomic batch makes and destroys a small store,
 * NAME_iodb (so NAME has up to 214 bytes), within the service's memory, and takes one more handle.
 * 0 (a missing key to delete is no failure), or the first failure; EINVAL for CONF_MULTIWR. */
SHKV_API int shkv_m_add(int handle, const shkv_buf *keys, const shkv_buf *vals, uint16_t m_cnt, uint16_t opflg);

/* shkv_m_add(handle, keys, NULL, m_cnt, opflg | 0x10). */
SHKV_API int shkv_m_delete(int handle, const shkv_buf *keys, uint16_t m_cnt, uint16_t opflg);

/* Undoes a batch that a dead writer left half done. shkv_open calls it. 0 or an error. */
SHKV_API int shkv_start_rollback(int handle);

/* ---- Reshaping ------------------------------------------------------------------------------ */

/* Rebuilds a store in new objects of the same sizes while it is in use. opflg 0 or 0x33. 0, EBADF,
 * EINVAL. */
SHKV_API int shkv_reshape_db(const char *uri, uint32_t opflg);

/* Moves a store to a table of md_sz bytes (0: as now), a record space of ud_sz bytes (1: as now; 0:
 * no new one) and another built-in hash (selectors 0 to 11) while others go on using it. Runs in
 * a process of its own, next to the store's writer; takes as long as moving every record takes,
 * and one second. Fixed stores only. 0; EBADF; EINVAL refused or failed: nothing is lost. */
SHKV_API int shkv_reshaping(const char *dbname, uint32_t md_sz, uint32_t ud_sz, uint64_t old_hash, uint64_t new_hash);

/* The reshaper's open: takes the reshape token, makes the new objects, publishes them. uuid 0xf011 or
 * 0xf012. The handle, or 0 with *err. For reshaping with a caller's hash function; the moving is
 * then the caller's. A token that a dead reshaper left blocks the next one. */
SHKV_API int shkv_open_reshaping(const char *dbname, uint32_t uuid, uint64_t hashfn, const shkv_rscf *rscf,
                                 uint32_t access_mode, uint32_t *err);

/* *out = handle. 0, EBADF, EINVAL for a null out. */
SHKV_API int shkv_get_nx_db_handle(int handle, uint32_t *out);

/* The interim list holds what the writer does during a reshape. For the library's own use: init sets
 * an empty list up in the record space ud; put appends (op 0x1001 add, 0x1002 delete; 0, ENOMEM,
 * EINVAL); lookup gives the newest record for key, or null. */
SHKV_API void shkv_interimlst_init(shkv_head *head, void *ud);
SHKV_API int shkv_interimlst_put(shkv_head *head, void *ud, const shkv_buf *key, const shkv_buf *value, uint32_t op);
SHKV_API udn *shkv_interimlst_lookup(supernode *sn, const shkv_buf *key, void *ud);

/* ---- Parameters ----------------------------------------------------------------------------- */

/* Fills params from an open store. 0, EBADF, EINVAL for null. */
SHKV_API int shkv_get_params(int handle, shkv_params *params);

/* The open handle of a store in this process whose access mode shares a bit with am_mask, or 0 with
 * *err EBADF. Takes no lock. */
SHKV_API int shkv_uri2handle(const char *uri, uint32_t am_mask, uint32_t *err);

/* Sets an option: opts_type 1 with a shkv_opts. The writer's own thread only, not with
 * CONF_MULTIWR. Takes effect at the next add, for good. 0, EBADF, EINVAL. */
SHKV_API int shkv_db_set_opts(int handle, int32_t opts_type, void *opts);

/* One field each, 0 or null for a bad handle: the hash index of MD1 (whichever table is in force),
 * conf_flg, the store's uuid, its name (points into the store; good until close). */
SHKV_API uint32_t shkv_get_hashfn(int handle);
SHKV_API uint32_t shkv_get_smode(int handle);
SHKV_API uint32_t shkv_get_uuid(int handle);
SHKV_API const char *shkv_get_dbname(int handle);

/* Records that a record space of size bytes is planned for. mode 1 fixed (keys of ksz, values of vsz
 * bytes), 2 vector (units). */
SHKV_API uint32_t shkv_max_num_entries(uint32_t size, uint16_t ksz, uint16_t vsz, uint32_t mode);

/* Largest record space that this process may make, in bytes; the page size; entry idx (0 to 10, not
 * checked) of shkv_hash_matrix. */
SHKV_API uint32_t shkv_get_process_max_db_sz(void);
SHKV_API uint32_t shkv_get_page_sz(void);
SHKV_API shkv_hash_fn shkv_get_internal_hashfn(int32_t idx);

/* ---- Limits and clean-up -------------------------------------------------------------------- */

/* Looks a store up in the registry: *regp (not null) gets its record. 0, ENOENT, or an error. */
SHKV_API int check_shkv_uri(const char *uri, reg_rec *regp);

/* Reserves size more bytes in the budget of uuid: 0, or ENOMEM with nothing reserved. size 0 only
 * counts what the uuid's stores use. */
SHKV_API int shkv_check_memsz_per_uuid(uint32_t size, uint32_t uuid);

/* Bytes of a store's record space; records (in a vector store: units) that it can hold. 0 for any
 * failure. */
SHKV_API uint32_t shkv_get_db_size(const char *uri);
SHKV_API uint32_t shkv_get_exact_max_entries_from_db(const char *uri);

/* Destroys every store that the registry lists with this vdc_id. ENOENT when all were visited; else
 * the error at which it stopped (a store with a living writer stops it). */
SHKV_API int shkv_vdc_cleanup(uint32_t vdc_id);

/* ---- Sizing and hashing --------------------------------------------------------------------- */

/* Sizes. Buckets for a wanted number: the first prime of prime_low_list above n. Spare units for so
 * many records. Bytes of a record space for them (key_sz + val_sz of 0: vector units). */
SHKV_API uint32_t shkv_get_hash_size(uint32_t n);
SHKV_API uint32_t shkv_defbuf_sz(uint32_t entries);
SHKV_API uint32_t GET_USER_SIZE(uint32_t entries, uint32_t key_sz, uint32_t val_sz);

/* The built-in hash functions, entries 0 to 10 of shkv_hash_matrix in this order. len bytes at key;
 * pure. Some differ from what their names suggest; the results are part of the format. */
SHKV_API uint32_t rshash(const void *key, uint32_t len);
SHKV_API uint32_t jshash(const void *key, uint32_t len);
SHKV_API uint32_t pjwhash(const void *key, uint32_t len);
SHKV_API uint32_t elfhash(const void *key, uint32_t len);
SHKV_API uint32_t bkdrhash(const void *key, uint32_t len);
SHKV_API uint32_t sdbmhash(const void *key, uint32_t len);
SHKV_API uint32_t djbhash(const void *key, uint32_t len);
SHKV_API uint32_t dekhash(const void *key, uint32_t len);
SHKV_API uint32_t bphash(const void *key, uint32_t len);
SHKV_API uint32_t fnvhash(const void *key, uint32_t len);
SHKV_API uint32_t aphash(const void *key, uint32_t len);

/* *out: the checksum byte of a fixed record's key and value (len bytes): a sample, not a hash of the
 * whole. Records that fit a fixed store of these limits, reserve taken off. */
SHKV_API void shkv_data_checksum(const void *data, uint32_t len, uint8_t *out);
SHKV_API uint32_t shkv_get_exact_max_entries(uint32_t key_sz, uint32_t val_sz, uint32_t entries);

/* ---- Memory managers and addressing --------------------------------------------------------- */

/* The managers of a record space, for the library's own use and for tests on a plain buffer. The
 * writer alone calls them. init lays a header out; getnd gives a node (null: full, or memory gone:
 * then out_of_actual_mem is set); putnd puts one on the hold list, where it waits 50 ms. */
SHKV_API void shkv_fixed_mm_init(sbm *sbm_p, uint32_t obj_sz, uint32_t dn_sz, uint32_t maxents);
SHKV_API void *shkv_fixed_getnd(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off);
SHKV_API void shkv_fixed_putnd(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off);
SHKV_API int shkv_fixed_gc(int handle, supernode *sn, sbm *sbm_p, uint32_t mode);
SHKV_API void *shkv_vector_getnd(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off);
SHKV_API void shkv_vector_putnd(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off);

/* Address of a byte of a record space that is mapped in chunks; length of map number index; the
 * tables in force by a snapshot of comm_flg (1 when the two have different record spaces). off,
 * index and flags are not checked. */
SHKV_API void *shkv_ud_offset_to_addr(shkv_head *head, uint32_t off);
SHKV_API uint32_t shkv_ud_index_to_map_size(shkv_head *head, uint32_t index);
SHKV_API int get_active_db(active_db *primary, active_db *secondary, shkv_head *head, uint32_t flags);

/* ---- Process state -------------------------------------------------------------------------- */

/* The library's constructor; a second call does nothing new. */
SHKV_API void shkv_init(void);

/* The head of a valid handle, or null. */
SHKV_API shkv_head *check_shkv_hdl(int handle);

/* The object name of a uri: at most max bytes and a NUL into out. */
SHKV_API void shkv_uri2dbname(const char *uri, char *out, uint32_t max);

/* Jumps to sigbus_jmp on SIGBUS; any other signal returns at once. */
SHKV_API void shkv_sigbus_handler(int sig);

/* A robust mutex in shared memory: 0 or an error number. A lock whose owner died is taken over. */
SHKV_API int kmutex_init(pthread_mutex_t *mutex);
SHKV_API int kmutex_lock(pthread_mutex_t *mutex);

/* ---- Diagnostics and helpers ---------------------------------------------------------------- */

/* Debug log of this process: on (path null: /var/log/external or /var/tmp, named by the process id;
 * 0, or -1 when no file opens), off (remove 1: delete the default files), by a command record
 * (shkv_debug_cmd). Off when the library is loaded. */
SHKV_API int shkv_debugs_on(const char *path);
SHKV_API int shkv_debug_off(uint32_t remove);
SHKV_API void shkv_debug_cmd_handler(const void *cmd_record);

/* A trace ring in any buffer of at least 96 bytes: 1, or 0 with errno. Then a string event (id below
 * 0x1000000; the last 12 bytes of str are kept). shkv_get_trbuf: the ring of a mapped supernode.
 * shkv_enable_info_trace does nothing and returns 0. */
SHKV_API int shtrace_init(void *buf, int size, int locked);
SHKV_API void shtrace_fini(void *buf);
SHKV_API void shtrace_str(void *buf, uint32_t id, uint32_t arg, const char *str);
SHKV_API void *shkv_get_trbuf(void *supernode_p);
SHKV_API int shkv_enable_info_trace(void);

/* Cycle counter to time. init: 1, or 0 when the clock rate cannot be read; all differences then read
 * as all ones and every wait counts as over. now below then gives an enormous number. */
SHKV_API int init_cpu_hz(void);
SHKV_API uint64_t timer_diff_cycle_in_usec(uint64_t now, uint64_t then);
SHKV_API uint64_t timer_diff_cycle_in_msec(uint64_t now, uint64_t then);

/* Bounded helpers. sstrncpy: at most n bytes and a NUL (dst holds n + 1): 0, 400 for null, 404 when the
 * copy ran into the other buffer. sstrlen: 0 for null. smemcmp: 0 with *out -1, 0 or 1; 400 for null. */
SHKV_API int shkv_sstrncpy(char *dst, const char *src, uint32_t n);
SHKV_API uint32_t shkv_sstrlen(const char *s);
SHKV_API int shkv_smemcmp(const void *a, const void *b, uint32_t n, int *out);

/* ---- Variables ------------------------------------------------------------------------------ */

/* The head table, the slot where the search for a free one starts, whether the semaphores are made. */
extern SHKV_API shkv_head shkv_db_heads[32];
extern SHKV_API uint16_t shkv_db_pos_gbl, shkv_sem_inited;
/* Page size; bytes that one process may hold in stores; largest record space; whether a guarded access
 * has met a SIGBUS; its jump target. */
extern SHKV_API uint32_t SHKV_PAGE_SIZE, shkv_memory_limit_process, shkv_max_db_sz, out_of_actual_mem;
#ifdef sigsetjmp /* absent in a program built for plain ISO C */
extern SHKV_API sigjmp_buf sigbus_jmp;
#endif
/* Bucket counts; primes above the powers of two (read by nothing); the hash functions by index. */
extern SHKV_API uint32_t prime_low_list[20], prime_up_list[20];
extern SHKV_API shkv_hash_fn shkv_hash_matrix[11];
/* Log on, short prefix, stream. */
extern SHKV_API int shkv_dbg_en, shkv_dbg_unformat;
extern SHKV_API FILE *shkv_dbg_fp;

/* Optional, supplied by a system manager: bytes that one process may map, 0 for the default. */
extern uint32_t sysmgr_mmap_limit_get(void) __attribute__((weak));

#ifdef __cplusplus
}
#endif
#endif
