// The tag of all lines of this layer.
#pragma once

#include "platform/velmarlog/log_line.h"

namespace sd::security {
constexpr char kTag[] = "sdsecurity";
}
