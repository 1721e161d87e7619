#include "policies/policy_folders.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <set>
#include <string_view>

#include "base/folder_listing.h"
#include "base/shortage.h"
#include "base/sip_hash.h"

namespace sd {

namespace {

using State = PolicySource::State;

constexpr std::string_view kSuffix = ".json";
constexpr int kTries = 3;  // of a file that changes while it is read
constexpr char kBeingWritten[] = "is being written";

std::string reasonOf(int failure) {
    return std::string("can't be read: ") + std::strerror(failure);
}

bool isAbsent(int failure) {
    return failure == ENOENT || failure == ENOTDIR;
}

// Whether another try may do better, and nothing would tell when.
bool isPassing(int failure) {
    return failure != 0 && !isAbsent(failure) && failure != EACCES && failure != ELOOP;
}

bool isSameVersion(const struct stat& one, const struct stat& other) {
    return one.st_size == other.st_size && one.st_mtim.tv_sec == other.st_mtim.tv_sec &&
           one.st_mtim.tv_nsec == other.st_mtim.tv_nsec && one.st_ctim.tv_sec == other.st_ctim.tv_sec &&
           one.st_ctim.tv_nsec == other.st_ctim.tv_nsec;
}

// At most one byte more than a file may have. "" for a whole text, else why it could not be read.
std::string readText(int file, std::string& text) {
    constexpr std::size_t kMost = kPolicyFileBytesMax + 1;
    std::size_t size = 0;
    text.resize(std::size_t{64} << 10);
    while (true) {
        const ssize_t count = ::pread(file, &text[size], text.size() - size, static_cast<off_t>(size));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return reasonOf(errno);
        size += static_cast<std::size_t>(count);
        if (count == 0 || size == kMost) break;
        if (size == text.size()) text.resize(std::min(text.size() * 4, kMost));
    }
    text.resize(size);
    return size == kMost ? "is larger than 4 MiB" : "";
}

// The text as it was at one time.
std::string readWhole(const TrustedOpening& opening, std::string& text) {
    struct stat before = opening.status;
    for (int i = 0; i < kTries; ++i) {
        if (std::string problem = readText(opening.file.get(), text); !problem.empty()) return problem;
        struct stat after {};
        if (::fstat(opening.file.get(), &after) != 0) return reasonOf(errno);
        if (isSameVersion(before, after)) return "";
        before = after;
    }
    return "changes while it is read";
}

}  // namespace

// What one reading gathers.
struct PolicyFolders::Reading {
    const IsUnfinished& isUnfinished;
    std::vector<Folder> folders{};  // in force
    std::set<std::string> names{};
    std::size_t surplus = 0;  // names
    std::size_t bytes = 0;
    std::vector<MachinePolicies::File> files{};
    PolicyReadingStatus status{};
    std::map<std::string, Held> held{};

    bool isBeingWritten(const std::string& path) const { return isUnfinished && isUnfinished(path); }
    void noteFailure(int failure) {
        status.hasFailures |= isPassing(failure);
        status.isShort |= isShortage(failure);
    }
    int takeNames(int folder);
};

// Of the policy files in a folder. 0, or why not all could be read.
int PolicyFolders::Reading::takeNames(int folder) {
    FolderListing listing(folder);
    while (const char* const name = listing.next()) {
        if (!isPolicyFileName(name)) continue;
        names.insert(name);
        if (names.size() <= kPolicyFilesMax) continue;
        names.erase(std::prev(names.end()));
        ++surplus;
    }
    return errno;
}

std::vector<std::string> standardPolicyFolders() {
    return {"/usr/lib/sdconfig/policies.d", kAdministratorPolicies, "/run/sdconfig/policies.d"};
}

bool isPolicyFileName(const std::string& name) {
    return name.size() > kSuffix.size() && name.front() != '.' &&
           name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0;
}

PolicyFolders::PolicyFolders(std::vector<std::string> folders, uid_t owner)
    : mFolders(std::move(folders)), mOwner(owner) {}

std::shared_ptr<const MachinePolicies> PolicyFolders::read(PolicyUsers& users, const IsUnfinished& isUnfinished) {
    Reading reading{isUnfinished};
    reading.status.when = std::chrono::system_clock::now();
    for (const std::string& path : mFolders) listFolder(path, reading);
    for (const std::string& name : reading.names) takeName(name, reading);
    if (reading.surplus > 0)
        reading.status.files.push_back({"", State::LeftOut,
                                        std::to_string(reading.surplus) + " files, the last ones by their names, are " +
                                            "beyond the 10,000 that are read"});
    mHeld = std::move(reading.held);

    std::set<std::string> named;
    for (const MachinePolicies::File& file : reading.files)
        for (const PolicyEntry& entry : *file.entries) named.insert(entry.users.begin(), entry.users.end());
    reading.status.nobody = users.lookUp(named);
    reading.status.hasFailures |= !users.areAllAnswered();
    const auto isMeant = [&](const PolicyEntry& entry) { return entry.users.empty() || users.isAmong(entry.users); };
    return std::make_shared<MachinePolicies>(std::move(reading.files), isMeant, std::move(reading.status));
}

void PolicyFolders::listFolder(const std::string& path, Reading& reading) const {
    TrustedOpening opening = openTrusted(path, mOwner);
    reading.status.hasLinks |= opening.hasLink;
    const auto tell = [&](State state, std::string detail) {
        reading.status.folders.push_back({path, state, std::move(detail)});
    };
    if (!opening.distrust.empty()) return tell(State::LeftOut, opening.distrust);
    if (isAbsent(opening.failure)) return tell(State::Absent, "");
    if (opening.failure == 0 && (opening.isNull || !S_ISDIR(opening.status.st_mode)))
        return tell(State::LeftOut, "is no folder");
    if (opening.failure == 0) opening.failure = reading.takeNames(opening.file.get());
    reading.noteFailure(opening.failure);
    if (opening.failure == 0) {
        tell(State::Read, "");
    } else {
        // Which files are there nobody can tell: those that were stay.
        tell(State::Kept, reasonOf(opening.failure));
        for (const auto& [file, held] : mHeld)
            if (file.compare(0, path.size() + 1, path + "/") == 0) reading.names.insert(file.substr(path.size() + 1));
    }
    reading.folders.push_back({path, std::move(opening)});
}

// From the last folder to the first: what is there takes the place of what is in those before.
void PolicyFolders::takeName(const std::string& name, Reading& reading) {
    std::string taken;
    std::vector<PolicySource> sources;
    for (auto folder = reading.folders.rbegin(); folder != reading.folders.rend(); ++folder) {
        const std::string path = folder->path + "/" + name;
        TrustedOpening opening;
        if (folder->opening.failure != 0)
            opening.failure = mHeld.count(path) != 0 ? folder->opening.failure : ENOENT;
        else
            opening = openTrustedIn(folder->opening.file, folder->path, name, mOwner);
        reading.status.hasLinks |= opening.hasLink;
        reading.noteFailure(opening.failure);
        if (isAbsent(opening.failure)) continue;
        if (!opening.distrust.empty()) {
            sources.push_back({path, State::LeftOut, opening.distrust});
        } else if (mHeld.count(path) == 0 && reading.isBeingWritten(path)) {
            sources.push_back({path, State::LeftOut, kBeingWritten});  // it takes no place before it is whole
        } else if (!taken.empty()) {
            sources.push_back({path, State::Replaced, taken});
            if (const auto known = mHeld.find(path); known != mHeld.end()) reading.held.insert(*known);
        } else {
            sources.push_back(takeFile(path, opening, reading));
            taken = path;
        }
    }
    std::move(sources.rbegin(), sources.rend(), std::back_inserter(reading.status.files));
}

PolicySource PolicyFolders::takeFile(const std::string& path, const TrustedOpening& opening, Reading& reading) {
    if (opening.isNull) return {path, State::Masks, ""};
    if (opening.failure != 0) return keep(path, reasonOf(opening.failure), reading);
    if (!S_ISREG(opening.status.st_mode)) return {path, State::LeftOut, "is no regular file"};
    std::string text;
    if (const std::string problem = readWhole(opening, text); !problem.empty()) return keep(path, problem, reading);
    if (reading.isBeingWritten(path)) return keep(path, kBeingWritten, reading);
    if (text.empty()) {
        // Nothing is what it holds, also while somebody writes it.
        reading.held[path] = {sipHash({}, text), 0, std::make_shared<const std::vector<PolicyEntry>>(), ""};
        return {path, State::Masks, ""};
    }
    if (reading.bytes + text.size() > kPolicyBytesMax)
        return keep(path, "has, with the files before it, more than 32 MiB", reading);
    reading.bytes += text.size();
    return takeText(path, text, reading);
}

PolicySource PolicyFolders::takeText(const std::string& path, const std::string& text, Reading& reading) {
    const std::uint64_t digest = sipHash({}, text);
    const auto known = mHeld.find(path);
    if (known != mHeld.end() && known->second.digest == digest && known->second.bytes == text.size()) {
        if (!known->second.problem.empty()) return keep(path, known->second.problem, reading);
    } else {
        PolicyFile file = parsePolicyFile(text, PolicyForm::Machine);
        Held held{digest, text.size(), known != mHeld.end() ? known->second.entries : nullptr, file.problem};
        if (file.problem.empty()) {
            file.entries.shrink_to_fit();
            held.entries = std::make_shared<const std::vector<PolicyEntry>>(std::move(file.entries));
        }
        mHeld[path] = std::move(held);
        if (!file.problem.empty()) return keep(path, file.problem, reading);
    }
    const Held& held = mHeld[path];
    reading.held[path] = held;
    reading.files.push_back({path, held.entries});
    return {path, State::Read, "", held.entries->size()};
}

PolicySource PolicyFolders::keep(const std::string& path, const std::string& problem, Reading& reading) {
    const auto known = mHeld.find(path);
    if (known == mHeld.end()) return {path, State::LeftOut, problem};
    reading.held[path] = known->second;
    if (!known->second.entries) return {path, State::LeftOut, problem};
    reading.files.push_back({path, known->second.entries});
    return {path, State::Kept, problem, known->second.entries->size()};
}

}  // namespace sd
