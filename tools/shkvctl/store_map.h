// A store as a picture: its buckets by the length of their chains, its record space by what is in it.
#pragma once

#include <string>

#include "shkvctl/raw_store.h"

std::string store_map_svg(RawStore &store); // throws Failure when there is nothing to draw
