// shkv_m_lookup is exported and declared in shkv.h.
#pragma once
#include "shkv.h"
