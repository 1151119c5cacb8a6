/* shkv.h - key/value stores in POSIX shared memory: the interface, as a manual. */
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

typedef struct shkv_buf {
    void *ptr;
    uint32_t len;
} shkv_buf;

typedef uint32_t (*shkv_hash_fn)(const void *key, uint32_t len);

typedef struct shkv_params {
    uint16_t maxksz;
    uint16_t maxvsz;
    uint32_t maxents;
    uint32_t conf_flg;
    uint32_t conf_arg;
} shkv_params;

typedef struct shkv_opts {
    uint32_t reserved;
    uint32_t auto_rz;
    uint32_t rz_tm_chk;
} shkv_opts;

typedef struct shkv_iter_pos {
    uint32_t flags;
    uint32_t off;
    uint32_t bkt;
    uint32_t cnt;
} shkv_iter_pos;

typedef struct shkv_rscf {
    uint32_t md_sz;
    uint32_t ud_sz;
    uint64_t old_hash;
    uint64_t new_hash;
} shkv_rscf;

typedef struct shkv_debug_cmd {
    uint32_t reserved;
    uint32_t cmd;
    char path[260];
    uint8_t unformat;
} shkv_debug_cmd;

/* Access modes. */
#define SHKV_AM_WRITE 0x1u
#define SHKV_AM_READ 0x2u
#define SHKV_AM_ITER 0x4u
#define SHKV_AM_DBG 0x8u
#define SHKV_AM_RESHAPE 0x10u
#define SHKV_AM_WPROT 0x20u
#define SHKV_AM_UD_GREW 0x40u

/* A head: what one process knows of one open store. */
typedef struct md_rec {
    mdn *base;
    int32_t fd;
    uint32_t mapped_sz;
    shkv_hash_fn hash_fn;
    uint32_t ver;
} md_rec;

typedef struct ud_map {
    void *map[UD_MAPS];
    uint32_t ver;
    uint32_t map_cnt;
    int32_t fd;
    uint32_t mapped_sz;
} ud_map;

typedef struct shkv_head shkv_head;
typedef void (*shkv_mm_init_fn)(sbm *sbm_p, uint32_t obj_sz, uint32_t dn_sz, uint32_t maxents);
typedef void *(*shkv_getnd_fn)(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off);
typedef void (*shkv_putnd_fn)(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off);

struct shkv_head {
    supernode *sn;
    uint32_t iter_off;
    uint32_t iter_bkt;
    uint32_t iter_cnt;
    md_rec md1;
    md_rec md2;
    md_rec md_txn;
    ud_map *ud1_map;
    ud_map *ud2_map;
    uint32_t access_mode;
    uint32_t refill_pos;
    uint32_t open_tid;
    shkv_mm_init_fn mm_init;
    shkv_getnd_fn getnd;
    shkv_putnd_fn putnd;
    int32_t map0_chunk;
    uint32_t map0_gap;
    uint64_t map0_sz;
};

typedef struct active_db {
    md_desc *desc;
    md_rec *rec;
    ud_map *ud;
} active_db;

/* ---- Store lifecycle ------------------------------------------------------------------------ */

SHKV_API int shkv_create(const char *srcuri, uint32_t uuid, const shkv_params *confparams, uint64_t hashfn,
                         uint32_t *errptr);
SHKV_API int shkv_open(const char *uri, uint32_t uuid, uint64_t hashfn, uint32_t access_mode, uint32_t *errptr);
SHKV_API int shkv_close(int handle);
SHKV_API int shkv_destroy(int handle);

/* ---- Records -------------------------------------------------------------------------------- */

SHKV_API int shkv_add(int handle, const shkv_buf *key, const shkv_buf *value, uint32_t mode);
SHKV_API int __shkv_add(int handle, const shkv_buf *key, const shkv_buf *value, udn *node, uint16_t mode);
SHKV_API int shkv_lookup(int handle, const shkv_buf *key, shkv_buf *value);
SHKV_API int __shkv_lookup(int handle, const shkv_buf *key, shkv_buf *value, uint32_t mode);
SHKV_API int shkv_lookup_lite(int handle, const shkv_buf *key, shkv_buf *value);
SHKV_API int shkv_m_lookup(int handle, const shkv_buf *keys, shkv_buf *vals, int *results, uint16_t m_cnt);
SHKV_API int shkv_delete(int handle, const shkv_buf *key);
SHKV_API int __shkv_delete(int handle, const shkv_buf *key, uint32_t mode);
SHKV_API int shkv_iterate(int handle, shkv_buf *key, shkv_buf *val, shkv_iter_pos *pos, int reset);

/* ---- Transactions and batches --------------------------------------------------------------- */

SHKV_API int shkv_txn_start(int handle, const uint32_t *est_ents);
SHKV_API int shkv_txn_commit(int handle, void *unused);
SHKV_API int shkv_txn_abort(int handle);
SHKV_API int shkv_txn_is_active(int handle);
SHKV_API int shkv_m_add(int handle, const shkv_buf *keys, const shkv_buf *vals, uint16_t m_cnt, uint16_t opflg);
SHKV_API int shkv_m_delete(int handle, const shkv_buf *keys, uint16_t m_cnt, uint16_t opflg);
SHKV_API int shkv_start_rollback(int handle);

/* ---- Reshaping ------------------------------------------------------------------------------ */

SHKV_API int shkv_reshape_db(const char *uri, uint32_t opflg);
SHKV_API int shkv_reshaping(const char *dbname, uint32_t md_sz, uint32_t ud_sz, uint64_t old_hash, uint64_t new_hash);
SHKV_API int shkv_open_reshaping(const char *dbname, uint32_t uuid, uint64_t hashfn, const shkv_rscf *rscf,
                                 uint32_t access_mode, uint32_t *err);
SHKV_API int shkv_get_nx_db_handle(int handle, uint32_t *out);
SHKV_API void shkv_interimlst_init(shkv_head *head, void *ud);
SHKV_API int shkv_interimlst_put(shkv_head *head, void *ud, const shkv_buf *key, const shkv_buf *value, uint32_t op);
SHKV_API udn *shkv_interimlst_lookup(supernode *sn, const shkv_buf *key, void *ud);

/* ---- Parameters ----------------------------------------------------------------------------- */

SHKV_API int shkv_get_params(int handle, shkv_params *params);
SHKV_API int shkv_uri2handle(const char *uri, uint32_t am_mask, uint32_t *err);
SHKV_API int shkv_db_set_opts(int handle, int32_t opts_type, void *opts);
SHKV_API uint32_t shkv_get_hashfn(int handle);
SHKV_API uint32_t shkv_get_smode(int handle);
SHKV_API uint32_t shkv_get_uuid(int handle);
SHKV_API const char *shkv_get_dbname(int handle);
SHKV_API uint32_t shkv_max_num_entries(uint32_t size, uint16_t ksz, uint16_t vsz, uint32_t mode);
SHKV_API uint32_t shkv_get_process_max_db_sz(void);
SHKV_API uint32_t shkv_get_page_sz(void);
SHKV_API shkv_hash_fn shkv_get_internal_hashfn(int32_t idx);

/* ---- Limits and clean-up -------------------------------------------------------------------- */

SHKV_API int check_shkv_uri(const char *uri, reg_rec *regp);
SHKV_API int shkv_check_memsz_per_uuid(uint32_t size, uint32_t uuid);
SHKV_API uint32_t shkv_get_db_size(const char *uri);
SHKV_API uint32_t shkv_get_exact_max_entries_from_db(const char *uri);
SHKV_API int shkv_vdc_cleanup(uint32_t vdc_id);

/* ---- Sizing and hashing --------------------------------------------------------------------- */

SHKV_API uint32_t shkv_get_hash_size(uint32_t n);
SHKV_API uint32_t shkv_defbuf_sz(uint32_t entries);
SHKV_API uint32_t GET_USER_SIZE(uint32_t entries, uint32_t key_sz, uint32_t val_sz);
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
SHKV_API void shkv_data_checksum(const void *data, uint32_t len, uint8_t *out);
SHKV_API uint32_t shkv_get_exact_max_entries(uint32_t key_sz, uint32_t val_sz, uint32_t entries);

/* ---- Memory managers and addressing --------------------------------------------------------- */

SHKV_API void shkv_fixed_mm_init(sbm *sbm_p, uint32_t obj_sz, uint32_t dn_sz, uint32_t maxents);
SHKV_API void *shkv_fixed_getnd(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off);
SHKV_API void shkv_fixed_putnd(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off);
SHKV_API int shkv_fixed_gc(int handle, supernode *sn, sbm *sbm_p, uint32_t mode);
SHKV_API void *shkv_vector_getnd(sbm *sbm_p, shkv_head *head, uint32_t size, uint32_t *dn_off);
SHKV_API void shkv_vector_putnd(sbm *sbm_p, void *node, shkv_head *head, uint32_t dn_off);
SHKV_API void *shkv_ud_offset_to_addr(shkv_head *head, uint32_t off);
SHKV_API uint32_t shkv_ud_index_to_map_size(shkv_head *head, uint32_t index);
SHKV_API int get_active_db(active_db *primary, active_db *secondary, shkv_head *head, uint32_t flags);

/* ---- Process state -------------------------------------------------------------------------- */

SHKV_API void shkv_init(void);
SHKV_API shkv_head *check_shkv_hdl(int handle);
SHKV_API void shkv_uri2dbname(const char *uri, char *out, uint32_t max);
SHKV_API void shkv_sigbus_handler(int sig);
SHKV_API int kmutex_init(pthread_mutex_t *mutex);
SHKV_API int kmutex_lock(pthread_mutex_t *mutex);

/* ---- Diagnostics and helpers ---------------------------------------------------------------- */

SHKV_API int shkv_debugs_on(const char *path);
SHKV_API int shkv_debug_off(uint32_t remove);
SHKV_API void shkv_debug_cmd_handler(const void *cmd_record);
SHKV_API int shtrace_init(void *buf, int size, int locked);
SHKV_API void shtrace_fini(void *buf);
SHKV_API void shtrace_str(void *buf, uint32_t id, uint32_t arg, const char *str);
SHKV_API void *shkv_get_trbuf(void *supernode_p);
SHKV_API int shkv_enable_info_trace(void);
SHKV_API int init_cpu_hz(void);
SHKV_API uint64_t timer_diff_cycle_in_usec(uint64_t now, uint64_t then);
SHKV_API uint64_t timer_diff_cycle_in_msec(uint64_t now, uint64_t then);
SHKV_API int shkv_sstrncpy(char *dst, const char *src, uint32_t n);
SHKV_API uint32_t shkv_sstrlen(const char *s);
SHKV_API int shkv_smemcmp(const void *a, const void *b, uint32_t n, int *out);

/* ---- Variables ------------------------------------------------------------------------------ */

extern SHKV_API shkv_head shkv_db_heads[32];
extern SHKV_API uint16_t shkv_db_pos_gbl, shkv_sem_inited;
extern SHKV_API uint32_t SHKV_PAGE_SIZE, shkv_memory_limit_process, shkv_max_db_sz, out_of_actual_mem;
#ifdef sigsetjmp /* absent in a program built for plain ISO C */
extern SHKV_API sigjmp_buf sigbus_jmp;
#endif
extern SHKV_API uint32_t prime_low_list[20], prime_up_list[20];
extern SHKV_API shkv_hash_fn shkv_hash_matrix[11];
extern SHKV_API int shkv_dbg_en, shkv_dbg_unformat;
extern SHKV_API FILE *shkv_dbg_fp;

/* Optional, supplied by a system manager: bytes that one process may map, 0 for the default. */
extern uint32_t sysmgr_mmap_limit_get(void) __attribute__((weak));

#ifdef __cplusplus
}
#endif
#endif
