#include "apps/sdconfig/terminal/acting_user.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

constexpr char kRuntime[] = "XDG_RUNTIME_DIR";

std::string& actedFor() {
    static std::string sName;
    return sName;
}

// What says of root where its files are, or its session; in the user's name it would lead astray.
constexpr const char* kLeaking[] = {"XDG_DATA_HOME",  "XDG_CONFIG_HOME",          "XDG_STATE_HOME",
                                    "XDG_CACHE_HOME", "DBUS_SESSION_BUS_ADDRESS", "CREDENTIALS_DIRECTORY"};

bool isFolderOf(uid_t user, const std::string& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == user;
}

// Whole: the real, the effective and the saved ids, and no way back.
bool takeIdentity(const passwd& user) {
    if (::initgroups(user.pw_name, user.pw_gid) != 0) return false;
    if (::setresgid(user.pw_gid, user.pw_gid, user.pw_gid) != 0) return false;
    if (::setresuid(user.pw_uid, user.pw_uid, user.pw_uid) != 0) return false;
    errno = EPERM;
    const bool isUser = ::getuid() == user.pw_uid && ::geteuid() == user.pw_uid;
    const bool isGroup = ::getgid() == user.pw_gid && ::getegid() == user.pw_gid;
    return isUser && isGroup && (user.pw_uid == 0 || ::setuid(0) != 0);
}

// A folder of the user's that was given stays, as when the service was started by hand with it.
bool takeRuntimeFolder(uid_t user) {
    const char* const given = std::getenv(kRuntime);
    if (given && isFolderOf(user, given)) return true;
    const std::string session = "/run/user/" + std::to_string(user);
    return isFolderOf(user, session) ? ::setenv(kRuntime, session.c_str(), 1) == 0 : ::unsetenv(kRuntime) == 0;
}

bool takeEnvironment(const passwd& user) {
    for (const char* name : kLeaking) ::unsetenv(name);
    return takeRuntimeFolder(user.pw_uid) && ::setenv("HOME", user.pw_dir, 1) == 0 &&
           ::setenv("USER", user.pw_name, 1) == 0 && ::setenv("LOGNAME", user.pw_name, 1) == 0;
}

}  // namespace

int actAs(const std::string& name) {
    const std::string tried = "acting as user " + quoted(name);
    if (::geteuid() != 0)
        return fail(kRefused, tried, "only root may act as another user", "repeat it with sudo, or leave out --user");
    errno = 0;
    const passwd* const user = ::getpwnam(name.c_str());
    if (!user) return fail(kUsage, tried, errno ? std::strerror(errno) : "there is no such user", "see: getent passwd");
    if (!takeIdentity(*user) || !takeEnvironment(*user))
        return fail(kRefused, tried, std::strerror(errno), "nothing was done");
    actedFor() = name;
    return kDone;
}

const std::string& actedUser() {
    return actedFor();
}

std::string ownerOfRuntimeFolder() {
    const char* const folder = std::getenv(kRuntime);
    struct stat status {};
    if (::geteuid() != 0 || !folder || ::stat(folder, &status) != 0 || status.st_uid == 0) return "";
    const passwd* const owner = ::getpwuid(status.st_uid);
    return owner ? owner->pw_name : "";
}

}  // namespace cli
