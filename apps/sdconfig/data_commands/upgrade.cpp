// upgrade: carries a database of an earlier version over, while no service uses it.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <utility>

#include "apps/data/data_files.h"
#include "apps/data/data_folder_lock.h"
#include "apps/data/trail_note.h"
#include "apps/data/upgrader.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/upgrade/database_backup.h"
#include "apps/sdconfig/upgrade/upgrade_plan.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_came.h"

namespace cli {

namespace {

struct Outcome {
    std::string backup;
    bool done = false;
};

const char* nameOf(UpgradeStep step) {
    switch (step) {
        case UpgradeStep::Nothing:
            return "nothing";
        case UpgradeStep::Stamp:
            return "stamp";
        case UpgradeStep::Copy:
            return "copy";
        case UpgradeStep::ForcedCopy:
            return "forced copy";
        default:
            return "needs --force";
    }
}

std::string textOf(const LegacyEntry& entry, bool copying) {
    std::string text = "  " + (entry.name.empty() ? "(no name)" : escaped(entry.name));
    if (entry.rows > 1) text += ", " + std::to_string(entry.rows) + " pieces";
    if (entry.replaces && copying) text += ", replaces what is sealed";
    if (!entry.replaces && !copying) text += ", not in secure_v3";
    if (!entry.problem.empty()) return text + ", not carried over: it " + entry.problem + "\n";
    for (std::size_t i = 0; i < entry.lost.size(); ++i)
        text += (i == 0 ? ", not carried over: " : " ") + escaped(entry.lost[i]);
    return text + "\n";
}

std::string textOf(const std::string& title, const std::vector<LegacyEntry>& entries, bool copying) {
    std::string text = title + ": " + std::to_string(entries.size()) + "\n";
    for (const LegacyEntry& entry : entries) text += textOf(entry, copying);
    return text;
}

std::string conclusion(const Request& request, const UpgradePlan& plan, const Outcome& outcome) {
    if (plan.step == UpgradeStep::Nothing) return "nothing to do\n";
    if (plan.step == UpgradeStep::NeedsForce) return "";
    if (request.dryRun && plan.unfit() > 0) return "all others would be copied\n";
    if (request.dryRun) return copies(plan.step) ? "would be copied and get version 3\n" : "would get version 3\n";
    return (outcome.backup.empty() ? "" : "kept a copy: " + outcome.backup + "\n") +
           (outcome.done ? "upgraded to version 3\n" : "");
}

std::string report(const Request& request, const UpgradePlan& plan, const Outcome& outcome) {
    std::string text = "version: " + (plan.version.empty() ? "none" : escaped(plan.version)) + "\nrows:";
    for (const std::string& table : apps::kSecureLayout.tables)
        text += " " + table + " " + std::to_string(plan.rows.at(table));
    const bool copying = plan.step != UpgradeStep::Nothing;
    text += "\n" + textOf("settings", plan.settings, copying) + textOf("secure values", plan.secure, copying);
    for (const std::string& key : plan.nameless) text += "not copied, it has no \"@\": " + escaped(key) + "\n";
    return text + conclusion(request, plan, outcome);
}

Object objectOf(const LegacyEntry& entry) {
    Object object;
    addBytes(object, "key", entry.name);
    object["rows"] = entry.rows;
    object["replaces"] = entry.replaces;
    object["lost"] = Object::array();
    for (const std::string& key : entry.lost) addBytes(object["lost"].emplace_back(), "key", key);
    return object;
}

Object reportObject(const Request& request, const UpgradePlan& plan, const Outcome& outcome) {
    Object object;
    addBytes(object, "folder", request.key);
    addBytes(object, "version", plan.version);
    for (const std::string& table : apps::kSecureLayout.tables) object["rows"][table] = plan.rows.at(table);
    for (const auto& [name, entries] : {std::pair{"settings", &plan.settings}, {"secure", &plan.secure}}) {
        object[name] = Object::array();
        for (const LegacyEntry& entry : *entries) object[name].push_back(objectOf(entry));
    }
    object["nameless"] = Object::array();
    for (const std::string& key : plan.nameless) addBytes(object["nameless"].emplace_back(), "key", key);
    object["step"] = nameOf(plan.step);
    outcome.backup.empty() ? void(object["backup"] = nullptr) : addBytes(object, "backup", outcome.backup);
    object["done"] = outcome.done;
    return object;
}

// The exit code kDone where the folder is one to work in; else it was told why not.
int checkFolder(const Request& request, const std::string& folder, const std::string& database) {
    struct stat status {};
    // The files made here would be ours, and the service of the other user could not use them.
    if (::stat(folder.c_str(), &status) == 0 && status.st_uid != ::geteuid())
        return notUpgraded(request, folder + " belongs to another user", "upgrade it as that user");
    if (::lstat(database.c_str(), &status) != 0)
        return notUpgraded(request, database + " is not there", "name the folder that holds sdconfig.db");
    return kDone;
}

bool carryOver(const std::string& database, UpgradeStep step) {
    apps::Upgrader store(database);
    return store.isCurrent() && (step != UpgradeStep::ForcedCopy || store.copyAll());
}

int finish(const Request& request, const UpgradePlan& plan, const Outcome& outcome) {
    const int printed = print(request, report(request, plan, outcome), reportObject(request, plan, outcome));
    if (plan.step == UpgradeStep::NeedsForce) return upgradeNeedsForce(request);
    if (copies(plan.step) && plan.unfit() > 0) return rowsUnfit(request, plan.unfit(), outcome.backup);
    if (!request.dryRun && !outcome.done) return upgradeFailed(request, outcome.backup);
    if (const std::size_t count = plan.missing(); plan.step == UpgradeStep::Nothing && count > 0)
        noteNotSealed(count, request.key);
    const std::size_t lost = copies(plan.step) ? plan.lostRows() : 0;
    return lost > 0 ? rowsLost(request, lost) : printed;
}

}  // namespace

int upgradeDatabase(const Request& request, Service& /*service*/) {
    ::umask(0077);  // what is made here is the user's alone, and can be read by the user
    const std::string folder = std::filesystem::absolute(request.key).lexically_normal();
    const std::string database = folder + "/" + apps::kSecureLayout.file;
    if (const int code = checkFolder(request, folder, database)) return code;

    apps::DataFolderLock lock;
    std::optional<apps::Finding> problem = apps::usedBy(folder);
    if (!problem && !request.dryRun) problem = lock.take(folder);
    if (problem) return notUpgraded(request, problem->what, problem->next);

    sd::SDSecurity::GetInstance()->SetKeyRingFolder(folder);
    const UpgradePlan plan = planUpgrade(folder, request.force);
    if (!plan.problem.empty()) return notUpgraded(request, plan.problem, plan.next);
    if (request.dryRun || plan.step == UpgradeStep::NeedsForce) return finish(request, plan, {});
    if (plan.step == UpgradeStep::Nothing) return finish(request, plan, {"", true});

    const Backup backup = keepBackup(database);
    if (!backup.problem.empty())
        return notUpgraded(request, backup.problem, "see that the folder can be written and has room");
    const bool isDone = carryOver(database, plan.step);
    sd::trail::Entry entry;
    entry.what = "UPGRADE";
    entry.came = isDone ? sd::came::kDone : sd::came::kFailed;
    if (const std::string untold = apps::noteInTrail(folder, std::move(entry)); !untold.empty())
        noteUpgradeUntold(untold);
    return finish(request, plan, {backup.path, isDone});
}

}  // namespace cli
