// shkv_params and its kin are exported and declared in shkv.h.
#pragma once
#include "shkv.h"
