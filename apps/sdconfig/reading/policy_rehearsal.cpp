#include "apps/sdconfig/reading/policy_rehearsal.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include "apps/common/command_output.h"
#include "apps/data/temporary_folder.h"
#include "apps/sdconfig/reading/policy_stage.h"
#include "apps/sdconfig/terminal/messages.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr char kDaemon[] = "sdconfigd";
constexpr std::size_t kMostOutput = std::size_t{64} << 20;

// Whether a process is gone, or has files of its own for the system's, as in a container; what can't be told counts as
// no.
bool isElsewhere(const fs::path& process) {
    struct stat own {};
    struct stat other {};
    if (::stat("/", &own) != 0) return false;
    if (::stat((process / "root").c_str(), &other) != 0) return errno == ENOENT || errno == ESRCH;
    return own.st_dev != other.st_dev || own.st_ino != other.st_ino;
}

// Whose sdconfigd runs on this system: root asks for all, others for themselves.
std::set<uid_t> servedUsers() {
    std::set<uid_t> users;
    std::error_code failure;
    for (fs::directory_iterator entry("/proc", failure), end; !failure && entry != end; entry.increment(failure)) {
        std::string name;
        std::ifstream(entry->path() / "comm") >> name;
        struct stat status {};
        if (name != kDaemon || ::stat(entry->path().c_str(), &status) != 0 || isElsewhere(entry->path())) continue;
        if (::geteuid() == 0 || status.st_uid == ::geteuid()) users.insert(status.st_uid);
    }
    return users;
}

std::string nameOf(uid_t user) {
    const passwd* const entry = ::getpwuid(user);
    return entry ? entry->pw_name : std::to_string(user);
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

// Where root's own service is, which the system starts; "sudo" tells nothing of it.
std::string environmentOf(uid_t user) {
    return user == 0 && !std::getenv("XDG_RUNTIME_DIR") ? "XDG_RUNTIME_DIR=/run " : "";
}

class Rehearsal {
public:
    Rehearsal(const std::string& folder, const std::string& stage)
        : mFolder(folder), mStage(stage), mProgram(fs::read_symlink("/proc/self/exe")) {}

    // What a user's command prints is checked, as it may have been made to print anything.
    UsersChanges of(uid_t user) const {
        UsersChanges changes;
        changes.user = nameOf(user);
        try {
            fill(user, changes);
        } catch (const Object::exception&) {
            changes.problem = "what it tells can't be read";
        }
        return changes;
    }

private:
    void fill(uid_t user, UsersChanges& changes) const {
        const std::string self = environmentOf(user) + "timeout 20 " + shellWord(mProgram) +
                                 (user == ::geteuid() ? "" : " --user " + shellWord(changes.user)) + " --json policy ";
        const Object status = Object::parse(apps::outputOf(self + "status 2>/dev/null", kMostOutput), nullptr, false);
        std::string folders;
        bool isRead = false;
        if (status.is_object() && status.contains("folders")) {
            for (const Object& one : status["folders"]) {
                const std::string path = one.value("path", "");
                isRead = isRead || path == mFolder;
                if (path != mFolder && one.value("state", "") == "absent") continue;
                folders += " --policy-dir " + shellWord(path == mFolder ? mStage : path);
            }
        }
        if (!isRead) {
            changes.problem = "that service doesn't answer, or doesn't read " + mFolder;
            return;
        }
        const std::string told = apps::outputOf(self + "apply --dry-run" + folders + " 2>/dev/null", kMostOutput);
        const Object preview = Object::parse(replaced(told, mStage, mFolder), nullptr, false);
        if (preview.is_object() && preview.contains("policies"))
            take(preview["policies"], changes);
        else
            changes.problem = "its data can't be read";
    }

    static std::string sideText(const Object& side) {
        if (!side.value("set", false)) return "(no value)";
        return side.contains("value") ? quoted(side.value("value", "")) : "(a value that is not shown)";
    }

    static void take(const Object& policies, UsersChanges& changes) {
        for (const Object& one : policies) {
            if (!one.value("changes", false)) continue;
            changes.changes.push_back(one);
            changes.lines.push_back("~ " + shownInLine(one.value("uri", "")) + ": " + sideText(one["before"]) + " -> " +
                                    sideText(one["after"]) + ": " + shownInLine(one.value("why", "")));
        }
        if (changes.lines.empty()) changes.lines.emplace_back("nothing changes");
    }

    const std::string mFolder;
    const std::string mStage;
    const std::string mProgram;
};

}  // namespace

std::vector<UsersChanges> rehearse(const std::string& folder, const std::string& name,
                                   const std::optional<std::string>& text) {
    const std::string start = ::geteuid() == 0 ? "/run" : fs::temp_directory_path().string();
    const apps::TemporaryFolder stage(start + "/sdconfig-policies.");
    fillStage(stage.path(), folder, {{name, text}});
    const Rehearsal rehearsal(folder, stage.path());
    std::vector<UsersChanges> all;
    for (const uid_t user : servedUsers()) all.push_back(rehearsal.of(user));
    return all;
}

}  // namespace cli
