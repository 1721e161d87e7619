// What a command prints.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace apps {

// Runs it by the shell, and returns what it has printed to its standard output; "" where it can't be run.
// most: bytes; what a command prints beyond, and some kilobytes more, is left out.
std::string outputOf(const std::string& command, std::size_t most = SIZE_MAX);

}  // namespace apps
