// Memory for key material.
#pragma once

#include <cstddef>

namespace sd::security {

// Pages apart from all others, which stay out of core dumps, and out of swap as far as the limit of locked memory
// (RLIMIT_MEMLOCK) goes; beyond it they are not locked. Any thread. Throws std::bad_alloc.
void* takeSecretMemory(std::size_t size);

// Wipes it. size: as it was taken.
void giveBackSecretMemory(void* memory, std::size_t size);

}  // namespace sd::security
