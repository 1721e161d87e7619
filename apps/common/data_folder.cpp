#include "apps/common/data_folder.h"

#include <pwd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <cstdlib>

#include "apps/common/process.h"
#include "apps/common/system_service.h"
#include "src/sdconfig_protocol.h"

namespace apps {

namespace {

std::string absoluteFrom(const char* path) {
    return path && *path == '/' ? path : "";
}

// A service that something else than a login started may have no HOME, or one that means nothing.
std::string homeFolder(const char* variable) {
    std::string home = absoluteFrom(variable);
    if (!home.empty()) return home;
    const passwd* const user = ::getpwuid(::geteuid());
    return user ? absoluteFrom(user->pw_dir) : "";
}

// By the variables XDG_DATA_HOME and HOME.
std::string usualFolder(const char* dataHome, const char* homeVariable) {
    if (isSystemService()) return kSystemDataFolder;
    std::string data = absoluteFrom(dataHome);
    if (const std::string home = homeFolder(homeVariable); data.empty() && !home.empty()) data = home + "/.local/share";
    return data.empty() ? "" : data + "/" + sd::protocol::kServiceName;
}

}  // namespace

std::string defaultDataFolder() {
    QCoreApplication::setApplicationName(sd::protocol::kServiceName);
    return usualFolder(std::getenv("XDG_DATA_HOME"), std::getenv("HOME"));
}

std::string dataFolderOf(pid_t service) {
    std::string named = pathOption(service, "--data-dir");
    if (!named.empty()) return named;
    const std::string dataHome = variableOf(service, "XDG_DATA_HOME").value_or("");
    return usualFolder(dataHome.c_str(), variableOf(service, "HOME").value_or("").c_str());
}

}  // namespace apps
