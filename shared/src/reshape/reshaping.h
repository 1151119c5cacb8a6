// The whole reshape; exported, declared in shkv.h.
#pragma once
#include "shkv.h"
