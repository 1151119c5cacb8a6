// The interim list: what the writer does while a reshape moves the tables. Exported functions are
// declared in shkv.h. The list knows no reshape; row 7 replays it.
#pragma once
#include "shkv.h"
