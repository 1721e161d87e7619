#include "apps/common/served_folder.h"

#include <filesystem>

#include "apps/common/data_files.h"
#include "apps/common/smallest_call.h"
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

// What the system adds to the path of an open file that was removed.
constexpr char kRemoved[] = " (deleted)";

// The path of the policies' database that the service has open; "" where that can't be told. A service that was told
// another folder than we would assume has its files open all the same.
fs::path openDatabase() {
    std::error_code failure;
    const fs::path descriptors = "/proc/" + std::to_string(servingProcess()) + "/fd";
    for (fs::directory_iterator entry(descriptors, failure), end; !failure && entry != end; entry.increment(failure)) {
        std::error_code gone;
        fs::path target = fs::read_symlink(entry->path(), gone);
        const std::string file = target.filename();
        if (!gone && (file == kPolicyLayout.file || file == kPolicyLayout.file + std::string(kRemoved))) return target;
    }
    return "";
}

}  // namespace

std::string servedFolder() {
    const fs::path database = openDatabase();
    return database.filename() == kPolicyLayout.file ? database.parent_path() : "";
}

bool isServedDataGone() {
    return openDatabase().filename() == kPolicyLayout.file + std::string(kRemoved);
}

bool isSameFolder(const std::string& one, const std::string& other) {
    std::error_code failure;
    return fs::equivalent(one, other, failure);
}

}  // namespace apps
