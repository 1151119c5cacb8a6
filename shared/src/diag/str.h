// Bounded string helpers with defined results for null and overlap; exported, declared in shkv.h.
#pragma once
#include "shkv.h"
