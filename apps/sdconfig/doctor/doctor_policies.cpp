#include "apps/sdconfig/doctor/doctor_checks.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

constexpr char kPolicies[] = "machine policies";

std::string remedyFor(const sd::PolicySource& source) {
    std::string lint = "see all that is wrong with: sdconfig policy lint " + shellWord(source.path);
    if (source.detail.compare(0, 5, "line ") == 0) return lint;
    return "only root may own it, or be able to write it, and each folder above it; " + lint;
}

Check checkOf(const sd::PolicySource& source) {
    const bool isKept = source.state == sd::PolicySource::State::Kept;
    const std::string what = (source.path.empty() ? "" : source.path + ": ") + source.detail;
    if (source.path.empty()) return {kPolicies, what, "put the policies of several into one"};
    return {kPolicies, what + (isKept ? "; what it held before stays in force" : "; nothing of it counts"),
            remedyFor(source)};
}

}  // namespace

Checks checkPolicies(const Service& service) {
    const auto status = service.listening() ? machineStatus(service) : std::nullopt;
    if (!status || !status->isHere) return {};
    Checks checks;
    for (const auto* sources : {&status->reading.folders, &status->reading.files})
        for (const sd::PolicySource& one : *sources)
            if (isAmiss(one)) checks.push_back(checkOf(one));
    if (!status->isWatching)
        checks.push_back({kPolicies, "changes of the files are found within 30 s, not at once",
                          "put files, not links, on a file system that tells of changes; or the kernel has too few "
                          "watches: sysctl fs.inotify"});
    if (checks.empty()) checks.push_back({kPolicies, std::to_string(status->governed) + " in force", ""});
    return checks;
}

}  // namespace cli
