// From the first program to the second.
#pragma once

#include "apps/sdconfig/request/request.h"

namespace cli {

// In the second program's environment: the version of the first.
inline constexpr char kHandedOverBy[] = "SDCONFIG_HANDED_OVER_BY";

// Becomes the second program, with the same arguments, descriptors and, but for the version, environment. It is looked
// for where this program lies, and nowhere else. Returns where it can't be run: the exit code, after telling so.
int handOver(const Request& request, char** argv);

}  // namespace cli
