// Bytes of a file, a path or the bus as a person may see them.
#pragma once

#include "base/escaped.h"

namespace apps {

using sd::escaped;
using sd::escapedInJson;
using sd::quoted;
using sd::shellWord;

}  // namespace apps
