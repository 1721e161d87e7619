#include "apps/sdconfig/reading/data_access.h"

#include <filesystem>
#include <string>

#include "apps/data/data_check.h"
#include "apps/data/data_folder.h"
#include "apps/data/served_folder.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

DataAccess findData(const Request& request, const Service& service) {
    DataAccess access;
    const bool running = service.listening();
    const std::string ofService = running ? apps::servedFolder() : "";
    if (!request.dataDir.empty() && !ofService.empty() && !apps::isSameFolder(request.dataDir, ofService)) {
        access.ofService = ofService;
        return access;
    }
    std::string folder = request.dataDir.empty() ? ofService : request.dataDir;
    if (folder.empty() && !running) folder = apps::defaultDataFolder();
    if (folder.empty()) return access;
    access.reader.emplace(std::filesystem::absolute(folder).lexically_normal());
    if (!running) access.reader->takeMissingForEmpty();
    return access;
}

void noteMissingDatabases(const apps::DataReader& reader) {
    if (!reader.hasSecure()) noteNoDatabase(reader.folder(), "secure values");
    if (!reader.hasPolicies()) noteNoDatabase(reader.folder(), "policies");
}

DataAccess accessData(const Request& request, const Service& service) {
    DataAccess access = findData(request, service);
    if (!access.ofService.empty()) access.exitCode = otherDataFolder(request, access.ofService);
    return access;
}

DataAccess accessFolder(const Request& request, const Service& service) {
    DataAccess access;
    if (request.keyGiven)
        access.reader.emplace(folderNamed(request.key));
    else
        access = accessData(request, service);
    if (!access.reader && !access.exitCode)
        access.exitCode = noDataFolder(request, problemOfData(access, kFolderUntold));
    return access;
}

std::optional<std::string> folderToRead(const Request& request, const Service& service, int& exitCode) {
    DataAccess access;
    if (!request.dataDir.empty())
        access.reader.emplace(folderNamed(request.dataDir));
    else
        access = accessData(request, service);
    exitCode = access.exitCode;
    if (!exitCode && !access.reader) exitCode = dataUnreadable(request, problemOfData(access, kFolderUntold));
    return exitCode ? std::nullopt : std::optional(access.reader->folder());
}

Problem problemOfData(const DataAccess& access, const std::string& what) {
    if (access.reader) return {what, apps::remedyFor(access.reader->folder())};
    const auto displaced = apps::displacedData();
    return displaced ? Problem{displaced->what, displaced->next + howToRestart()} : Problem{what, ""};
}

std::string folderNamed(const std::string& path) {
    namespace fs = std::filesystem;
    std::error_code failure;
    const fs::path absolute = fs::absolute(path).lexically_normal();
    const fs::path folder = fs::weakly_canonical(absolute, failure);
    const fs::path& best = failure ? absolute : folder;
    return best.has_filename() ? best : best.parent_path();
}

}  // namespace cli
