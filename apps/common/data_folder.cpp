#include "apps/common/data_folder.h"

#include <pwd.h>
#include <unistd.h>

#include <QCoreApplication>
#include <cstdlib>

#include "apps/common/system_service.h"
#include "src/sdconfig_protocol.h"

namespace apps {

namespace {

std::string absoluteFrom(const char* path) {
    return path && *path == '/' ? path : "";
}

// A service that something else than a login started may have no HOME, or one that means nothing.
std::string homeFolder() {
    std::string home = absoluteFrom(std::getenv("HOME"));
    if (!home.empty()) return home;
    const passwd* const user = ::getpwuid(::geteuid());
    return user ? absoluteFrom(user->pw_dir) : "";
}

}  // namespace

std::string defaultDataFolder() {
    QCoreApplication::setApplicationName(sd::protocol::kServiceName);
    if (isSystemService()) return kSystemDataFolder;
    std::string data = absoluteFrom(std::getenv("XDG_DATA_HOME"));
    if (const std::string home = homeFolder(); data.empty() && !home.empty()) data = home + "/.local/share";
    return data.empty() ? "" : data + "/" + sd::protocol::kServiceName;
}

}  // namespace apps
