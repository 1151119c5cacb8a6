// The memory budget of a service and size queries by name; exported, declared in shkv.h.
#pragma once
#include "shkv.h"
