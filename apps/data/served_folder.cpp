#include "apps/data/served_folder.h"

#include <filesystem>

#include "apps/common/process.h"
#include "apps/common/smallest_call.h"
#include "apps/data/data_files.h"
#include "apps/data/data_folder.h"
#include "platform/sdbus/sdbus.h"
#include "src/sdconfig_protocol.h"

namespace apps {

namespace {

namespace fs = std::filesystem;

int servingProcess() {
    SDBusSerivceManager& bus = *SDBusSerivceManager::initSync(-1);
    const char* const name = sd::protocol::kServiceName;
    if (bus.serviceProcess(name) == 0 && bus.isServiceRegistered(name))
        smallestCall(*bus.getServiceProxyInterface(name, SDBusSameUser, 1), sd::protocol::kCallTimeoutMs);
    return bus.serviceProcess(name);
}

struct OpenDatabase {
    fs::path descriptor;  // in /proc; leads to the file itself, wherever that stands by now
    fs::path path;        // "" where it can't be told
};

// The policies' database that the service has open. A service that was told another folder than we would assume has its
// files open all the same.
OpenDatabase openDatabase(int process) {
    std::error_code failure;
    const fs::path descriptors = "/proc/" + std::to_string(process) + "/fd";
    for (fs::directory_iterator entry(descriptors, failure), end; !failure && entry != end; entry.increment(failure)) {
        std::error_code gone;
        fs::path target = fs::read_symlink(entry->path(), gone);
        const std::string file = target.filename();
        if (!gone && (file == kPolicyLayout.file || file == kPolicyLayout.file + std::string(kRemoved)))
            return {entry->path(), target};
    }
    return {};
}

}  // namespace

std::string servedFolder() {
    const fs::path database = openDatabase(servingProcess()).path;
    return database.filename() == kPolicyLayout.file ? database.parent_path() : "";
}

std::optional<Finding> displacedData() {
    const int process = servingProcess();
    const OpenDatabase database = openDatabase(process);
    if (database.path.empty()) return std::nullopt;
    const std::string refuses = " beneath the running service, which refuses every change";
    if (database.path.filename() != kPolicyLayout.file)
        return Finding{database.path, "the databases were removed" + refuses, "take down what it still answers, and "};
    const std::string folder = dataFolderOf(process);
    std::error_code ignored;
    if (folder.empty() || fs::equivalent(database.descriptor, folder + "/" + kPolicyLayout.file, ignored))
        return std::nullopt;
    return Finding{folder,
                   "the data folder " + folder + " was moved to " + database.path.parent_path().string() +
                       " or replaced" + refuses,
                   "put the folder back, or "};
}

bool isSameFolder(const std::string& one, const std::string& other) {
    std::error_code failure;
    return fs::equivalent(one, other, failure);
}

}  // namespace apps
