#include "src/sdconfig_store_folder.h"

#include <sys/stat.h>

#include "base/data_paths.h"
#include "base/standard_folders.h"
#include "base/text.h"
#include "platform/velmarlog/log_line.h"

namespace sd {

namespace {

constexpr char kTag[] = "sdconfig";
constexpr char kSource[] = "src/sdconfig_store_folder";

constexpr char kNoFolder[] = "/dev/null";  // a file: nothing is below it, and nothing can be made there

bool holdsData(const std::string& folder) {
    struct stat status {};
    for (const char* file : {kConfigFile, kPolicyFile})
        if (::lstat((localToUtf8(folder) + "/" + file).c_str(), &status) == 0) return true;
    return false;
}

bool isSameFolder(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return ::stat(localToUtf8(one).c_str(), &first) == 0 && ::stat(localToUtf8(other).c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// Where earlier versions had the data of a host that told no folder: they took the variables as they are, and the root
// folder for the home of a process without HOME.
std::string earlierFolder() {
    const FolderVariables variables = ownFolderVariables();
    return variables.dataHome.empty() ? variables.home + "/.local/share" : variables.dataHome;
}

bool findFolder() {
    std::string& data = dataPaths().data;
    const std::string earlier = earlierFolder();
    if (isSameFolder(data, earlier)) return true;
    if (!holdsData(earlier)) return true;
    if (holdsData(data)) {
        LOG(7,
            AT
            "both %s and %s, the place of earlier versions, hold data, and neither is used: move one's %s and %s "
            "away, or name the folder with SDConfig::setDataPath",
            HERE, data.c_str(), earlier.c_str(), kConfigFile, kPolicyFile);
        return false;
    }
    LOG(6, AT "there is no data in %s, so that of an earlier version is used: %s", HERE, data.c_str(), earlier.c_str());
    data = earlier;
    return true;
}

// Of the application's own folder. One below the "~" of a user without a home is not for us to make.
void makeMissing(const std::string& folder) {
    if (folder.empty() || folder.front() != '/') return;
    if (const std::string problem = makeFolder(folder); !problem.empty()) LOG(7, AT "%s", HERE, problem.c_str());
}

}  // namespace

bool settleDataPath() {
    static const bool settled = dataPaths().isTold || findFolder();
    return settled || dataPaths().isTold;
}

std::string storeFolder() {
    if (!settleDataPath()) return kNoFolder;
    std::string folder = localToUtf8(dataPaths().data);
    if (!dataPaths().isTold) makeMissing(folder);
    return folder;
}

}  // namespace sd
