#include "apps/sdconfig/report/gather.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "apps/common/time_text.h"
#include "apps/data/data_check.h"
#include "apps/sdconfig/report/gather_parts.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/service/listener_calls.h"

namespace cli {

namespace {

std::string userName() {
    const passwd* const entry = ::getpwuid(::geteuid());
    return entry ? entry->pw_name : "user " + std::to_string(::geteuid());
}

std::string hostName() {
    std::array<char, 256> name{};
    return ::gethostname(name.data(), name.size() - 1) == 0 ? name.data() : "this machine";
}

// Whether what is sealed can be opened here.
void lookAtRing(Gathering& gathering) {
    if (gathering.stored.keys().empty()) return;
    const std::string problem = apps::DataReader::ringProblem();
    if (problem.empty()) return;
    const std::string remedy = apps::DataReader::ringRemedy();
    const bool isAnothers = apps::belongsToAnother(gathering.access.reader->folder());
    gathering.miss("What is sealed in the data folder: " + problem,
                   isAnothers        ? std::string(apps::kRunAsThat) + ": " + typed("--user NAME report")
                   : !remedy.empty() ? remedy
                                     : "see what is wrong with: " + typed("doctor"));
}

void readStored(Gathering& gathering) {
    const DataAccess& access = gathering.access;
    if (!access.reader) {
        const Problem problem = problemOfData(access, kFolderUntold);
        return gathering.miss("What the data folder holds: " + problem.what,
                              problem.next.empty() ? "name it with --data-dir" : problem.next);
    }
    const std::string problem = gathering.stored.read(*access.reader);
    gathering.isStoredKnown = problem.empty();
    if (problem.empty()) return lookAtRing(gathering);
    const Problem told = problemOfData(access, problem);
    gathering.miss("What the data folder holds: " + told.what,
                   told.next.empty() ? "see what is wrong with: " + typed("doctor") : told.next);
}

void readMachine(Gathering& gathering) {
    if (gathering.probe.listening && !gathering.probe.answered) return;  // it was told already
    gathering.report.machine = machineStatus(gathering.service);
    gathering.report.policies = machineTable(gathering.service);
    gathering.stored.governBy(gathering.report.policies);
    if (!gathering.report.machine)
        gathering.miss("The policies of the machine: the service doesn't tell them",
                       "update it to the version of this command, " SDCONFIG_VERSION);
}

void askForListeners(Gathering& gathering) {
    if (!gathering.probe.answered)
        return gathering.miss("Who listens, and properties that are set at run time: no service answers",
                              gathering.probe.listening ? howToRestart() : howToStart());
    gathering.listeners = listenersOf(gathering.service);
    if (!gathering.listeners)
        gathering.miss("Who listens: the service doesn't tell it",
                       "update it to the version of this command, " SDCONFIG_VERSION);
}

}  // namespace

ReportedValue Visibility::of(const Effective& effective, const std::optional<apps::MachinePolicy>& machine) {
    if (effective.value.empty()) return {};
    const bool isPolicys = effective.origin == Origin::StrongPolicy || effective.origin == Origin::WeakPolicy;
    const bool isShown = mShowsAll || (isPolicys && machine && isPublic(machine->file));
    return isShown ? ReportedValue{ReportedValue::Kind::Shown, effective.value}
                   : ReportedValue{ReportedValue::Kind::Hidden};
}

// Whoever may read a build.prop file sees them.
ReportedValue Visibility::ofProperty(const std::string& value) const {
    return value.empty() ? ReportedValue{} : ReportedValue{ReportedValue::Kind::Shown, value};
}

bool Visibility::isPublic(const std::string& file) {
    const auto [known, isNew] = mPublic.emplace(file, false);
    struct stat status {};
    if (isNew) known->second = ::stat(file.c_str(), &status) == 0 && (status.st_mode & S_IROTH);
    return known->second;
}

std::string Gathering::momentOf(std::int64_t seconds) {
    constexpr std::size_t kToMinute = 16;
    std::string text = apps::timeText(seconds).substr(0, kToMinute);
    std::replace(text.begin(), text.end(), 'T', ' ');
    return text + " UTC";
}

std::string nameOf(const std::string& key, bool isProperty) {
    return isProperty ? "p:" + key : "k:" + folded(key);
}

std::size_t Report::problems() const {
    return static_cast<std::size_t>(
        std::count_if(checks.begin(), checks.end(), [](const Check& check) { return !check.ok(); }));
}

Report gatherReport(const Request& request, Service& service, const DataAccess& access) {
    Report report;
    report.title = "Configuration of " + userName() + " on " + hostName();
    report.made = Gathering::momentOf(std::time(nullptr));
    report.holdsSecrets = request.show;
    Gathering gathering(request, service, access, report);
    gathering.probe = service.probe();
    report.checks = checkAll(request, service);
    readStored(gathering);
    readMachine(gathering);
    askForListeners(gathering);
    gatherDescribed(gathering);
    gatherTrail(gathering);
    gatherSettings(gathering);
    gatherProperties(gathering);
    gatherPlan(gathering);
    gatherEnvironment(gathering);
    putInWords(gathering);
    for (const ReportedKey& one : report.keys) report.names.insert(nameOf(one.key, one.isProperty));
    return report;
}

}  // namespace cli
