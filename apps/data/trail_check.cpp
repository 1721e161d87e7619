#include "apps/data/trail_check.h"

#include "base/shared_library.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "trail/files.h"

namespace apps {

namespace {

constexpr char kRemedy[] =
    "keep a copy of the trail's files as they are; who could write to the folder since? Moved away, with the service "
    "stopped, they make room for a new trail";

// Of the first bad line, or of the trail as a whole.
Finding findingOf(const std::string& folder, const sd::trail::Verdict& verdict) {
    const std::string file = folder + (verdict.file.empty() ? "" : "/" + verdict.file);
    const std::string line = verdict.number > 0 ? ", line " + std::to_string(verdict.number) : "";
    const std::string subject = verdict.file.empty() ? "the trail of " + folder + " " : file + line + " ";
    return {file, subject + verdict.problem, kRemedy};
}

}  // namespace

sd::trail::Digest ringDigest() {
    sd::SDSecurity& layer = *sd::SDSecurity::GetInstance();
    if (layer.CheckKeyRing().state != sd::SDSecurity::KeyRingState::Usable) return nullptr;
    return [&layer](const std::string& id, const std::vector<std::string_view>& texts) {
        return layer.DigestUnderKey(id, texts);
    };
}

std::vector<std::string> trailFiles(const std::string& folder) {
    std::vector<std::string> files;
    if (const sd::UniqueFd opened = sd::trail::openFolder(folder))
        for (sd::trail::RotatedFile& one : sd::trail::listRotated(opened.get())) files.push_back(std::move(one.name));
    files.insert(files.end(), {sd::trail::kCurrentFile, sd::trail::kTornFile});
    return files;
}

TrailCheck checkTrail(const std::string& folder, const sd::trail::Digest& digest,
                      const std::optional<sd::trail::Head>& head) try {
    TrailCheck check{sd::trail::verify(folder, digest, head), std::nullopt};
    if (!check.verdict.problem.empty()) check.finding = findingOf(folder, check.verdict);
    return check;
} catch (const sd::LibraryFailure& failure) {
    return {{}, Finding{folder, "the trail can't be verified: " + std::string(failure.what()), "install that library"}};
}

}  // namespace apps
