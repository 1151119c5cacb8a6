// The events that a store's ring can hold. A test holds this table against the library's sources.
#include "shkvctl/events.h"

#include <errno.h>
#include <fmt/format.h>
#include <string.h>

#include <algorithm>

#include "shkvctl/text.h"

namespace
{
using enum Severity;
using enum ValueKind;

// clang-format off
constexpr Event table_of_events[] = {
    {0x0E, LIMIT, "shkv_register", {RESULT, "result of the write to the registry"}, {},
     "shkv registery operate reg failed, retv:%d"},
    {0x10, REFUSED, "shkv_lookup, shkv_lookup_lite", {HANDLE, "the handle"}, {},
     "shkv_lookup, the db has been destroyed, shkvh:%d|shkv_add, the db has been destroyed, shkvh:%d"},
    {0x11, CALLER, "shkv_lookup, shkv_lookup_lite", {HANDLE, "the handle"}, {},
     "shkv_lookup, has bad buffer, shkvh:%d|(shkv_lookup_lite: no fixed store)"},
    {0x12, CALLER, "shkv_lookup, shkv_lookup_lite", {HANDLE, "the handle"}, {},
     "shkv_lookup, key buffer size is 0, shkvh:%d|shkv_lookup, has bad buffer, shkvh:%d"},
    {0x13, DAMAGE, "shkv_lookup", {HANDLE, "the handle"}, {}, "shkv_lookup,bad checksum, shkvh:%d"},
    {0x15, CALLER, "shkv_lookup, shkv_lookup_lite", {HANDLE, "the handle"}, {},
     "shkv_lookup, value buffer is invalid, shkvh:%d|shkv_lookup, key buffer size is 0, shkvh:%d"},
    {0x16, SYSTEM, "shkv_lookup", {RESULT, "the result"}, {}, "shkv_lookup, check_hdmd_remap failed %d"},
    {0x17, CALLER, "shkv_create", {UUID, "uuid of the service"}, {}, "uuid:%d, the key size is 0"},
    {0x18, LIMIT, "shkv_create", {COUNT, "planned entries"}, {},
     "The shkvdb is too big, maxksz=%d, maxvsz=%d, maxents=%d"},
    {0x19, CALLER, "shkv_create", {UUID, "uuid of the service"}, {}, "uuid:%d, the uri is NULL"},
    {0x1A, CALLER, "shkv_create", {UUID, "uuid of the service"}, {}, "uuid:%d, the uri is too long"},
    {0x1B, SYSTEM, "shkv_create, shkv_get_mu_obj", {ERRNO, "errno; the uuid where a map table or a key is meant"}, {},
     "fail to allocate loc_ud_map|uuid:%d, the key size is too large|"
     "uuid:%d,failed to create MU-obj shm,errno:%d|db shkv semaphore post failed,errno:%d|"
     "db shkv semaphore wait failed,errno:%d|uuid:%d,failed to ftruncate mu shm obj,errno:%d|"
     "uuid:%d,failed to mmap mu shm obj,errno:%d"},
    {0x1C, CALLER, "shkv_create", {UUID, "uuid of the service"}, {}, "uuid:%d, the value size is too large"},
    {0x1D, SYSTEM, "shkv_create", {UUID, "uuid of the service"}, {ERRNO, "errno"},
     "uuid:%d, can not create DB_DIR,errno:%d"},
    {0x1E, SYSTEM, "shkv_create", {ERRNO, "errno"}, {}, "uuid:%d,db shkv semaphore wait failed,errno:%d"},
    {0x1F, SYSTEM, "shkv_create", {ERRNO, "errno"}, {}, "uuid:%d,failed to create supernode shm %s, errno:%d"},
    {0x20, SYSTEM, "shkv_create", {ERRNO, "errno"}, {}, "uuid:%d,failed to ftruncate supernode shm,errno:%d"},
    {0x21, SYSTEM, "shkv_create", {ERRNO, "errno"}, {}, "uuid:%d,failed to mmap supernode shm,errno:%d"},
    {0x22, SYSTEM, "shkv_create", {ERRNO, "errno"}, {}, "uuid:%d,db shkv semaphore post failed,errno:%d"},
    {0x25, SYSTEM, "shkv_create", {UUID, "uuid of the service"}, {ERRNO, "errno"},
     "uuid:%d, can not create supernode,errno:%d"},
    {0x27, CALLER, "shkv_create", {ERRNO, "errno"}, {}, "set_hdmd_hash fail %s %d"},
    {0x28, SYSTEM, "shkv_create", {UUID, "uuid of the service"}, {ERRNO, "errno"},
     "uuid:%d, can not create MU_DIR,errno:%d"},
    {0x29, SYSTEM, "shkv_create", {ERRNO, "error of the object"}, {BYTES, "size of MD1"},
     "shkv_get_mu_obj fail MD1 %s %d"},
    {0x2A, SYSTEM, "shkv_create", {ERRNO, "error of the object"}, {BYTES, "size of MD2"},
     "shkv_get_mu_obj fail MD2 %s %d"},
    {0x2B, SYSTEM, "shkv_create", {ERRNO, "error of the object"}, {}, "%s: failed to get MD_TXN obj"},
    {0x2C, SYSTEM, "shkv_create", {ERRNO, "error of the object"}, {},
     "shkv_get_mu_obj fail UD1 %s %d %d %d %d"},
    {0x2E, SYSTEM, "shkv_create", {ERRNO, "error of the object"}, {COUNT, "planned entries"},
     "shkv_get_mu_obj fail UD2 %s %d %d %d %d"},
    {0x2F, REFUSED, "shkv_create", {NUMBER, "errno or uuid, as the message has it"}, {},
     "uuid:%d, resgister database failed %d|db shkv semaphore post failed,errno:%d|"
     "db shkv semaphore wait failed,errno:%d|uuid:%d, L3 database is too big|"
     "%s uuid:%d, opened too many database|uuid:%d, opened database failed|"
     "uuid:%d, the dbconf mode is not supported|init resh_sem fail %s|init sn kmutex fail %s"},
    {0x30, CALLER, "shkv_create", {FLAGS, "conf_flg"}, {}, "SHKV shared mapping do not support FIXEDMM"},
    {0x31, SYSTEM, "shkv_reopen_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,db shkv semaphore wait failed,errno:%d"},
    {0x32, CALLER, "shkv_reopen_mdobj", {NUMBER, "5, always"}, {}, "wrong obj_t for shkv_reopen_mdobj %d"},
    {0x33, SYSTEM, "shkv_reopen_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,failed to open mu shm, errno:%d"},
    {0x34, SYSTEM, "shkv_reopen_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,failed to call fstat of shm, errno:%d"},
    {0x35, SYSTEM, "shkv_reopen_mdobj", {ERRNO, "errno"}, {},
     "uuid:%d,failed to ftruncate supernode shm,errno:%d"},
    {0x36, SYSTEM, "shkv_reopen_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,failed to mmap mdnode shm:%d"},
    {0x37, SYSTEM, "shkv_reopen_mdobj", {NUMBER, "5, always"}, {}, "allocate loc_ud_map fail in shkv_open"},
    {0x38, SYSTEM, "shkv_reopen_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,db shkv semaphore post failed,errno:%d"},
    {0x39, SYSTEM, "shkv_remap_mdobj", {ERRNO, "errno"}, {}, "db shkv semaphore wait failed,errno:%d"},
    {0x3C, SYSTEM, "shkv_remap_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,failed to mmap obj shm:%d"},
    {0x3E, SYSTEM, "shkv_remap_mdobj", {ERRNO, "errno; the uuid where a map table is meant"}, {},
     "uuid:%d,failed to open mu shm, errno:%d|fail to allocate loc_ud_map|uuid:%d,failed to mmap obj shm:%d"},
    {0x3F, SYSTEM, "shkv_open_reshaping", {NUMBER, "errno; the uuid where the writers' lock is meant"}, {},
     "%s,fail to get writer ksem|uuid:%d,db shkv semaphore wait failed,errno:%d"},
    {0x40, REFUSED, "shkv_open_reshaping", {UUID, "uuid of the service"}, {},
     "uuid:%d,reshape token was taken:%x"},
    {0x41, CALLER, "shkv_open_reshaping", {UUID, "uuid of the service"}, {},
     "uuid:%d,process is not allowed to reshape:"},
    {0x42, SYSTEM, "shkv_open_reshaping", {ERRNO, "errno"}, {},
     "uuid:%d,db shkv semaphore post failed,errno:%d"},
    {0x43, SYSTEM, "shkv_close", {ERRNO, "errno"}, {}, "shkv_close, MDO1N2 ftruncate failed %d"},
    {0x44, SYSTEM, "shkv_close", {ERRNO, "errno"}, {}, "shkv_close, MDN1O2 ftruncate failed %d"},
    {0x45, CALLER, "shkv_remap_mdobj", {NUMBER, "hashfn of the table"}, {},
     "shkv_remap_mdobj, new user-hashfn used, the db has to be reopened"},
    {0x46, SYSTEM, "shkv_remap_mdobj", {ERRNO, "errno"}, {}, "uuid:%d,db shkv semaphore post failed,errno:%d"},
    {0x47, SYSTEM, "check_hdmd_remap", {HANDLE, "the handle"}, {},
     "check_hdmd_remap, can not remap the obj, shkvh:%d"},
    {0x48, SYSTEM, "check_hdmd_remap", {HANDLE, "the handle"}, {},
     "check_hdmd_remap, can not remap the ud, shkvh:%d"},
    {0x4B, DAMAGE, "shkv_open, shkv_open_reshaping", {UUID, "uuid of the service"}, {},
     "uuid:%d, the db is insane."},
    {0x4C, REFUSED, "shkv_open", {UUID, "uuid of the service"}, {},
     "temporrily disable WRITE MODE when reshaping"},
    {0x4D, REFUSED, "shkv_open", {NUMBER, "thread of the living writer; errno or uuid where the message has that"}, {},
     "uuid:%d, WR not permitted, errno=%d|uuid:%d, the write is not permitted: %d %d|"
     "%s,fail to get writer ksem"},
    {0x4E, REFUSED, "shkv_open_reshaping", {UUID, "uuid of the service"}, {},
     "reshaping failed: dvmm mode currently not support shrink.|"
     "disable reshaping when DB is under resizing.|disable reshaping when DB is under txn."},
    {0x4F, CALLER, "shkv_open_reshaping", {UUID, "uuid of the service"}, {},
     "NULL shkv_rscf_p for __shkv_open"},
    {0x50, REFUSED, "shkv_open_reshaping", {FLAGS, "comm_flg; the uuid where sizes are meant"}, {},
     "bad object sizes for reshaping, md:%u ud:%u|DB is not sanity dbname:%s,comm_flg:%d"},
    {0x51, REFUSED, "shkv_open_reshaping", {FLAGS, "comm_flg"}, {}, "DB is not sanity dbname:%s,comm_flg:%d"},
    {0x52, SYSTEM, "shkv_open_mdudobj", {NUMBER, "2, always"}, {ERRNO, "why MD1 does not open"},
     "shkv_reopen_mdobj failed for %s %d %d %d"},
    {0x53, SYSTEM, "shkv_open_mdudobj", {NUMBER, "2, always"}, {ERRNO, "why MD2 or MD_TXN does not open"},
     "shkv_reopen_mdobj failed for %s %d %d %d|%s: failed to open md TXN obj"},
    {0x54, SYSTEM, "shkv_open_mdudobj", {NUMBER, "2, always"}, {ERRNO, "why UD1 does not open"},
     "shkv_reopen_mdobj failed for %s %d %d %d"},
    {0x55, SYSTEM, "shkv_open_mdudobj", {NUMBER, "2, always"}, {ERRNO, "why UD2 does not open"},
     "shkv_reopen_mdobj failed for %s %d %d %d"},
    {0x56, DAMAGE, "shkv_open_mdudobj", {ERRNO, "errno"}, {FLAGS, "comm_flg"}, "%s,the db is not sanity"},
    {0x57, CALLER, "set_hdmd_hashes", {FLAGS, "access mode"}, {}, "failed with md1 hash (access mode:0x%x)"},
    {0x58, CALLER, "set_hdmd_hashes", {FLAGS, "access mode"}, {},
     "failed with md2 hash|failed with md_txn hash"},
    {0x59, DAMAGE, "set_hdmd_mm", {FLAGS, "conf_flg"}, {}, "mem-mgmt mode is not supported"},
    {0x5A, SYSTEM, "shkv_open_reshaping", {NUMBER, "0; the mode of the record manager"}, {},
     "intrm_put, out of memory|UDO1N2 wrong MM in __shkv_open %d"},
    {0x5B, SYSTEM, "shkv_open_reshaping", {NUMBER, "0; the mode of the record manager"}, {},
     "intrm_put, out of memory|UDN1O2 wrong MM in __shkv_open %d"},
    {0x5C, LIMIT, "shkv_open, shkv_open_reshaping", {NUMBER, "what shkv_set_heads gave"}, {},
     "%s uuid:%d, shkv_set_heads fail %d"},
    {0x5E, SYSTEM, "shkv_open", {NUMBER, "errno; the uuid of a rollback"}, {},
     "uuid:%d, shkv_check_memsz_per_uuid failed in shkv_open, err = %d|"
     "uuid:%d, rollback failed when shkv open"},
    {0x5F, SYSTEM, "shkv_open_reshaping", {ERRNO, "errno"}, {}, "shkv_open for reshaping sem fail,errno:%d"},
    {0x60, SYSTEM, "shkv_open_reshaping", {ERRNO, "errno"}, {}, "shkv_open for reshaping sem fail,errno:%d"},
    {0x62, CALLER, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, write is not allowed, shkvh:%d"},
    {0x63, REFUSED, "shkv_add", {HANDLE, "the handle"}, {FLAGS, "sn_flg"},
     "shkv_add, write dbg is on-going, shkvh:%d"},
    {0x64, CALLER, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, has bad buffer, shkvh:%d"},
    {0x65, CALLER, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, key buffer size is 0, shkvh:%d"},
    {0x66, CALLER, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, value buffer is invalid, shkvh:%d"},
    {0x67, CALLER, "shkv_add", {HANDLE, "the handle"}, {BYTES, "key size"},
     "shkv_add, key buffer size is too big, shkvh:%d"},
    {0x68, CALLER, "shkv_add", {HANDLE, "the handle"}, {BYTES, "value size"},
     "shkv_add, value buffer is too big, shkvh:%d"},
    {0x69, REFUSED, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, the db has been destroyed, shkvh:%d"},
    {0x6A, SYSTEM, "shkv_add", {RESULT, "the result"}, {}, "shkv_add failed in check_hdmd_remap %d"},
    {0x6B, DAMAGE, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, bad mode config, shkvh:%d"},
    {0x6C, CALLER, "shkv_add", {HANDLE, "the handle"}, {}, "shkv_add, hashfunc is not inited, shkvh:%d"},
    {0x6D, SYSTEM, "shkv_add", {ERRNO, "errno"}, {}, "shkv_add, write protect failed, errno:%d"},
    {0x6E, DAMAGE, "shkv_add", {ERRNO, "error of the write"}, {}, "failed to write key: err 0x%x, key size %d"},
    {0x6F, DAMAGE, "shkv_add", {ERRNO, "error of the write"}, {}, "failed to write value: err 0x%x, val sz %d"},
    {0x70, CALLER, "shkv_add", {BYTES, "key size"}, {BYTES, "the limit"}, "shkv_add, key size is too big:%d"},
    {0x71, CALLER, "shkv_add", {BYTES, "value size"}, {BYTES, "the limit"},
     "shkv_add, value size is too big:%d"},
    {0x72, SYSTEM, "shkv_add", {ERRNO, "errno"}, {}, "shkv_add, write protect failed, errno:%d"},
    {0x74, CALLER, "shkv_lookup, shkv_lookup_lite", {NUMBER, "the handle; the result of a remap"}, {},
     "shkv_lookup, hashfunc is not inited, shkvh:%d|shkv_lookup, check_hdmd_remap failed %d"},
    {0x75, CALLER, "shkv_lookup, shkv_lookup_lite", {HANDLE, "the handle"}, {},
     "shkv_lookup,val buf too small, shkvh:%d|shkv_lookup, hashfunc is not inited, shkvh:%d"},
    {0x76, LIMIT, "shkv_lookup", {HANDLE, "the handle"}, {}, "shkv out of actual me in shkv_lookup"},
    {0x78, CALLER, "shkv_delete", {HANDLE, "the handle"}, {}, "shkv_del, write is not allowed, shkvh:%d"},
    {0x79, REFUSED, "shkv_delete", {HANDLE, "the handle"}, {FLAGS, "sn_flg"},
     "shkv_add, write dbg is on-going, shkvh:%d"},
    {0x7A, CALLER, "shkv_delete", {HANDLE, "the handle"}, {}, "shkv_delete, has bad buffer, shkvh:%d"},
    {0x7B, CALLER, "shkv_delete", {HANDLE, "the handle"}, {}, "shkv_delete, key buffer size is 0, shkvh:%d"},
    {0x7C, REFUSED, "shkv_delete", {HANDLE, "the handle"}, {}, "shkv_del, the db has been destroyed, shkvh:%d"},
    {0x7D, SYSTEM, "shkv_delete", {RESULT, "the result"}, {}, "shkv_delete, check_hdmd_remap failed %d"},
    {0x7E, REFUSED, "shkv_delete", {HANDLE, "the handle"}, {},
     "shkv_del, reshaping new db available, shkvh:%d"},
    {0x7F, CALLER, "shkv_delete", {HANDLE, "the handle"}, {}, "shkv_del, hashfunc is not inited, shkvh:%d"},
    {0x80, SYSTEM, "shkv_delete", {ERRNO, "errno"}, {}, "shkv_delete, write protect failed, errno:%d"},
    {0x81, SYSTEM, "shkv_delete", {ERRNO, "errno"}, {}, "shkv_add, write protect failed, errno:%d"},
    {0x82, SYSTEM, "shkv_close", {ERRNO, "errno"}, {}, "shkv_close, UDO1N2 ftruncate failed %d"},
    {0x83, SYSTEM, "shkv_close", {ERRNO, "errno"}, {}, "shkv_close, UDN1O2 ftruncate failed %d"},
    {0x84, SYSTEM, "shkv_close", {ERRNO, "errno"}, {}, "the db shkv semaphore wait failed,errno:%d"},
    {0x85, SYSTEM, "shkv_close", {ERRNO, "errno"}, {}, "db shkv semaphore post failed,errno:%d"},
    {0x87, CALLER, "shkv_destroy", {HANDLE, "the handle"}, {},
     "shkv_destroy, destroy is not allowed, shkvh:%d"},
    {0x88, REFUSED, "shkv_destroy", {HANDLE, "the handle"}, {}, "shkv_destroy, DB is already destroyed"},
    {0x8A, CALLER, "shkv_iterate", {HANDLE, "the handle"}, {},
     "shkv_iterate,not opened for SHKV_AM_ITER, shkvh:%d"},
    {0x8B, CALLER, "shkv_iterate", {HANDLE, "the handle"}, {}, "shkv_iterate, all empty buffers, shkvh:%d"},
    {0x8C, CALLER, "shkv_iterate", {HANDLE, "the handle"}, {}, "shkv_iterate,key buffer is invalid,shkvh:%d"},
    {0x8D, CALLER, "shkv_iterate", {HANDLE, "the handle"}, {}, "shkv_iterate,val buffer is invalid,shkvh:%d"},
    {0x8E, REFUSED, "shkv_iterate", {HANDLE, "the handle"}, {},
     "shkv_iter, the db has been destroyed, shkvh:%d"},
    {0x8F, REFUSED, "shkv_iterate", {HANDLE, "the handle"}, {},
     "shkv_iter, slow path forbid iterate, shkvh:%d"},
    {0x90, SYSTEM, "shkv_iterate", {RESULT, "the result"}, {}, "shkv_iter, check_hdmd_remap fail %d"},
    {0x91, DAMAGE, "shkv_iterate", {HANDLE, "the handle"}, {}, "shkv_lookup,bad checksum, shkvh:%d"},
    {0x92, DAMAGE, "shkv_iterate", {HANDLE, "the handle"}, {}, "shkv_lookup,bad checksum, shkvh:%d"},
    {0xB4, NOTE, "shkv_m_add", {HANDLE, "the handle"}, {}, "shkv_m_add, the logDB: iodb existing, shkvh:%d"},
    {0xB5, CALLER, "shkv_m_add", {HANDLE, "the handle"}, {}, "shkv_m_add, write is not allowed, shkvh:%d"},
    {0xB6, REFUSED, "shkv_m_add", {HANDLE, "the handle"}, {FLAGS, "access mode"},
     "shkv_m_add, write dbg is on-going, shkvh:%d"},
    {0xB7, CALLER, "shkv_m_add", {HANDLE, "the handle"}, {}, "shkv_m_add, has bad pointer, shkvh:%d"},
    {0xB8, CALLER, "shkv_m_add", {HANDLE, "the handle"}, {}, "shkv_m_add, m_cnt is invalid, shkvh:%d"},
    {0xB9, REFUSED, "shkv_m_add", {RESULT, "the result"}, {}, "shkv_m_add, non_atomic failed, retv:%d"},
    {0xBA, LIMIT, "shkv_m_add", {ERRNO, "error of the log's creation"}, {},
     "shkv_m_add, iodb creation failed, err:%d"},
    {0xBB, REFUSED, "shkv_m_add", {RESULT, "the result"}, {}, "shkv_m_add, odb lookup failed, retv:%d"},
    {0xBC, LIMIT, "shkv_m_add", {RESULT, "the result"}, {}, "shkv_m_add, iodb adding failed, retv:%d"},
    {0xBD, REFUSED, "shkv_m_add", {RESULT, "the result"}, {}, "shkv_m_add, atomic failed, retv:%d"},
    {0xBE, SYSTEM, "shkv_m_add", {RESULT, "the result"}, {}, "shkv_m_add, destroy failed, retv:%d"},
    {0xBF, SYSTEM, "shkv_m_add", {ERRNO, "error of the open"}, {}, "shkv_m_add, re-open iodb failed, retv:%d"},
    {0xC0, SYSTEM, "shkv_m_add", {RESULT, "the result"}, {}, "shkv_m_add, destroy failed, retv:%d"},
    {0xC1, DAMAGE, "shkv_iodb_rollbk", {RESULT, "the result"}, {}, "can not iterate iodb"},
    {0xC2, LIMIT, "shkv_iodb_rollbk", {RESULT, "the result"}, {}, "shkv_iodb_rollbk, add failed, retv:%d"},
    {0xC3, SYSTEM, "shkv_iodb_rollbk", {RESULT, "the result"}, {}, "shkv_iodb_rollbk, del failed, retv:%d"},
    {0xC4, DAMAGE, "shkv_start_rollback", {ERRNO, "error of the open"}, {},
     "shkv_start_rollbk, open iodb failed, retv:%d"},
    {0xC5, SYSTEM, "shkv_start_rollback", {RESULT, "the result"}, {},
     "shkv_start_rollbk, iodb rbk failed, retv:%d"},
    {0xC6, SYSTEM, "shkv_start_rollback", {RESULT, "the result"}, {},
     "shkv_start_rollbk, destroy failed, retv:%d"},
    {0xE5, DAMAGE, "bucket_find_udn", {OFFSET, "the mapped end"}, {OFFSET, "where the bucket points"},
     "bucket_find_udn out of memory boundary 1 %d %d"},
    {0xE6, DAMAGE, "bucket_find_udn", {OFFSET, "the mapped end"}, {OFFSET, "where the link points"},
     "bucket_find_udn out of memory boundary 2 %d %d"},
    {0xE7, DAMAGE, "shkv_iterate", {OFFSET, "the mapped end"}, {OFFSET, "where the link points"},
     "shkv_iter mem out of boundary 3 %d %d"},
    {0xE8, DAMAGE, "shkv_dv_read", {OFFSET, "the space's end"}, {OFFSET, "where the next unit is said to be"},
     "shkv_dv_read out of memory boundary %d %d"},
    {0xE9, DAMAGE, "bucket_find_udn", {OFFSET, "the space's end"}, {OFFSET, "where the next unit is said to be"},
     "shkv_dv_key_cmp out of memory boundary %d %d"},
    {0xEB, NOTE, "shkv_refill_hashtb", {COUNT, "bucket that the rebuild goes on with; 0 when it is done"}, {},
     "(a slice of a table rebuild is over)"},
    {0xEC, SYSTEM, "shkv_resize_md", {ERRNO, "errno"}, {}, "db shkv semaphore wait failed,errno:%d"},
    {0xED, SYSTEM, "shkv_add", {NUMBER, "errno; the handle for a rebuild"}, {},
     "shkv_continue_refill_md can not identify MD|shkv_continue_refill_md can not identify UD|"
     "db shkv semaphore wait failed,errno:%d"},
    {0xEE, SYSTEM, "shkv_add", {ERRNO, "errno"}, {}, "shkv_resize_ud, fail to return original space"},
    {0xEF, DAMAGE, "shkv_add", {NUMBER, "0, always"}, {}, "can not identify ud in shkv_resize_ud"},
    {0xF0, LIMIT, "shkv_add", {BYTES, "size of the record space"}, {},
     "Reached MAX database size. Failed to resize."},
    {0xF1, LIMIT, "shkv_add", {BYTES, "what the service uses; for a chunk, its size"}, {},
     "%s failed due to memory limit per uuid %lu %lu|%s failed %lu %lu %lu"},
    {0xF2, DAMAGE, "shkv_resize_md", {FLAGS, "comm_flg"}, {}, "shkv_resize_md can not identify which UD"},
    {0xF3, SYSTEM, "shkv_resize_md", {ERRNO, "errno"}, {},
     "fd %d failed to mmap obj shm:%d|fd:%d, failed to ftruncate obj shm,errno:%d|"
     "db shkv semaphore post failed,errno:%d"},
    {0xF4, SYSTEM, "shkv_add", {ERRNO, "errno"}, {}, "fd:%d, failed to ftruncate obj shm,errno:%d"},
    {0xF6, SYSTEM, "shkv_add", {ERRNO, "errno; the reserve's start where that stayed the same"}, {},
     "fd %d failed to mmap obj shm:%d|shkv_resize_ud ud_full unchanged %d %d %d %d %d %d %d|"
     "db shkv semaphore post failed,errno:%d"},
    {0xF7, SYSTEM, "shkv_remap_mdobj", {ERRNO, "errno"}, {BYTES, "what is mapped so far"},
     "uuid:%d,failed to mmap obj shm:%d"},
};
// clang-format on

struct SeverityName {
    const char *name, *words;
};

constexpr SeverityName severities[] = {
    {"note", "Nothing is wrong."},
    {"caller", "A wrong argument, a handle without the right to do this, or a hash function that is not the "
               "store's. Look at the program that made the call."},
    {"refused", "Not in the state that the store is in: destroyed, being reshaped, or written to by another. "
                "It works again, or not, when that state ends."},
    {"limit", "Out of room: the store's own limit, the service's budget, or the machine's memory. See shkvctl "
              "limits and shkvctl doctor."},
    {"system", "A call to the system failed: a semaphore, a mapping, a file. The errno says why; ENOMEM and "
               "EMFILE are the process's limits."},
    {"damage", "The store's bytes make no sense at this place. See shkvctl check; a record that is replaced "
               "while it is read is no damage and is not reported."},
};
} // namespace

std::span<const Event> events()
{
    return table_of_events;
}

const Event *find_event(uint32_t id)
{
    auto all = events();
    auto at =
        std::lower_bound(all.begin(), all.end(), id, [](const Event &e, uint32_t want) { return e.id < want; });
    return at != all.end() && at->id == id ? &*at : nullptr;
}

const char *severity_name(Severity sev)
{
    return severities[(int)sev].name;
}

const char *severity_words(Severity sev)
{
    return severities[(int)sev].words;
}

std::vector<std::string> event_texts(const Event &event)
{
    std::vector<std::string> list;
    for (std::string_view rest = event.texts;;) {
        size_t bar = rest.find('|');
        list.emplace_back(rest.substr(0, bar));
        if (bar == std::string_view::npos)
            return list;
        rest.remove_prefix(bar + 1);
    }
}

static std::string errno_name(uint32_t number)
{
    const char *name = number ? strerrorname_np((int)number) : "none";
    return name ? name : std::to_string((int32_t)number);
}

std::string value_words(const EventValue &value, uint32_t number)
{
    switch (value.kind) {
    case NONE:
        return fmt::format("{:#x}", number);
    case HANDLE:
        return fmt::format("handle {}", (int32_t)number);
    case UUID:
        return fmt::format("uuid {}", number);
    case ERRNO:
    case RESULT:
        return errno_name(number);
    case BYTES:
        return count_of(number, "byte");
    case FLAGS:
    case OFFSET:
        return fmt::format("{} {:#x}", value.kind == OFFSET ? "offset" : "flags", number);
    case COUNT:
    case NUMBER:
        break;
    }
    return std::to_string(number);
}
