#include "apps/common/temporary_folder.h"

#include <cstdlib>
#include <filesystem>

namespace apps {

TemporaryFolder::TemporaryFolder(const std::string& start) {
    std::string name = start + "XXXXXX";
    if (::mkdtemp(name.data())) mPath = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ignored);
}

}  // namespace apps
