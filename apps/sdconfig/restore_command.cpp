// restore: a backup in the place of a data folder, checked whole before anything is changed.
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>

#include "apps/common/data_check.h"
#include "apps/common/data_folder_lock.h"
#include "apps/common/database_check.h"
#include "apps/common/temporary_folder.h"
#include "apps/sdconfig/backup_reader.h"
#include "apps/sdconfig/commands.h"
#include "apps/sdconfig/data_access.h"
#include "apps/sdconfig/folder_swap.h"
#include "apps/sdconfig/output.h"
#include "apps/sdconfig/passphrase.h"
#include "apps/sdconfig/ring_text.h"

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

struct Restored {
    std::array<std::size_t, apps::kLayouts.size()> counts{};
    std::size_t sealed = 0;
    std::size_t unreadable = 0;
    bool lacksRing = false;  // for what is sealed
    Keys keys = Keys::None;
};

Problem unfitPlace(const Request& request, const std::string& folder) {
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0) return {};
    if (!S_ISDIR(status.st_mode)) return {folder + " is not a folder", "name another one"};
    // The files made here would be ours, and the service of the other user could not use them.
    if (status.st_uid != ::geteuid()) return {folder + " belongs to another user", "restore it as that user"};
    if (const std::string user = apps::usedBy(folder); !user.empty()) return {user, "then repeat it"};
    if (!request.force && holdsAnything(folder))
        return {folder + " is not empty", "name another folder, or say --force to replace it and keep it beside"};
    return {};
}

// Where the backup brings no ring: that of the folder which is to be replaced.
Problem keepRing(const std::string& folder, const std::string& staging, Keys& keys) {
    const std::optional<SecretText> ring = readRingText(folder + "/" + apps::kRingFile);
    if (!ring) return {};
    keys = Keys::Kept;
    return putFile(staging + "/" + apps::kRingFile, ring->get());
}

// The finding as it is told of the backup: where the staging folder was is nobody's business.
std::string toldOf(const apps::Finding& finding, const std::string& staging) {
    std::string what = finding.what;
    for (std::size_t at; (at = what.find(staging + "/")) != std::string::npos;) what.erase(at, staging.size() + 1);
    return what;
}

Problem checkDatabases(const std::string& staging, Restored& restored) {
    for (std::size_t i = 0; i < apps::kLayouts.size(); ++i) {
        const apps::DatabaseLayout& layout = *apps::kLayouts[i];
        const apps::DatabaseCheck check = apps::checkDatabase(staging + "/" + layout.file, layout);
        if (!check.damage.empty())
            return {"what it holds can't be served: " + toldOf(check.damage.front(), staging), "take another backup"};
        restored.counts[i] = check.count;
        restored.sealed += check.sealed;
        restored.unreadable += check.rows.size();
    }
    return {};
}

// A backup's own ring opens what it opened when the backup was made. Any other has to open everything.
Problem checkKeys(const Request& request, const Restored& restored) {
    if (request.withoutKeys) return {};
    if (restored.lacksRing)
        return {"the backup has no key ring, and DATA-DIR none that could open its sealed values",
                "put the key ring there and say --force, or restore it all the same: --without-keys"};
    if (restored.keys != Keys::Restored && restored.unreadable > 0)
        return {"the backup has no key ring, and that in DATA-DIR does not open its sealed values",
                "put the right one there, or restore it all the same: --without-keys"};
    return {};
}

// Puts the key ring beside the databases in the staging folder, and checks all of it there.
Problem prepare(const Request& request, const std::string& folder, BackupReader& backup, const SecretText* passphrase,
                const std::string& staging, Restored& restored) {
    restored.keys = passphrase ? Keys::Restored : Keys::None;
    if (Problem problem =
            passphrase ? backup.unpackRing(*passphrase, staging) : keepRing(folder, staging, restored.keys))
        return problem;
    const apps::DataReader tellsTheRing(staging);
    if (Problem problem = checkDatabases(staging, restored)) return problem;
    restored.lacksRing = apps::ringFinding(staging, restored.sealed > 0).has_value();
    return checkKeys(request, restored);
}

int finish(const Request& request, const std::string& folder, const Restored& restored, const FolderSwap& swap) {
    if (!swap.unrenamed.empty()) noteOldDataLeft(swap.old, swap.unrenamed);
    if (restored.unreadable > 0) noteRowsUnreadable(restored.unreadable);
    if (restored.lacksRing) noteNoRing(folder);
    Object object;
    addBytes(object, "folder", folder);
    object["secure"] = restored.counts[0];
    object["policies"] = restored.counts[1];
    object["keys"] = nameOf(restored.keys);
    swap.old.empty() ? void(object["old"] = nullptr) : addBytes(object, "old", swap.old);
    object["done"] = true;
    return print(request,
                 "restored " + escaped(folder) + ": secure values " + std::to_string(restored.counts[0]) +
                     ", policies " + std::to_string(restored.counts[1]) + ", key ring " + nameOf(restored.keys) + "\n" +
                     (swap.old.empty() ? "" : "kept what was there: " + escaped(swap.old) + "\n"),
                 object);
}

int restore(const Request& request, const std::string& folder, const Interruption& interruption, BackupReader& backup,
            const SecretText* passphrase) {
    apps::TemporaryFolder staging(folder + ".restore-");
    if (staging.path().empty())
        return notRestored(request, {"no folder can be made beside " + folder + ": " + std::strerror(errno),
                                     "see that the folder above it is there and can be written"});
    Restored restored;
    if (const Problem problem = backup.unpackDatabases(staging.path(), interruption))
        return notRestored(request, problem);
    if (const Problem problem = prepare(request, folder, backup, passphrase, staging.path(), restored))
        return notRestored(request, problem);
    if (interruption.came()) return notRestored(request, {"it was interrupted", "repeat it"});
    if (const Problem problem = unfitPlace(request, folder)) return notRestored(request, problem);
    const FolderSwap swap = putInPlace(staging.path(), folder);
    if (swap.problem) return notRestored(request, swap.problem);
    staging.release();
    return finish(request, folder, restored, swap);
}

}  // namespace

int restoreData(const Request& request, Service& /*service*/) {
    const std::string folder = folderNamed(request.key);
    if (const Problem problem = unfitPlace(request, folder)) return notRestored(request, problem);
    std::optional<Passphrase> passphrase;
    BackupReader backup(request.file);
    if (const Problem problem = backup.open()) return notRestored(request, problem);
    if (backup.hasRing() && !request.withoutKeys) passphrase.emplace(readPassphrase(Asking::Once));
    if (passphrase && !passphrase->problem.empty())
        return notRestored(request, {passphrase->problem, "give the backup's, or go without its keys: --without-keys"});

    const Interruption interruption;
    return restore(request, folder, interruption, backup, passphrase ? &passphrase->text : nullptr);
}

}  // namespace cli
