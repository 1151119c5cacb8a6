// The registry: an ordinary store that lists every store. (check_shkv_uri is in shkv.h.)
#pragma once
#include "shkv.h"

#define REG_DELETE 0x1u
#define REG_UPDATE 0x10u

// A read handle, left open by its callers; makes the registry when there is none. 0 with *err_p.
int shkv_reg_open(uint32_t *err_p);
int shkv_register(const char *uri, uint32_t uuid, uint32_t flags, uint32_t size);
