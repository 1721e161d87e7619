// File descriptors as the programs use them.
#pragma once

#include "base/synced_folder.h"
#include "base/unique_fd.h"

namespace apps {

using Descriptor = sd::UniqueFd;
using sd::syncFolder;
using sd::syncNameOfEmpty;

}  // namespace apps
