// Keys that are treated in a way of their own.
#pragma once

#include <string>

#include "base/sdconfig_export.h"

namespace sd {

// A key that is kept in the device's protected storage, where there is one. Exact comparison.
SDCONFIG_API bool isKeyInTPM(std::string key);

// A key that is always read from the product's build.prop. Exact comparison.
SDCONFIG_API bool isSpecialKeyInBuildProp(std::string key);

}  // namespace sd
