// How the data folder that a backup is to replace stands to the backup.
#pragma once

#include <optional>
#include <string>

#include "apps/data/untouched_database.h"
#include "apps/sdconfig/backup/backup_manifest.h"

namespace cli {

struct ReplacedState {
    enum class Kind {
        Same,     // it holds what the backup holds
        Newer,    // it holds something else, and was written since
        Other,    // it holds something else, and was not written since
        Unknown,  // there is no digest of the backup, or its key is not at hand
    } kind;
    std::int64_t written;  // when its databases were written last, seconds since 1970
    std::string why;       // of Unknown, for a person
};

// Nothing where the folder holds no database. Tells the security layer the folder's own key ring.
std::optional<ReplacedState> replacedState(const std::string& folder, const BackupManifest::State& backup,
                                           const apps::Stop& stop);

}  // namespace cli
