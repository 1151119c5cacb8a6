// Records of variable size: chains of 128-byte units. Exported, declared in shkv.h.
#pragma once
#include "shkv.h"
