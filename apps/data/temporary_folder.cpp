#include "apps/data/temporary_folder.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

namespace apps {

TemporaryFolder::TemporaryFolder(const std::string& start) {
    std::string name = start + "XXXXXX";
    // The mode is not left to the umask.
    if (::mkdtemp(name.data()) && ::chmod(name.c_str(), 0700) == 0) mPath = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
}

}  // namespace apps
