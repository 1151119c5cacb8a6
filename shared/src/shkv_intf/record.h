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

// The same read without a line or an event: 0, or the value. For a reader who first looks whether
// the record was still the one that it found.
int dv_read_quiet(void *dst, uint32_t room, void *ud_base, const udn *udn_p, int which, shkv_head *head,
                  bool shared_map, uint32_t limit);

// Whether a unit that a link names lies whole in what is mapped and below ud_end. limit 0: the writer.
bool dv_unit_ok(const void *ud_base, uint32_t unit_off, uint32_t limit, bool shared_map);

// Hash of a stored key. In vector mode gathered into gather_p (REC_KEY_MAX bytes) when it spans
// units; *gathered_p (may be null) tells.
uint32_t shkv_hash_udn_key(shkv_hash_fn fn, void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map,
                           void *gather_p, int *gathered_p);
// The same for either mode: what refill, rehash and commit call.
uint32_t record_hash(shkv_hash_fn fn, void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map);

// The checksum of a whole record, by the store's mode; 0 in neither mode.
uint8_t record_cksum(void *ud_base, const udn *udn_p, shkv_head *head, bool shared_map);
