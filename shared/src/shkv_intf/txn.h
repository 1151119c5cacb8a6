// Transactions; exported, declared in shkv.h.
#pragma once
#include "shkv.h"
