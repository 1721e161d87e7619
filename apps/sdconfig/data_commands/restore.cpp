// restore: a backup in the place of a data folder, checked whole before anything is changed.
#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "apps/common/descriptor.h"
#include "apps/common/time_text.h"
#include "apps/data/data_check.h"
#include "apps/data/database_check.h"
#include "apps/data/temporary_folder.h"
#include "apps/sdconfig/backup/backup_reader.h"
#include "apps/sdconfig/backup/folder_swap.h"
#include "apps/sdconfig/backup/passphrase.h"
#include "apps/sdconfig/backup/replaced_state.h"
#include "apps/sdconfig/backup/restore_place.h"
#include "apps/sdconfig/backup/restored_trail.h"
#include "apps/sdconfig/backup/ring_text.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/terminal/output.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace cli {

namespace {

// Which key ring the restored folder has.
enum class Keys { Restored, Kept, None };

const char* nameOf(Keys keys) {
    switch (keys) {
        case Keys::Restored:
            return "restored";
        case Keys::Kept:
            return "kept";
        default:
            return "none";
    }
}

// The finding as it is told of the backup: where the staging folder was is nobody's business.
std::string toldOf(const apps::Finding& finding, const std::string& staging) {
    std::string what = finding.what;
    for (std::size_t at; (at = what.find(staging + "/")) != std::string::npos;) what.erase(at, staging.size() + 1);
    return what;
}

const char* nameOf(ReplacedState::Kind kind) {
    switch (kind) {
        case ReplacedState::Kind::Same:
            return "same";
        case ReplacedState::Kind::Newer:
            return "newer";
        case ReplacedState::Kind::Other:
            return "other";
        default:
            return "unknown";
    }
}

// Where the backup tells of its state, and there is something to be replaced.
using Replaced = std::optional<ReplacedState>;

void tellReplaced(const std::string& folder, const BackupManifest::State& backup, const ReplacedState& replaced) {
    using Kind = ReplacedState::Kind;
    const std::string made = apps::timeText(backup.made);
    const std::string written = apps::timeText(replaced.written);
    if (replaced.kind == Kind::Same)
        noteSameAsBackup(folder, made);
    else if (replaced.kind == Kind::Unknown)
        noteStateUnknown(folder, made, written, replaced.why);
    else
        noteUnlikeBackup(folder, made, written, replaced.kind == Kind::Newer);
}

// One restoring: a folder beside the place gets what the backup holds, is checked, and takes the place.
class Restoring {
public:
    Restoring(const Request& request, const std::string& folder, BackupReader& backup, const Replaced& replaced,
              const SecretText* passphrase)
        : mRequest(request),
          mFolder(folder),
          mBackup(backup),
          mReplaced(replaced),
          mPassphrase(passphrase),
          mStaging(folder + ".restore-"),
          mMakingFailure(mStaging.path().empty() ? errno : 0) {}

    int run() {
        if (const Problem problem = prepare()) return notRestored(mRequest, problem);
        if (mInterruption.came()) return notRestored(mRequest, interrupted());
        if (const Problem problem = unfitPlace(mFolder, mRequest.force)) return notRestored(mRequest, problem);
        mUntold = tellRestored(mStaging.path(), mFolder, mBackup.state());
        const FolderSwap swap = putInPlace(mStaging.path(), mFolder);
        if (swap.problem) return notRestored(mRequest, swap.problem);
        mStaging.release();
        return finish(swap.old);
    }

private:
    Problem prepare() {
        if (mMakingFailure)
            return {"no folder can be made beside " + mFolder + ": " + std::strerror(mMakingFailure),
                    "see that the folder above it is there and can be written"};
        if (Problem problem = mBackup.unpackFiles(mStaging.path(), mInterruption)) return problem;
        if (Problem problem = mPassphrase ? restoreRing() : keepRing()) return problem;
        mLosesWrap = isWrappedRing(mFolder + "/" + apps::kRingFile) && !isWrappedRing(ringPath());
        useRing();
        if (Problem problem = checkDatabases()) return problem;
        const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
        mLacksRing = apps::ringFinding(mStaging.path(), mSealed > 0, ring).has_value();
        if (ring.state == sd::SDSecurity::KeyRingState::Locked) mLocked = ring.detail;
        return checkKeys();
    }

    Problem restoreRing() {
        mKeys = Keys::Restored;
        return mBackup.unpackRing(*mPassphrase, mStaging.path());
    }

    // Where the backup brings no ring: that of the folder which is to be replaced.
    Problem keepRing() {
        const std::optional<SecretText> ring = readRingText(mFolder + "/" + apps::kRingFile);
        if (!ring) return {};
        mKeys = Keys::Kept;
        return putFile(ringPath(), ring->get());
    }

    // Tells the security layer the ring beside the databases, to come before one that the system hands over. Without
    // one there, that one counts, as it will for the service.
    void useRing() const {
        const apps::DataReader tellsTheFolder(mStaging.path());
        const apps::Descriptor ring(::open(ringPath().c_str(), O_RDONLY | O_CLOEXEC));
        if (ring.get() >= 0) (void)sd::SDSecurity::GetInstance()->SetKeyRingDescriptor(ring.get());
    }

    Problem checkDatabases() {
        for (std::size_t i = 0; i < apps::kLayouts.size(); ++i) {
            const apps::DatabaseLayout& layout = *apps::kLayouts[i];
            const std::string path = mStaging.path() + "/" + layout.file;
            const apps::DatabaseCheck check = apps::checkDatabase(path, layout, mInterruption.asked());
            if (mInterruption.came()) return interrupted();
            if (!check.damage.empty())
                return {"what it holds can't be served: " + toldOf(check.damage.front(), mStaging.path()),
                        "take another backup"};
            mCounts[i] = check.count;
            mSealed += check.sealed;
            mUnreadable += check.rows.size();
        }
        return {};
    }

    // A backup's own ring opens what it opened when the backup was made. Any other has to open everything.
    Problem checkKeys() const {
        if (mRequest.withoutKeys) return {};
        if (mLacksRing)
            return {"the backup has no key ring, and DATA-DIR none that could open its sealed values",
                    "put the key ring there and say --force, or restore it all the same: --without-keys"};
        if (mKeys != Keys::Restored && mUnreadable > 0)
            return {"the backup has no key ring, and that in DATA-DIR does not open its sealed values",
                    "put the right one there, or restore it all the same: --without-keys"};
        return {};
    }

    int finish(const std::string& old) const {
        if (mKeys != Keys::Restored) noteUnproven();
        if (!mUntold.empty()) noteRestoreUntold(mUntold);
        if (mUnreadable > 0) noteRowsUnreadable(mUnreadable, mFolder);
        if (mLacksRing) noteNoRing(mFolder);
        if (mLosesWrap) noteRingPlain(mFolder);
        if (!mLocked.empty()) noteRingLocked(mLocked);
        Object object;
        addBytes(object, "folder", mFolder);
        object["secure"] = mCounts[0];
        object["policies"] = mCounts[1];
        object["keys"] = nameOf(mKeys);
        old.empty() ? void(object["old"] = nullptr) : addBytes(object, "old", old);
        object["made"] = mBackup.state() ? Object(apps::timeText(mBackup.state()->made)) : Object(nullptr);
        object["replaced"] = mReplaced ? Object(nameOf(mReplaced->kind)) : Object(nullptr);
        object["done"] = true;
        return print(mRequest,
                     "restored " + escaped(mFolder) + ": secure values " + std::to_string(mCounts[0]) + ", policies " +
                         std::to_string(mCounts[1]) + ", key ring " + nameOf(mKeys) + "\n" +
                         (old.empty() ? "" : "kept what was there: " + escaped(old) + "\n"),
                     object);
    }

    std::string ringPath() const { return mStaging.path() + "/" + apps::kRingFile; }

    const Request& mRequest;
    const std::string& mFolder;
    BackupReader& mBackup;
    const Replaced& mReplaced;
    const SecretText* const mPassphrase;  // null: the backup's ring is not taken
    const Interruption mInterruption;
    apps::TemporaryFolder mStaging;
    const int mMakingFailure;

    std::array<std::size_t, apps::kLayouts.size()> mCounts{};
    std::size_t mSealed = 0;
    std::size_t mUnreadable = 0;
    bool mLacksRing = false;  // for what is sealed
    bool mLosesWrap = false;  // of the ring that was there: the backup's is plain
    std::string mLocked;      // what the ring waits for; "": nothing
    std::string mUntold;      // why the trail has no entry of this; "": it has
    Keys mKeys = Keys::None;
};

}  // namespace

int restoreData(const Request& request, Service& /*service*/) {
    const std::string folder = folderNamed(request.key);
    if (const Problem problem = unfitPlace(folder, request.force)) return notRestored(request, problem);
    BackupReader backup(request.file);
    if (const Problem problem = backup.open()) return notRestored(request, problem);
    Replaced replaced;
    if (const auto& state = backup.state()) {
        const Interruption interruption;
        replaced = replacedState(folder, *state, interruption.asked());
        if (interruption.came()) return notRestored(request, interrupted());
        if (replaced) tellReplaced(folder, *state, *replaced);
    }
    std::optional<Passphrase> passphrase;
    if (backup.hasRing() && !request.withoutKeys) passphrase.emplace(readPassphrase(kPassphraseOfBackup, Asking::Once));
    if (passphrase && !passphrase->problem.empty())
        return notRestored(request, {passphrase->problem, "give the backup's, or go without its keys: --without-keys"});
    return Restoring(request, folder, backup, replaced, passphrase ? &passphrase->text : nullptr).run();
}

}  // namespace cli
