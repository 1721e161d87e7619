#include "apps/sdconfigd/clean_end.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>

#include "apps/common/descriptor.h"
#include "apps/data/data_files.h"
#include "platform/velmarlog/log_line.h"

namespace {

using apps::Descriptor;

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "apps/sdconfigd/clean_end";

constexpr char kForm[] = "sdconfigd ended cleanly, form 1\n";
constexpr std::size_t kBytesMax = 4096;

// O_NONBLOCK: a pipe planted under the name must not hold us up.
constexpr int kOpenFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// Where SQLite's file format counts the changes of a database.
constexpr off_t kChangeCounterAt = 24;

// A file system tells the time in steps of some milliseconds, an old one in seconds, for which there is no waiting.
constexpr int kStampings = 20;
constexpr std::chrono::milliseconds kStampPause{10};

// Whether a database may be damaged, or nobody would have told.
std::atomic<bool> sMayBeDamaged{true};

// SQLite's log, which any thread writes.
void noteDamage(void* /*context*/, int code, const char* /*text*/) {
    const int kind = code & 0xff;
    if (kind == SQLITE_CORRUPT || kind == SQLITE_NOTADB || kind == SQLITE_IOERR) sMayBeDamaged = true;
}

using Nanoseconds = int64_t;

Nanoseconds nanoseconds(const timespec& time) {
    return Nanoseconds{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

struct Description {
    std::string text;
    Nanoseconds changed = 0;  // when the last of the files was
};

struct File {
    Descriptor descriptor;
    struct stat status {};

    explicit File(const std::string& path) : descriptor(::open(path.c_str(), kOpenFlags)) {}
    bool isRegular() {
        return descriptor.get() >= 0 && ::fstat(descriptor.get(), &status) == 0 && S_ISREG(status.st_mode);
    }
};

std::string changeCounter(const File& database) {
    std::array<unsigned char, 4> bytes{};
    const ssize_t count = ::pread(database.descriptor.get(), bytes.data(), bytes.size(), kChangeCounterAt);
    if (count != static_cast<ssize_t>(bytes.size())) return " none";
    std::string text;
    for (const unsigned char byte : bytes) text += " " + std::to_string(byte);
    return text;
}

// False for a file that is none that a service makes.
bool describeFile(const std::string& folder, const std::string& name, Description& description) {
    File file(folder + "/" + name);
    if (!file.isRegular()) return false;
    const struct stat& status = file.status;
    description.text += name;
    for (const uint64_t fact : {static_cast<uint64_t>(status.st_dev), static_cast<uint64_t>(status.st_ino),
                                static_cast<uint64_t>(status.st_size)})
        description.text += " " + std::to_string(fact);
    for (const timespec& time : {status.st_mtim, status.st_ctim})
        description.text += " " + std::to_string(nanoseconds(time));
    if (name != apps::kRingFile) description.text += changeCounter(file);
    description.text += "\n";
    description.changed = std::max(description.changed, nanoseconds(status.st_ctim));
    return true;
}

bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
}

bool holdsBytes(const std::string& path) {
    struct stat status {};
    return exists(path) && (::lstat(path.c_str(), &status) != 0 || status.st_size > 0);
}

// Nothing where a database is missing, or has changes that stand in a log or a journal still.
std::optional<Description> describe(const std::string& folder) {
    Description description{kForm};
    for (const apps::DatabaseLayout* layout : apps::kLayouts) {
        if (!describeFile(folder, layout->file, description)) return std::nullopt;
        for (const char* log : {"-wal", "-journal"})
            if (holdsBytes(folder + "/" + layout->file + log)) return std::nullopt;
    }
    // The first value that is sealed makes it.
    const bool hasRing = exists(folder + "/" + apps::kRingFile);
    if (hasRing && !describeFile(folder, apps::kRingFile, description)) return std::nullopt;
    return description;
}

// Which files stand there as databases.
std::string databasesIn(const std::string& folder) {
    std::string identities;
    for (const apps::DatabaseLayout* layout : apps::kLayouts) {
        struct stat status {};
        if (::stat((folder + "/" + layout->file).c_str(), &status) != 0) return "";
        identities += std::to_string(status.st_dev) + " " + std::to_string(status.st_ino) + " ";
    }
    return identities;
}

// Its own text, whole; "" where it is none of this user's files.
std::string readMark(const std::string& path) {
    File file(path);
    if (!file.isRegular() || file.status.st_uid != ::geteuid()) return "";
    std::array<char, kBytesMax> bytes{};
    const ssize_t count = ::read(file.descriptor.get(), bytes.data(), bytes.size());
    return count > 0 ? std::string(bytes.data(), static_cast<std::size_t>(count)) : "";
}

// Writes the text at a time that the file system tells from that of the last change: whoever changes one of the files
// from now on gives it a time that the text doesn't have.
bool writeLater(int file, const Description& description) {
    const std::string& text = description.text;
    for (int i = 0; i < kStampings; ++i) {
        struct stat status {};
        if (::pwrite(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()) ||
            ::fstat(file, &status) != 0)
            return false;
        if (nanoseconds(status.st_mtim) > description.changed) return true;
        std::this_thread::sleep_for(kStampPause);
    }
    return false;
}

}  // namespace

CleanEndMark::CleanEndMark(const std::string& dataFolder)
    : mFolder(dataFolder), mPath(dataFolder + "/" + apps::kCleanEndFile) {}

void CleanEndMark::watchForDamage() {
    sMayBeDamaged = sqlite3_config(SQLITE_CONFIG_LOG, noteDamage, nullptr) != SQLITE_OK;
}

bool CleanEndMark::agrees() const {
    const std::string mark = readMark(mPath);
    const auto found = describe(mFolder);
    if (found && found->text == mark) {
        LOG(5, AT "the last service ended cleanly: the databases are not checked for damage again", HERE);
        return true;
    }
    LOG(5, AT "%s: the databases are checked for damage", HERE,
        exists(mPath) ? "something changed since the last service ended" : "no service ended cleanly here before");
    return false;
}

std::string CleanEndMark::remove() const {
    if (::unlink(mPath.c_str()) != 0) {
        if (errno == ENOENT) return "";
        return "can't remove " + mPath + ", the mark of the last end: " + std::strerror(errno);
    }
    return apps::syncFolder(mFolder) ? "" : "can't sync the folder " + mFolder + ": " + std::strerror(errno);
}

void CleanEndMark::noteServed() {
    mServed = databasesIn(mFolder);
}

void CleanEndMark::write() const {
    if (sMayBeDamaged || mServed.empty() || databasesIn(mFolder) != mServed) return;
    const auto description = describe(mFolder);
    if (!description) return;
    const std::string unfinished = mPath + ".new";
    ::unlink(unfinished.c_str());
    const Descriptor file(::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (file.get() < 0) return;
    // What changed meanwhile is described wrongly.
    const auto isStill = [&] {
        const auto found = describe(mFolder);
        return found && found->text == description->text;
    };
    if (writeLater(file.get(), *description) && isStill() && ::fsync(file.get()) == 0 &&
        std::rename(unfinished.c_str(), mPath.c_str()) == 0)
        apps::syncFolder(mFolder);
    else
        ::unlink(unfinished.c_str());
}
