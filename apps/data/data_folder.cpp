#include "apps/data/data_folder.h"

#include "apps/common/process.h"
#include "apps/common/system_service.h"
#include "base/standard_folders.h"
#include "src/sdconfig_protocol.h"

namespace apps {

namespace {

std::string usualFolder(const sd::FolderVariables& variables) {
    return isSystemService() ? kSystemDataFolder : sd::userDataFolder(variables, sd::protocol::kServiceName);
}

}  // namespace

std::string defaultDataFolder() {
    return usualFolder(sd::ownFolderVariables());
}

std::string dataFolderOf(pid_t service) {
    std::string named = pathOption(service, "--data-dir");
    if (!named.empty()) return named;
    const auto variable = [&](const char* name) { return variableOf(service, name).value_or(""); };
    return usualFolder({variable("HOME"), variable("XDG_DATA_HOME"), variable("XDG_DATA_DIRS")});
}

}  // namespace apps
