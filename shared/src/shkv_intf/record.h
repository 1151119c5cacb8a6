// Reads, writes and hashes the payload of a record, in both forms.
#pragma once
#include "shkv.h"

enum { REC_KEY = 1, REC_VALUE = 2 };
#define REC_KEY_MAX 2048u
#define REC_VALUE_MAX 65000u

// A reader may stand on a node that is reused: no offset leads outside the mapping (limit, bytes;
// 0 for the writer) and no more than room bytes are copied. 0, EINVAL, ENOMEM.
int shkv_dv_read(void *dst, uint32_t room, void *ud_base, const udn *udn_p, int which, shkv_head *head,
                 bool shared_map, uint32_t limit, void *ring_p);
int shkv_dv_write(void *ud_base, udn *udn_p, int which, const void *src, int32_t size, shkv_head *head,
                  bool shared_map, uint32_t udn_off);

// Hash of a stored key. In vector mode gathered into gather_p (REC_KEY_MAX bytes) when it spans
// units; *gathered_p (may be null) tells.
uint32_t shkv_hash_udn_key(shkv_hash_fn fn, void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map,
                           void *gather_p, int *gathered_p);
// The same for either mode: what refill, rehash and commit call.
uint32_t record_hash(shkv_hash_fn fn, void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map);

// The checksum of a whole record, by the store's mode; 0 in neither mode.
uint8_t record_cksum(void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map);
