// The trail of a folder that is restored.
#pragma once

#include <optional>
#include <string>

#include "apps/sdconfig/backup/backup_manifest.h"

namespace cli {

// Ends the trail of the folder, the backup's or a new one, with an entry of the restoring. It has the head of the trail
// that stood in `replaced`, which is kept elsewhere. Returns why there is no such entry, or "".
std::string tellRestored(const std::string& folder, const std::string& replaced,
                         const std::optional<BackupManifest::State>& backup);

}  // namespace cli
