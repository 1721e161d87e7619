// policy apply --dry-run --policy-dir: what folders of policies would bring about, were they the machine's.
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apps/data/served_folder.h"
#include "apps/data/temporary_folder.h"
#include "apps/sdconfig/backup/backup_reader.h"
#include "apps/sdconfig/backup/passphrase.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/reading/machine_table.h"
#include "apps/sdconfig/reading/policy_preview.h"
#include "apps/sdconfig/reading/stored_layers.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/interruption.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

std::string inFull(const std::string& folder) {
    const std::string path = fs::absolute(folder).lexically_normal();
    return path.size() > 1 && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
}

// What is left out of the folders is told. Whether nothing is.
bool noteAmiss(const sd::PolicyReadingStatus& status) {
    bool isWhole = true;
    for (const auto* sources : {&status.folders, &status.files}) {
        for (const sd::PolicySource& one : *sources) {
            if (!isAmiss(one)) continue;
            noteNotTried(one.path, one.detail);
            isWhole = false;
        }
    }
    for (const auto& [name, why] : status.nobody) noteGovernsNobody(name, why);
    return isWhole;
}

int tryOn(const Request& request, const apps::DataReader& reader, MachineTable before) {
    StoredLayers stored;
    if (const std::string problem = stored.read(reader); !problem.empty())
        return nothingToReadFrom(request, {problem, ""});
    std::vector<std::string> folders;
    for (const std::string& folder : request.policyDirs) folders.push_back(inFull(folder));
    const auto after = readPolicyFolders(folders, ::geteuid());
    const bool isWhole = noteAmiss(after->status());
    stored.governBy(std::move(before));
    const int printed = previewMachine(request, stored, MachineTable(*after));
    return isWhole ? printed : triedInPart(request);
}

int tryOnBackup(const Request& request) {
    BackupReader backup(request.backup);
    if (const Problem problem = backup.open()) return notTried(request, problem);
    std::optional<Passphrase> passphrase;
    if (backup.hasRing()) passphrase.emplace(readPassphrase(kPassphraseOfBackup, Asking::Once));
    if (passphrase && !passphrase->problem.empty())
        return notTried(request, {passphrase->problem, "give the backup's on standard input"});
    const apps::TemporaryFolder folder(fs::temp_directory_path().string() + "/sdconfig-try.");
    if (folder.path().empty())
        return notTried(request, {std::string("no folder can be made to unpack it: ") + std::strerror(errno),
                                  "name another folder with TMPDIR"});
    const Interruption interruption;
    if (const Problem problem = backup.unpackFiles(folder.path(), interruption)) return notTried(request, problem);
    if (passphrase)
        if (const Problem problem = backup.unpackRing(passphrase->text, folder.path()))
            return notTried(request, problem);
    if (interruption.came()) return notTried(request, interrupted());
    return tryOn(request, apps::DataReader(folder.path()), MachineTable());
}

}  // namespace

// A copy of another machine's data is governed by nothing of this one.
int tryPolicyFolders(const Request& request, Service& service) {
    if (!request.backup.empty()) return tryOnBackup(request);
    const bool isCopy =
        !request.dataDir.empty() && !(service.listening() && apps::isSameFolder(request.dataDir, apps::servedFolder()));
    if (isCopy) return tryOn(request, apps::DataReader(folderNamed(request.dataDir)), MachineTable());
    const DataAccess access = accessData(request, service);
    if (access.exitCode) return access.exitCode;
    if (!access.reader) return nothingToReadFrom(request, problemOfData(access, kFolderUntold));
    return tryOn(request, *access.reader, machineTable(service));
}

}  // namespace cli
