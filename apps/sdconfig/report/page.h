// The page of a report: one file, which loads nothing, and holds nothing of the data but as text.
#pragma once

#include <string>

#include "apps/sdconfig/report/report.h"

namespace cli {

std::string pageOf(const Report& report);

}  // namespace cli
