// policy install, policy remove: files of the machine's policies, and what they change for whom.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apps/common/descriptor.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/described/weighed_policies.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/reading/policy_lint.h"
#include "apps/sdconfig/reading/policy_rehearsal.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "base/trusted_path.h"
#include "policies/policy_file.h"
#include "policies/policy_folders.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

constexpr char kSuffix[] = ".json";
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

// What is changed: a file of the administrator's, or of a folder that services were told of.
struct Place {
    std::string folder;
    std::string name;  // of the file

    std::string path() const { return folder + "/" + name; }
};

std::string withSuffix(const std::string& name) {
    const bool has = name.size() > std::strlen(kSuffix) && fs::path(name).extension() == kSuffix;
    return has ? name : name + kSuffix;
}

Place placeOf(const Request& request, const std::string& name) {
    const std::string folder = request.policyDirs.empty() ? sd::kAdministratorPolicies
                                                          : fs::absolute(request.policyDirs.back()).lexically_normal();
    return {folder.size() > 1 && folder.back() == '/' ? folder.substr(0, folder.size() - 1) : folder, withSuffix(name)};
}

Problem unfitName(const std::string& name) {
    constexpr char kGood[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.@+";
    const bool isGood =
        sd::isPolicyFileName(name) && name.size() <= 200 && name.find_first_not_of(kGood) == std::string::npos;
    if (isGood) return {};
    return {quoted(name) + " can't be the name of a file of policies",
            "give one of letters, digits and dashes, as in 50-fleet; files are taken in the order of their names"};
}

// Makes the folder where it is not there, to be found after a power cut, and finds whether services can trust it.
Problem prepare(const std::string& folder, bool mayMake) {
    if (mayMake) {
        fs::path path;
        for (const fs::path& part : fs::path(folder)) {
            path /= part;
            if (::mkdir(path.c_str(), kFolderMode) != 0)
                apps::syncNameOfEmpty(path);
            else if (::chmod(path.c_str(), kFolderMode) != 0 || !apps::syncFolder(path.parent_path()))
                return {path.string() + ": " + std::strerror(errno), "see that the folder above it can be written"};
        }
    }
    const sd::TrustedOpening opening = sd::openTrusted(folder, ::geteuid());
    if (!opening.distrust.empty())
        return {opening.distrust + ", so no service would trust what is in it", "give it to root alone, mode 0755"};
    if (opening.failure == ENOENT && !mayMake) return {};
    if (opening.failure != 0)
        return {folder + ": " + std::strerror(opening.failure),
                "only root may change the machine's policies: repeat it with sudo"};
    if (!S_ISDIR(opening.status.st_mode)) return {folder + " is no folder", "put it away"};
    return {};
}

Problem unfitUser(const Request& request) {
    if (!request.policyDirs.empty() || request.dryRun || ::geteuid() == 0) return {};
    return {"only root may change the machine's policies",
            "repeat it with sudo, or look what it would change: --dry-run"};
}

std::string write(const std::string& path, const std::string& text) {
    UnfinishedFile file(path);
    if (file.write(text) && file.setMode(kFileMode) && file.putInPlace(UnfinishedFile::Existing::Replace)) return "";
    return std::string("it can't be written: ") + std::strerror(errno);
}

// The file is installed as it is, whatever form its values have. Returns the exit code.
int weigh(const Request& request, const std::vector<sd::PolicyEntry>& entries) {
    std::vector<sd::PolicyEntry> weighed = entries;
    if (const int code = weighPolicies(request, weighed)) return code;
    std::size_t others = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) others += entries[i].value != weighed[i].value ? 1 : 0;
    if (others > 0) noteOtherForms(request, others);
    return kDone;
}

// Prints what it changes for whom, and that it is done.
int report(const Request& request, const Place& place, const std::vector<UsersChanges>& all, const std::string& done) {
    std::string text;
    Object object;
    addBytes(object, "file", place.path());
    object["users"] = Object::array();
    for (const UsersChanges& one : all) {
        for (const std::string& line : one.lines) text += shownInLine(one.user) + ": " + line + "\n";
        Object user{{"user", one.user}, {"told", one.problem.empty()}, {"changes", one.changes}};
        if (!one.problem.empty()) noteUntold(one.user, one.problem);
        object["users"].push_back(std::move(user));
    }
    object["done"] = !request.dryRun;
    return print(request, text + (request.dryRun ? "" : done + " " + escaped(place.path()) + "\n"), object);
}

}  // namespace

int installPolicies(const Request& request, Service& /*service*/) {
    const std::string given = request.name.empty() ? fs::path(request.file).filename().string() : request.name;
    const Place place = placeOf(request, given);
    if (const Problem problem = unfitName(place.name)) return notInstalled(request, problem);
    if (const Problem problem = unfitUser(request)) return notInstalled(request, problem);
    std::string text;
    if (const std::string problem = readWhole(request.file, sd::kPolicyFileBytesMax, text); !problem.empty())
        return policyFileUnread(request, problem);
    const sd::PolicyFile file = sd::parsePolicyFile(text, sd::PolicyForm::Machine);
    if (!file.problem.empty())
        return notInstalled(request,
                            {file.problem, "see all that is wrong: sdconfig policy lint " + asArgument(request.file)});
    if (const int code = weigh(request, file.entries)) return code;
    if (const Problem problem = prepare(place.folder, !request.dryRun)) return notInstalled(request, problem);
    const auto changes = rehearse(place.folder, place.name, text);
    if (!request.dryRun)
        if (const std::string problem = write(place.path(), text); !problem.empty())
            return notInstalled(request, {place.path() + ": " + problem, "see that there is room, and repeat it"});
    return report(request, place, changes, "installed");
}

int removePolicies(const Request& request, Service& /*service*/) {
    const Place place = placeOf(request, request.key);
    if (const Problem problem = unfitName(place.name)) return notRemoved(request, problem);
    if (const Problem problem = unfitUser(request)) return notRemoved(request, problem);
    std::error_code failure;
    if (!fs::exists(fs::symlink_status(place.path(), failure)))
        return notRemoved(request, {"there is no " + place.path(), "see which there are: " + typed("policy status")});
    const auto changes = rehearse(place.folder, place.name, std::nullopt);
    if (!request.dryRun && (::unlink(place.path().c_str()) != 0 || !apps::syncFolder(place.folder)))
        return notRemoved(request, {place.path() + ": " + std::strerror(errno), "repeat it as root"});
    return report(request, place, changes, "removed");
}

}  // namespace cli
