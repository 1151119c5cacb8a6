// shkv_vdc_cleanup; exported, declared in shkv.h.
#pragma once
#include "shkv.h"
