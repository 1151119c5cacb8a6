/* shkv_format.h - every byte of a store, as it lies in shared memory.
 *
 * A store is six POSIX shared-memory objects that outlive the processes that map them:
 *
 *   /dev/shm/shkvdb/NAME          supernode: this header record, then the trace ring
 *   /dev/shm/shkvmu/NAME_md1      MD1, an array of buckets
 *   /dev/shm/shkvmu/NAME_md2      MD2, the other array, used while a table is rebuilt
 *   /dev/shm/shkvmu/NAME_md_txn   MD_TXN, the buckets of an open transaction
 *   /dev/shm/shkvmu/NAME_ud1      UD1, record space: an sbm, then nodes of equal size
 *   /dev/shm/shkvmu/NAME_ud2      UD2, the other record space, used by a reshape
 *
 * All integers are little-endian and naturally aligned. Inside an object everything refers to
 * other things by u32 byte offsets from the object's start; offset 0 is "none". Readers load
 * these words while the writer stores them, so the order of the stores is part of the format;
 * each record says who stores what, and when. There is no version field and no byte swapping:
 * a store is read only by code of the same build family on the same machine.
 *
 * Usable from C11 and C++. No functions. */
#ifndef SHKV_FORMAT_H
#define SHKV_FORMAT_H

#include <pthread.h>
#include <semaphore.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#ifdef __cplusplus
#define SHKV_ASSERT_(cond, text) static_assert(cond, text)
#else
#define SHKV_ASSERT_(cond, text) _Static_assert(cond, text)
#endif
#define SHKV_AT(type, field, at) SHKV_ASSERT_(offsetof(type, field) == (at), #type "." #field " has moved")
#define SHKV_SIZE(type, size) SHKV_ASSERT_(sizeof(type) == (size), #type " has another size")

/* Names and paths. */
#define SHKV_DB_PREFIX "/shkvdb/"         /* supernodes, as shm_open names */
#define SHKV_MU_PREFIX "/shkvmu/"         /* MD and UD objects */
#define SHKV_DB_DIR "/dev/shm/shkvdb"     /* DB_DIR in messages */
#define SHKV_MU_DIR "/dev/shm/shkvmu"     /* MU_DIR in messages */
#define SHKV_NAME_MAX 220u                /* bytes copied of a name; a created one has at most 219 */
#define SHKV_PATH_MAX 236u                /* bound of every object path, NUL included */
#define SHKV_REGISTRY_NAME "ovo_shkv_registry_db"
#define SHKV_IODB_SUFFIX "_iodb"          /* a batch's undo log: dbname plus this */

/* Kinds of object. 5 names the supernode in the removal of an object only. */
enum {
    OBJ_MD1 = 1, OBJ_MD2 = 2, OBJ_UD1 = 3, OBJ_UD2 = 4, OBJ_SN = 5, OBJ_MD_TXN = 6
};

/* The two magic words, of a supernode and of an sbm. A store is complete when, and only when,
 * magichead is not 0 and magichead ^ magictail is all ones. */
#define SHKV_MAGICHEAD 0xa5c2e71du
#define SHKV_MAGICTAIL 0x5a3d18e2u

/* comm_flg: the state of a store. One store changes it, so a reader's snapshot is always whole.
 * Outside a reshape exactly one MD bit and exactly one UD bit is set. */
#define CF_MD1 0x1u              /* MD1 is in force */
#define CF_MD2 0x2u              /* MD2 is in force */
#define CF_UD1 0x4u              /* UD1 is in force */
#define CF_UD2 0x8u              /* UD2 is in force */
#define MDO1N2 0x10u             /* reshape: old table MD1, new table MD2 */
#define MDN1O2 0x20u             /* reshape: old table MD2, new table MD1 */
#define UDO1N2 0x40u             /* reshape: old space UD1, new space UD2 */
#define UDN1O2 0x80u             /* reshape: old space UD2, new space UD1 */
#define CF_RESHAPE 0x100u        /* the new objects are in place; writers feed the interim list */
#define CF_RESHAPE_DRAIN 0x200u  /* the reshaper makes its final check */
#define CF_TXN 0x400u            /* a transaction is open */
#define CF_DESTROYED 0x800u      /* never cleared; every operation refuses with EBADF */
#define CF_RESH_TOKEN1 0x1000u   /* reshape token of service 0xf011 */
#define CF_RESH_TOKEN2 0x2000u   /* reshape token of service 0xf012 */
#define CF_REFILL1 0x4000u       /* a table rebuild is pending or under way (target MD1) */
#define CF_REFILL2 0x8000u       /* the same, target MD2; only "either" is ever tested */
#define CF_TXN_COMMIT 0x10000u   /* a commit is being applied */

/* conf_flg: the creator's choices, fixed for the store's life. */
#define CONF_MM_MASK 0x000fu
#define CONF_FIXEDMM 0x0001u     /* fixed-size records */
#define CONF_VECTORMM 0x0002u    /* records of variable size, in chains of 128-byte units */
#define CONF_L3 0x0020u          /* record space write-protected between writes */
#define CONF_REG_1 0x0100u       /* registry flag 0x10000 */
#define CONF_REG_2 0x0200u       /* registry flag 0x20000 */
#define CONF_MULTIWR 0x1000u     /* several writers; no growth, batches or transactions */
#define CONF_SHMAP 0x2000u       /* record space grows by chunks and never moves; vector stores only */

/* sn_flg. */
#define SN_DBG_WR 0x1u           /* a debug writer is attached: ordinary writers refuse */
#define SN_WPROT 0x10u           /* writes lift and restore the record space's protection */

/* iodb_mark: the upper 24 bits while the undo log of a batch is live, the low byte its kind. */
#define IODB_LIVE 0x5b0fcdu
#define IODB_ADDS 0x5b0fcd10u
#define IODB_DELS 0x5b0fcd01u

/* hashfn of a table that uses a caller's function, and the string that identifies it. */
#define SHKV_USER_HASHFN 0xa6b7u
#define SHKV_HASH_TEST "Test string to verify user defined hash func"
#define SHKV_HASH_TEST_LEN 44u

/* Services with a role. */
#define UUID_NONE 0u             /* exempt from every budget */
#define UUID_REGISTRY 0x8aa45u   /* the registry's own */
#define UUID_BIG_A 0x186u        /* these two: bounded per store, not per process */
#define UUID_BIG_B 0x21au
#define UUID_RESHAPE1 0xf011u    /* the two reshaping services */
#define UUID_RESHAPE2 0xf012u
#define UUID_DEBUG 0xd431u       /* may open as a debug writer */
#define UUID_INTERNAL 0x3039u    /* the library's own read opens */

/* Descriptor of a bucket array. Creation fills it; a rebuild stores it before the flip. */
typedef struct md_desc {
    uint32_t user_hash; /*  0 what a caller's hash gave for the test string; 0 for a built-in */
    uint32_t hashsz;    /*  4 buckets; nothing derives it from obj_sz */
    uint16_t hashfn;    /*  8 index into shkv_hash_matrix, or SHKV_USER_HASHFN */
    uint16_t rsv0;      /* 10 */
    uint32_t obj_sz;    /* 12 bytes of the object; 0 while it is empty */
    uint32_t obj_ver;   /* 16 raised once for each new contents or size: mappings go stale by it */
} md_desc;
SHKV_AT(md_desc, hashsz, 4);
SHKV_AT(md_desc, hashfn, 8);
SHKV_AT(md_desc, obj_sz, 12);
SHKV_AT(md_desc, obj_ver, 16);
SHKV_SIZE(md_desc, 20);

/* Descriptor of a record space. */
typedef struct ud_desc {
    uint32_t obj_sz;  /* 0 bytes of the object */
    uint32_t obj_ver; /* 4 as above; stored after obj_sz, so a reader that sees it sees the size */
} ud_desc;
SHKV_AT(ud_desc, obj_ver, 4);
SHKV_SIZE(ud_desc, 8);

/* supernode: the header record of a store, at offset 0 of its first object. The object is page
 * size + 720 bytes long and mapped over two pages; the trace ring starts at offset page size.
 * Creation writes everything, then magichead, then magictail, and never touches the two again. */
typedef struct supernode {
    uint32_t magichead;      /* 0x000 */
    uint32_t rsv0;           /* 0x004 */
    pthread_mutex_t wr_ksem; /* 0x008 robust; the writers' lock ("writer ksem" in messages) */
    sem_t resh_sem;          /* 0x030 guards the reshape tokens in comm_flg */
    uint32_t comm_flg;       /* 0x050 state; writer, and reshaper and destroyer */
    uint32_t wr_tid[8];      /* 0x054 kernel thread ids of writers; slot 0 alone without CONF_MULTIWR */
    uint32_t sn_flg;         /* 0x074 SN_* */
    uint32_t rsv1;           /* 0x078 */
    uint32_t gc_flg;         /* 0x07c bit 4: the fixed allocator takes back gc_slot nodes */
    uint32_t uuid;           /* 0x080 the creating service */
    uint16_t conf_flg;       /* 0x084 CONF_* */
    uint16_t maxksz;         /* 0x086 largest key, bytes */
    uint16_t maxvsz;         /* 0x088 largest value, bytes */
    uint16_t rsv2;           /* 0x08a */
    uint32_t maxents;        /* 0x08c planned entries */
    uint32_t conf_arg;       /* 0x090 the creator's own; never interpreted */
    uint32_t auto_rz;        /* 0x094 non-zero: grows by itself */
    uint16_t rz_tm_chk;      /* 0x098 limit of one slice of a table refill, microseconds */
    char dbname[235];        /* 0x09a NUL-padded */
    uint8_t dbname_xor;      /* 0x185 exclusive or of dbname's bytes; read by nothing */
    char uri[220];           /* 0x186 as given, less everything up to the first ':' */
    uint16_t rsv3;           /* 0x262 */
    uint32_t iodb_mark;      /* 0x264 IODB_* while a batch's undo log is live, else 0 */
    md_desc md1;             /* 0x268 */
    md_desc md2;             /* 0x27c */
    md_desc md_txn;          /* 0x290 */
    ud_desc ud1;             /* 0x2a4 */
    ud_desc ud2;             /* 0x2ac */
    uint32_t rsv4[5];        /* 0x2b4 */
    uint32_t magictail;      /* 0x2c8 */
    uint32_t rsv5;           /* 0x2cc */
} supernode;
SHKV_AT(supernode, magichead, 0x000);
SHKV_AT(supernode, wr_ksem, 0x008);
SHKV_AT(supernode, resh_sem, 0x030);
SHKV_AT(supernode, comm_flg, 0x050);
SHKV_AT(supernode, wr_tid, 0x054);
SHKV_AT(supernode, sn_flg, 0x074);
SHKV_AT(supernode, gc_flg, 0x07c);
SHKV_AT(supernode, uuid, 0x080);
SHKV_AT(supernode, conf_flg, 0x084);
SHKV_AT(supernode, maxksz, 0x086);
SHKV_AT(supernode, maxvsz, 0x088);
SHKV_AT(supernode, maxents, 0x08c);
SHKV_AT(supernode, conf_arg, 0x090);
SHKV_AT(supernode, auto_rz, 0x094);
SHKV_AT(supernode, rz_tm_chk, 0x098);
SHKV_AT(supernode, dbname, 0x09a);
SHKV_AT(supernode, dbname_xor, 0x185);
SHKV_AT(supernode, uri, 0x186);
SHKV_AT(supernode, iodb_mark, 0x264);
SHKV_AT(supernode, md1, 0x268);
SHKV_AT(supernode, md2, 0x27c);
SHKV_AT(supernode, md_txn, 0x290);
SHKV_AT(supernode, ud1, 0x2a4);
SHKV_AT(supernode, ud2, 0x2ac);
SHKV_AT(supernode, magictail, 0x2c8);
SHKV_SIZE(supernode, 0x2d0);
SHKV_SIZE(pthread_mutex_t, 40);
SHKV_SIZE(sem_t, 32);
#define SHKV_SN_SIZE 720u /* the record; the object is page size + this */

/* mdn: one bucket. Entry i lies at byte 8 * i of its MD. */
typedef struct mdn {
    uint32_t first_ptr; /* 0 offset of the first record of the chain. One store publishes */
    uint32_t rsv0;      /* 4 zero */
} mdn;
SHKV_SIZE(mdn, 8);

/* udn: one record of a UD, at the start of a node.
 * Order: payload, sizes and cksum, then the record's own link, then the one store that makes
 * it reachable. After that only the links change, until the manager hands the node out anew.
 * A record has two links because it stands in two tables while one of them is rebuilt. */
typedef struct udn {
    uint32_t unit_next; /*  0 next unit of a vector; the list link while free or held. Managers */
    uint32_t md1_next;  /*  4 next record in MD1's chain. Writer stores, readers load */
    uint32_t md2_next;  /*  8 the same for MD2; MD_TXN borrows the link of the idle one of the two */
    uint16_t key_sz;    /* 12 bytes of the key */
    uint16_t val_sz;    /* 14 bytes of the value */
    uint16_t unit_cnt;  /* 16 units of a vector, this one included; unused in fixed mode */
    uint8_t nd_flg;     /* 18 UDN_DELETED or 0 */
    uint8_t cksum;      /* 19 over key and value: how a reader notices a reused record */
} udn;
SHKV_AT(udn, md1_next, 4);
SHKV_AT(udn, md2_next, 8);
SHKV_AT(udn, key_sz, 12);
SHKV_AT(udn, val_sz, 14);
SHKV_AT(udn, unit_cnt, 16);
SHKV_AT(udn, nd_flg, 18);
SHKV_AT(udn, cksum, 19);
SHKV_SIZE(udn, 20);
#define UDN_DELETED 0x1u
#define UDN_HEAD_SZ 20u /* fixed mode: the key starts here, the value right behind it */

/* The first unit of a vector record: the udn, two more words, then the payload. Every further
 * unit is its unit_next and dn_sz - 4 bytes of payload. */
typedef struct vec_udn {
    udn head;           /*  0 */
    uint32_t last_unit; /* 20 offset of the record's last unit: freeing needs no walk */
    uint32_t val_off;   /* 24 offset of the value's first byte; never that of a unit_next */
} vec_udn;
SHKV_AT(vec_udn, last_unit, 20);
SHKV_AT(vec_udn, val_off, 24);
SHKV_SIZE(vec_udn, 28);
#define VEC_HEAD_SZ 28u  /* the payload of a first unit starts here */
#define VEC_UNIT_SZ 128u /* dn_sz of every vector store */

/* An interim record of a reshape lies over a fixed-mode node: replay links it as it stands. */
typedef struct intrm_rec {
    uint32_t intrm_op;   /*  0 INTRM_*; over unit_next */
    uint32_t intrm_next; /*  4 next on the list; over md1_next */
    uint32_t md2_next;   /*  8 */
    uint16_t key_sz;     /* 12 */
    uint16_t val_sz;     /* 14 only for INTRM_ADD */
    uint16_t rsv0;       /* 16 */
    uint8_t nd_flg;      /* 18 */
    uint8_t cksum;       /* 19 only for INTRM_ADD */
} intrm_rec;
SHKV_AT(intrm_rec, cksum, 19);
SHKV_SIZE(intrm_rec, 20);
#define INTRM_ADD 0x1001u
#define INTRM_DEL 0x1002u
#define INTRM_DEAD 0x10ffu

/* One pair of the table that a record space's reclaimer fills. */
typedef struct gc_pair {
    uint32_t dn_off; /* 0 */
    uint32_t busy;   /* 4 */
} gc_pair;
SHKV_SIZE(gc_pair, 8);

/* sbm: the header of a UD, at its offset 0. The store's writer alone loads and stores it (and,
 * in a reshape, the reshaper, both under wr_ksem); readers never look, except at dn_base, dn_sz
 * and ud_end. Two singly linked lists of nodes end in a link of 0: held nodes wait for readers
 * that may still stand on them, free ones are handed out. The last node of each is a sentinel. */
typedef struct sbm {
    uint32_t magichead;   /*   0 */
    uint32_t dn_base;     /*   4 first node, always 256 */
    int32_t dn_tail;      /*   8 first never-used offset; only grows */
    uint32_t free_head;   /*  12 */
    uint32_t free_tail;   /*  16 sentinel, never handed out */
    uint32_t hold_head;   /*  20 */
    uint32_t hold_tail;   /*  24 */
    uint32_t hold_mark;   /*  28 last node whose wait has started; 0 without a running wait */
    uint32_t dn_sz;       /*  32 bytes of a node, a multiple of 4 */
    uint32_t ud_end;      /*  36 end of the usable space: dn_base plus whole nodes */
    int32_t ud_full;      /*  40 start of the reserve for held nodes */
    uint32_t put_cnt;     /*  44 putnd calls since the last mark */
    uint32_t hold_cnt;    /*  48 nodes held behind the mark */
    uint32_t free_cnt;    /*  52 nodes free ahead of free_tail */
    uint32_t mark_cnt;    /*  56 nodes from hold_head through hold_mark */
    uint16_t chk_cnt;     /*  60 put_cnt at which putnd next looks at the clock */
    uint16_t get_cnt;     /*  62 getnd calls counted while mark_cnt is at least 30 */
    uint64_t mark_tsc;    /*  64 stamp of the mark, low 32 bits of the cycle counter; 0 without */
    gc_pair gc_slot[16];  /*  72 */
    uint32_t sbm_flg;     /* 200 bit 0: gc_slot holds nodes to take back */
    uint32_t magictail;   /* 204 */
    uint32_t intrm_head;  /* 208 interim list, reshaper's end */
    uint32_t intrm_tail;  /* 212 interim list, writer's end */
    uint32_t rsv0[10];    /* 216 */
} sbm;
SHKV_AT(sbm, dn_tail, 8);
SHKV_AT(sbm, free_head, 12);
SHKV_AT(sbm, hold_mark, 28);
SHKV_AT(sbm, dn_sz, 32);
SHKV_AT(sbm, ud_end, 36);
SHKV_AT(sbm, ud_full, 40);
SHKV_AT(sbm, put_cnt, 44);
SHKV_AT(sbm, hold_cnt, 48);
SHKV_AT(sbm, free_cnt, 52);
SHKV_AT(sbm, mark_cnt, 56);
SHKV_AT(sbm, chk_cnt, 60);
SHKV_AT(sbm, get_cnt, 62);
SHKV_AT(sbm, mark_tsc, 64);
SHKV_AT(sbm, gc_slot, 72);
SHKV_AT(sbm, sbm_flg, 200);
SHKV_AT(sbm, magictail, 204);
SHKV_AT(sbm, intrm_head, 208);
SHKV_AT(sbm, intrm_tail, 212);
SHKV_SIZE(sbm, 256);
#define GC_FLG_TAKE 0x10u  /* bit 4 of gc_flg in the supernode */
#define SBM_FLG_SLOTS 0x1u /* bit 0 of sbm_flg */

/* Chunks of a CONF_SHMAP record space: 32 MB below 128 MB, numbers 0 to 3; 128 MB from there. */
#define CHUNK_SMALL 0x2000000u
#define CHUNK_BIG 0x8000000u
#define UD_MAPS 512u

/* The value of a registry record. The key is the store's uri, without a NUL. */
typedef struct reg_rec {
    uint32_t reg_flags; /*  0 9, and 0x10000 and 0x20000 as the creator chose */
    uint32_t reg_uuid;  /*  4 owner */
    uint32_t reg_size;  /*  8 bytes: at creation, or the record space's after it grew */
    uint32_t vdc_id;    /* 12 SYSMGR_VDC_ID of the process that wrote the record, or 0 */
} reg_rec;
SHKV_SIZE(reg_rec, 16);

/* The trace ring: the last failures of a store, written by all its processes under the mutex. */
typedef struct trace_ring {
    uint32_t magic;          /*  0 TRACE_MAGIC while valid; stored last */
    uint16_t flags;          /*  4 1, with TRACE_LOCKED when writers take the mutex */
    uint16_t rec_sz;         /*  6 16 */
    uint16_t count;          /*  8 records */
    uint16_t index;          /* 10 slot of the next record */
    uint32_t rsv0;           /* 12 */
    uint64_t start_tsc;      /* 16 with start_tv: turns stamps into wall time */
    struct timeval start_tv; /* 24 */
    pthread_mutex_t mutex;   /* 40 robust; zero in an unlocked ring */
} trace_ring;
SHKV_AT(trace_ring, flags, 4);
SHKV_AT(trace_ring, count, 8);
SHKV_AT(trace_ring, index, 10);
SHKV_AT(trace_ring, start_tsc, 16);
SHKV_AT(trace_ring, start_tv, 24);
SHKV_AT(trace_ring, mutex, 40);
SHKV_SIZE(trace_ring, 80);
typedef struct trace_rec {
    uint32_t code; /* 0 top byte: class; low 24 bits: event */
    uint32_t arg;  /* 4 */
    uint64_t tsc;  /* 8 full cycle counter */
} trace_rec;
SHKV_SIZE(trace_rec, 16);
#define TRACE_MAGIC 0xf00dbabeu
#define TRACE_LOCKED 0x1000u
#define TRACE_ONE 0x01000000u    /* a whole event */
#define TRACE_PAIR1 0x03000000u  /* first of a pair */
#define TRACE_PAIR2 0x04000000u  /* second: another value in arg, no time */
#define TRACE_STR1 0x0b000000u   /* first of a string event */
#define TRACE_STR2 0x0c000000u   /* second: bytes 4 to 15 are text */

#endif
