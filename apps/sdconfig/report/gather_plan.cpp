// What policies would change, were they the machine's.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apps/data/temporary_folder.h"
#include "apps/sdconfig/files/whole_file.h"
#include "apps/sdconfig/reading/policy_preview.h"
#include "apps/sdconfig/reading/policy_stage.h"
#include "apps/sdconfig/report/gather_parts.h"
#include "policies/policy_folders.h"

namespace cli {

namespace {

namespace fs = std::filesystem;

// The folders that are read, and the one into which the files would come.
struct Folders {
    std::vector<std::string> all;
    std::size_t target = 0;
};

Folders foldersOf(const std::optional<MachineStatus>& status) {
    Folders folders;
    if (status)
        for (const sd::PolicySource& one : status->reading.folders) folders.all.push_back(one.path);
    if (folders.all.empty()) folders.all = sd::standardPolicyFolders();
    const auto usual = std::find(folders.all.begin(), folders.all.end(), sd::kAdministratorPolicies);
    folders.target =
        static_cast<std::size_t>((usual == folders.all.end() ? folders.all.end() - 1 : usual) - folders.all.begin());
    return folders;
}

// Their texts by the names under which they would stand there.
using Files = std::map<std::string, std::optional<std::string>>;

Files readFiles(WhatIf& whatIf) {
    Files files;
    for (const std::string& path : whatIf.files) {
        std::string text;
        if (const std::string problem = readWhole(path, sd::kPolicyFileBytesMax, text); !problem.empty()) {
            whatIf.leftOut.emplace_back(path, problem);
            continue;
        }
        const std::string name = fs::path(path).filename();
        files[sd::isPolicyFileName(name) ? name : name + ".json"] = std::move(text);
    }
    return files;
}

// The paths of the stage are of this moment alone.
class Stage {
public:
    Stage(std::string stage, std::string folder) : mStage(std::move(stage)), mFolder(std::move(folder)) {}

    std::string realPath(const std::string& path) const {
        return path.compare(0, mStage.size(), mStage) == 0 ? mFolder + path.substr(mStage.size()) : path;
    }

    MachineTable realTable(const sd::MachinePolicies& read) const {
        std::vector<apps::MachinePolicy> policies = MachineTable(read).all();
        for (apps::MachinePolicy& one : policies) one.file = realPath(one.file);
        return MachineTable(std::move(policies));
    }

private:
    const std::string mStage;
    const std::string mFolder;
};

ReportedSide sideOf(const std::string& uri, const Layers& layers, const ReportedValue& value) {
    const Effective effective = weigh(layers);
    ReportedSide side{value, sourceOf(effective, layers.machine.has_value()), whyOf(uri, effective, layers)};
    if (side.source == Source::Machine) side.why += "; " + layers.machine->place();
    return side;
}

bool isSame(const ReportedPlan& plan, const Layers& before, const Layers& after) {
    return weigh(before).value == weigh(after).value && plan.today.source == plan.then.source &&
           plan.today.why == plan.then.why;
}

void compare(Gathering& gathering, const MachineTable& after, WhatIf& whatIf) {
    for (const MachineChange& change : changesUnder(gathering.stored, after)) {
        const ReportedValue today = gathering.visibility.of(weigh(change.before), change.before.machine);
        const ReportedValue then = gathering.visibility.of(weigh(change.after), change.after.machine);
        ReportedPlan plan{change.uri, sideOf(change.uri, change.before, today), sideOf(change.uri, change.after, then)};
        if (isSame(plan, change.before, change.after))
            ++whatIf.unchanged;
        else
            whatIf.changes.push_back(std::move(plan));
    }
}

// What is left out today is none of its business.
void tellAmiss(const sd::PolicyReadingStatus& status, const Files& files, const Stage& stage, WhatIf& whatIf) {
    for (const sd::PolicySource& one : status.files)
        if (isAmiss(one) && files.count(fs::path(one.path).filename()))
            whatIf.leftOut.emplace_back(stage.realPath(one.path), one.detail);
    for (const auto& [name, why] : status.nobody) whatIf.leftOut.emplace_back(name, why);
}

}  // namespace

void gatherPlan(Gathering& gathering) {
    if (gathering.request.policyFiles.empty()) return;
    WhatIf& whatIf = gathering.report.whatIf.emplace();
    whatIf.files = gathering.request.policyFiles;
    Folders folders = foldersOf(gathering.report.machine);
    const apps::TemporaryFolder temporary(fs::temp_directory_path().string() + "/sdconfig-policies.");
    if (temporary.path().empty()) {
        whatIf.problem = std::string("no folder can be made to try them in: ") + std::strerror(errno);
        return;
    }
    std::string& target = folders.all[folders.target];
    const Stage stage(temporary.path(), target);
    const Files files = readFiles(whatIf);
    fillStage(temporary.path(), target, files);
    for (const auto& [name, text] : files) gathering.visibility.show(fs::path(target) / name);
    target = temporary.path();
    const auto read = readPolicyFolders(folders.all, ::geteuid());
    tellAmiss(read->status(), files, stage, whatIf);
    compare(gathering, stage.realTable(*read), whatIf);
    if (!gathering.isStoredKnown)
        whatIf.problem = "local values and stored policies are not known here, so they are left out of account";
}

}  // namespace cli
