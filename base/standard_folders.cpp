#include "base/standard_folders.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/synced_folder.h"

namespace sd {

namespace {

constexpr char kUsualDataDirs[] = "/usr/local/share:/usr/share";

std::string variable(const char* name) {
    const char* const value = std::getenv(name);
    return value ? value : "";
}

bool isAbsolute(const std::string& path) {
    return !path.empty() && path.front() == '/';
}

std::string homeOfUser() {
    passwd entry{};
    passwd* user = nullptr;
    std::vector<char> buffer(1024);
    while (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &user) == ERANGE)
        buffer.resize(2 * buffer.size());
    return user && isAbsolute(user->pw_dir) ? user->pw_dir : "";
}

std::string within(std::string folder, const std::string& name) {
    while (!folder.empty() && folder.back() == '/') folder.pop_back();
    return folder + "/" + name;
}

}  // namespace

FolderVariables ownFolderVariables() {
    return {variable("HOME"), variable("XDG_DATA_HOME"), variable("XDG_DATA_DIRS")};
}

std::string programName() {
    return program_invocation_short_name;
}

std::string homeFolder(const FolderVariables& variables) {
    return isAbsolute(variables.home) ? variables.home : homeOfUser();
}

std::string userDataFolder(const FolderVariables& variables, const std::string& application) {
    if (isAbsolute(variables.dataHome)) return within(variables.dataHome, application);
    const std::string home = homeFolder(variables);
    return home.empty() ? "" : within(within(home, ".local/share"), application);
}

std::vector<std::string> dataFolders(const FolderVariables& variables, const std::string& application) {
    std::vector<std::string> folders;
    const auto add = [&](std::string folder) {
        if (std::find(folders.begin(), folders.end(), folder) == folders.end()) folders.push_back(std::move(folder));
    };
    if (std::string folder = userDataFolder(variables, application); !folder.empty()) add(std::move(folder));

    const std::string system = variables.dataDirs.empty() ? kUsualDataDirs : variables.dataDirs;
    for (std::size_t begin = 0; begin <= system.size();) {
        const std::size_t end = std::min(system.find(':', begin), system.size());
        if (const std::string folder = system.substr(begin, end - begin); isAbsolute(folder))
            add(within(folder, application));
        begin = end + 1;
    }
    return folders;
}

std::string makeFolder(const std::string& folder) {
    struct stat status {};
    if (::stat(folder.c_str(), &status) == 0) {
        if (!S_ISDIR(status.st_mode)) return folder + " is not a folder";
        syncNameOfEmpty(folder);
        return "";
    }
    const std::string above = folderAbove(folder);
    if (std::string problem = makeFolder(above); !problem.empty()) return problem;
    const bool isMade = ::mkdir(folder.c_str(), 0700) == 0;
    if (isMade ? syncFolder(above) : errno == EEXIST) return "";
    return "can't make the folder " + folder + ": " + std::strerror(errno);
}

}  // namespace sd
