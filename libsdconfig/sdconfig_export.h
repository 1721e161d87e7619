// Under the name that users of the library include.
#pragma once

#include "base/sdconfig_export.h"
