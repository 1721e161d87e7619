// backup: both databases of a data folder and its key ring in one file, while the service runs or not.
#include <sys/stat.h>

#include <filesystem>
#include <optional>

#include "apps/common/time_text.h"
#include "apps/data/data_check.h"
#include "apps/data/database_check.h"
#include "apps/sdconfig/backup/backup_writer.h"
#include "apps/sdconfig/backup/passphrase.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/terminal/output.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace cli {

namespace {

enum class Keys { Sealed, None, LeftOut, HandedOver };

const char* nameOf(Keys keys) {
    switch (keys) {
        case Keys::Sealed:
            return "sealed";
        case Keys::None:
            return "none";
        case Keys::LeftOut:
            return "left out";
        default:
            return "handed over";
    }
}

// The way of the key ring into the backup. Tells what will be missing.
Keys wayOfKeys(const Request& request, const std::string& folder) {
    const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
    using State = sd::SDSecurity::KeyRingState;
    const bool isSound = ring.state == State::Usable || ring.state == State::Locked;  // as far as can be told
    if (!isSound) return request.withoutKeys ? Keys::LeftOut : Keys::None;
    if (!apps::isRingOf(folder, ring)) {
        noteKeysHandedOver(ring.detail);
        return Keys::HandedOver;
    }
    if (!request.withoutKeys) return Keys::Sealed;
    noteKeysLeftOut();
    return Keys::LeftOut;
}

int finish(const Request& request, const std::string& folder, Keys keys, const BackupWriter& writer) {
    Object object;
    addBytes(object, "folder", folder);
    addBytes(object, "file", request.file);
    object["secure"] = writer.count(0);
    object["policies"] = writer.count(1);
    object["keys"] = nameOf(keys);
    object["made"] = apps::timeText(writer.state().made);
    object["digest"] = writer.state().digest.empty() ? Object(nullptr) : Object(writer.state().digest);
    object["done"] = true;
    if (writer.unreadable() > 0) noteRowsUnreadable(writer.unreadable(), folder);
    return print(request,
                 "backed up " + escaped(folder) + ": secure values " + std::to_string(writer.count(0)) + ", policies " +
                     std::to_string(writer.count(1)) + ", key ring " + nameOf(keys) + "\n",
                 object);
}

bool stands(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

// Makes `file` the file that is to be written, where it may be.
Problem chooseFile(const Request& request, const std::string& folder, std::string& file) {
    file = request.file;
    if (!request.force && stands(file))
        return {"the file is there already", "name another one, or say --force to replace it"};
    if (const std::string problem = resolveTarget(file); !problem.empty()) return {problem, "name another one"};
    std::error_code ignored;
    if (std::filesystem::equivalent(std::filesystem::path(file).parent_path(), folder, ignored))
        return {"it is in the data folder " + folder, "name one elsewhere"};
    return {};
}

// Why a backup without a key ring would be of no use. There may be a ring now that was not there before the databases
// were copied.
Problem lackOfRing(const std::string& folder, bool sealed) {
    if (const auto finding = apps::ringFinding(folder, sealed))
        return {finding->what, apps::belongsToAnother(folder) ? apps::kRunAsThat
                                                              : finding->next + ", or go without it: --without-keys"};
    return sealed ? Problem{"a key ring was made meanwhile", "repeat it"} : Problem{};
}

Problem write(const Request& request, const std::string& folder, Keys keys, const SecretText* passphrase,
              BackupWriter& writer) {
    if (Problem problem = writer.copyDatabases()) return problem;
    if (Problem problem = writer.copyTrail()) return problem;
    if (keys == Keys::None)
        if (Problem problem = lackOfRing(folder, writer.hasSealed())) return problem;
    if (Problem problem = writer.addState()) return problem;
    if (passphrase)
        if (Problem problem = writer.addRing(*passphrase)) return problem;
    return writer.writeFile(request.force ? UnfinishedFile::Existing::Replace : UnfinishedFile::Existing::Keep);
}

}  // namespace

int backupData(const Request& request, Service& service) {
    ::umask(0077);  // what SQLite makes on the way can be read again, and by nobody else
    const DataAccess access = accessFolder(request, service);
    if (!access.reader) return access.exitCode;
    const std::string& folder = access.reader->folder();
    if (const auto finding = apps::folderFinding(folder)) return notBackedUp(request, {finding->what, finding->next});
    std::string file;
    if (const Problem problem = chooseFile(request, folder, file)) return notBackedUp(request, problem);

    const Keys keys = wayOfKeys(request, folder);
    std::optional<Passphrase> passphrase;
    if (keys == Keys::Sealed) passphrase.emplace(readPassphrase(kPassphraseOfBackup, Asking::Twice));
    if (passphrase && !passphrase->problem.empty())
        return notBackedUp(request, {passphrase->problem, "give a passphrase, or go without the keys: --without-keys"});

    const Interruption interruption;
    BackupWriter writer(folder, file, interruption);
    if (const Problem problem = write(request, folder, keys, passphrase ? &passphrase->text : nullptr, writer))
        return notBackedUp(request, problem);
    return finish(request, folder, keys, writer);
}

}  // namespace cli
