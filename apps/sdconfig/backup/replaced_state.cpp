#include "apps/sdconfig/backup/replaced_state.h"

#include <sys/stat.h>

#include <algorithm>

#include "apps/data/data_digest.h"
#include "apps/data/data_files.h"
#include "apps/data/data_reader.h"

namespace cli {

namespace {

// 0 where there is none of them.
std::int64_t lastWritten(const std::string& folder) {
    std::int64_t last = 0;
    for (const apps::DatabaseLayout* layout : apps::kLayouts)
        for (const char* suffix : {"", "-wal"}) {
            struct stat status {};
            if (::stat((folder + "/" + layout->file + suffix).c_str(), &status) == 0)
                last = std::max<std::int64_t>(last, status.st_mtim.tv_sec);
        }
    return last;
}

}  // namespace

std::optional<ReplacedState> replacedState(const std::string& folder, const BackupManifest::State& backup,
                                           const apps::Stop& stop) {
    using Kind = ReplacedState::Kind;
    const std::int64_t written = lastWritten(folder);
    if (written == 0) return std::nullopt;
    if (backup.digest.empty())
        return ReplacedState{Kind::Unknown, written, "no key ring was open when the backup was made"};
    const apps::DataReader tellsTheFolder(folder);
    const apps::DataDigest now = apps::digestOf(folder, backup.digest, stop);
    if (!now.problem.empty()) return ReplacedState{Kind::Unknown, written, now.problem};
    if (now.text == backup.digest) return ReplacedState{Kind::Same, written, ""};
    return ReplacedState{written >= backup.made ? Kind::Newer : Kind::Other, written, ""};
}

}  // namespace cli
