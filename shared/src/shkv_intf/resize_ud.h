// Makes the record space longer: whole, or by chunks in a shared mapping.
#pragma once
#include "shkv.h"

int shkv_resize_ud(shkv_head *head, void *ring_p);
