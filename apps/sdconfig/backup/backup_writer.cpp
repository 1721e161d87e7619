#include "apps/sdconfig/backup/backup_writer.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>

#include "apps/data/data_check.h"
#include "apps/data/data_digest.h"
#include "apps/data/data_reader.h"
#include "apps/data/sqlite_handles.h"
#include "apps/sdconfig/backup/ring_text.h"
#include "apps/sdconfig/backup/trail_copy.h"

namespace cli {

namespace {

constexpr int kPagesAtOnce = 1024;
constexpr char kMakeRoom[] = "see that the folder of FILE can be written and has room";

// Hands the file's bytes to `take`, piece by piece. False where it can't be read, or `take` had enough.
bool readPieces(const std::string& path, const std::function<bool(std::string_view)>& take) {
    std::ifstream file(path, std::ios::binary);
    std::vector<char> piece(std::size_t{1} << 20);
    while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())), file.gcount() > 0)
        if (!take({piece.data(), static_cast<std::size_t>(file.gcount())})) return false;
    return file.eof();
}

}  // namespace

BackupWriter::BackupWriter(const std::string& folder, const std::string& file, const Interruption& interruption)
    : mFolder(folder), mFile(file), mInterruption(interruption), mStaging(file + ".unfinished-") {}

Problem BackupWriter::copyDatabases() {
    if (mStaging.path().empty()) return unwritten();
    mManifest.state = {std::time(nullptr), ""};
    for (const apps::DatabaseLayout* layout : apps::kLayouts)
        if (Problem problem = copyDatabase(*layout)) return problem;
    return {};
}

Problem BackupWriter::copyDatabase(const apps::DatabaseLayout& layout) {
    std::string failure;
    const auto copyTo = [&](sqlite3* db) {
        failure = copy(db, copyOf(layout.file));
        return SQLITE_OK;  // of the source; where reading it failed, so did the copy
    };
    const apps::DatabaseCheck check =
        apps::checkDatabase(mFolder + "/" + layout.file, layout, mInterruption.asked(), copyTo);
    if (mInterruption.came()) return stopped();
    if (!check.damage.empty()) return {check.damage.front().what, check.damage.front().next};
    if (!failure.empty()) return {"the database can't be copied: " + failure, kMakeRoom};
    mCounts.push_back(check.count);
    mSealed += check.sealed;
    mUnreadable += check.rows.size();
    return describe(copyOf(layout.file), mManifest.databases.emplace_back());
}

// Returns why not, or "".
std::string BackupWriter::copy(sqlite3* source, const std::string& path) const {
    std::filesystem::remove(path);
    sqlite3* opened = nullptr;
    sqlite3_open(path.c_str(), &opened);
    const apps::Database target(opened);
    sqlite3_exec(opened, "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
    sqlite3_backup* const backup = sqlite3_backup_init(opened, "main", source, "main");
    if (!backup) return sqlite3_errmsg(opened);
    int code = SQLITE_OK;
    while (code == SQLITE_OK && !mInterruption.came()) code = sqlite3_backup_step(backup, kPagesAtOnce);
    sqlite3_backup_finish(backup);
    return code == SQLITE_DONE ? "" : sqlite3_errstr(code);
}

Problem BackupWriter::describe(const std::string& copy, BackupManifest::Database& description) {
    Digest digest;
    description.size = 0;
    const bool read = readPieces(copy, [&](std::string_view piece) {
        digest.add(piece);
        description.size += piece.size();
        return !mInterruption.came();
    });
    if (!read) return stopped();
    description.digest = digest.hex();
    return {};
}

Problem BackupWriter::copyTrail() {
    std::vector<std::string> names;
    const std::string failure = cli::copyTrail(mFolder, mStaging.path(), mInterruption, names);
    if (mInterruption.came()) return interrupted();
    if (!failure.empty()) {
        noteTrailLeftOut(failure);
        return {};
    }
    for (const std::string& name : names) {
        mManifest.trail.push_back({name, {}});
        if (Problem problem = describe(copyOf(name), mManifest.trail.back().file)) return problem;
    }
    return {};
}

Problem BackupWriter::addState() {
    if (apps::DataReader::ringProblem().empty())
        mManifest.state->digest = apps::digestOf(mStaging.path(), "", mInterruption.asked()).text;
    return mInterruption.came() ? interrupted() : Problem{};
}

Problem BackupWriter::addRing(const SecretText& passphrase) {
    const std::optional<SecretText> ring = readRingText(mFolder + "/" + apps::kRingFile);
    if (!ring) return {"the key ring can't be read: " + std::string(std::strerror(errno)), "see: " + typed("check")};
    mManifest.ring = sealRing(*ring, passphrase, contextOf(mManifest));
    if (!mManifest.ring) return {"the key ring can't be sealed", "see that 256 MiB of memory are free"};
    return {};
}

Problem BackupWriter::writeFile(UnfinishedFile::Existing existing) const {
    UnfinishedFile file(mFile);
    if (!file.write(formatManifest(mManifest))) return unwritten();
    const auto take = [&](std::string_view piece) { return !mInterruption.came() && file.write(piece); };
    for (const apps::DatabaseLayout* layout : apps::kLayouts)
        if (!readPieces(copyOf(layout->file), take)) return stopped();
    for (const BackupManifest::TrailFile& one : mManifest.trail)
        if (!readPieces(copyOf(one.name), take)) return stopped();
    if (file.putInPlace(existing)) return {};
    return errno == EEXIST ? Problem{"the file was made meanwhile", "repeat it"} : unwritten();
}

Problem BackupWriter::unwritten() const {
    return {std::string("it can't be written: ") + std::strerror(errno), kMakeRoom};
}

Problem BackupWriter::stopped() const {
    return mInterruption.came() ? interrupted() : unwritten();
}

}  // namespace cli
