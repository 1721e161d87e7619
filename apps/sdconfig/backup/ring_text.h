// A key ring as the text that stands in its file.
#pragma once

#include <optional>
#include <string>

#include "apps/sdconfig/backup/backup_seal.h"

namespace cli {

// A plain file alone, no link, of the size of a key ring at most. Nothing, with errno, where it can't be read.
std::optional<SecretText> readRingText(const std::string& path);

// Whether it is one that its slots alone open.
bool isWrappedRing(const std::string& path);

}  // namespace cli
