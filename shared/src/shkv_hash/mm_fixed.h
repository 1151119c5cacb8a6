// Fixed-size records: one node each. Exported, declared in shkv.h.
#pragma once
#include "shkv.h"
