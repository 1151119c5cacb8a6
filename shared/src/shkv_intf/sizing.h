// Primes and object sizes. The exported functions are declared in shkv.h.
#pragma once
#include "shkv.h"

// Units behind ud_full after every growth, whatever the store's size.
constexpr uint32_t GROWN_RESERVE = 93;

// The chunk rule: where a mapped length ends. Fills map0_sz, map0_chunk and map0_gap of the head.
void set_map0(shkv_head *head, uint32_t mapped_sz);

// Bytes from off up to the end of the chunk that holds it (a whole chunk at a boundary).
uint32_t chunk_rest(uint32_t off);
