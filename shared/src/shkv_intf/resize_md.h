// Sizes the idle table for the record space's capacity and refills it.
#pragma once
#include "shkv.h"

int shkv_resize_md(shkv_head *shkvh_p);
