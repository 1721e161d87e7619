// Keys of secure values and policies don't tell upper from lower case, in ASCII alone.
#pragma once

#include "base/letter_case.h"

namespace cli {

using sd::folded;

}  // namespace cli
