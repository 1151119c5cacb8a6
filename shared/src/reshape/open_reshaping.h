// The reshaper's open; exported, declared in shkv.h.
#pragma once
#include "shkv.h"
