// The checksum byte of a record: how a reader without a lock notices that a node was reused.
#pragma once
#include "shkv.h"

// (shkv_data_checksum, of a fixed record's key and value, is declared in shkv.h.)
// Of a vector record: the first and last byte in use of each unit. It follows unit_next of a
// record that may be reused under it, so every offset is checked against limit (0: the writer,
// no check) and a record that leads outside yields 0 in the result. 1 when *out is good.
int shkv_udn_checksum(void *ud_base, shkv_head *head, const udn *udn_p, uint32_t limit, uint8_t *out,
                      bool shared_map);
