// Writers of a store are thread ids; these say who that is.
#pragma once

#include <cstdint>
#include <string>

bool thread_lives(uint32_t tid);
std::string thread_name(uint32_t tid);  // its command name, "" when it is gone
std::string thread_words(uint32_t tid); // "thread 4711 (packaged)", "thread 4711, which is gone"
