#include "apps/sdconfig/backup/restored_trail.h"

#include "apps/common/time_text.h"
#include "apps/data/trail_check.h"
#include "apps/data/trail_note.h"
#include "src/sdconfig_came.h"
#include "trail/reader.h"

namespace cli {

namespace {

// "" where there is no trail.
std::string headOf(const std::string& folder) {
    sd::trail::Reader reader(folder, sd::trail::Order::NewestFirst);
    sd::trail::Line last;
    while (reader.next(last))
        if (last.problem.empty()) return headText(sd::trail::Head{last.entry.seq, sd::trail::lineDigest(last.text)});
    return "";
}

}  // namespace

std::string tellRestored(const std::string& folder, const std::string& replaced,
                         const std::optional<BackupManifest::State>& backup) {
    if (!apps::ringDigest()) return "no key ring is open that attests it";
    sd::trail::Entry entry;
    entry.what = "RESTORE";
    entry.came = sd::came::kDone;
    entry.head = headOf(replaced);
    if (backup) entry.why = "what was backed up at " + apps::timeText(backup->made);
    return apps::noteInTrail(folder, std::move(entry));
}

}  // namespace cli
