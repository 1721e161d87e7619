// Versions and environment, and the summary.
#include <openssl/crypto.h>
#include <sqlite3.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <fstream>

#include "apps/common/process.h"
#include "apps/sdconfig/report/gather_parts.h"
#include "apps/sdconfig/terminal/acting_user.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace cli {

namespace {

std::string system() {
    std::ifstream file("/etc/os-release");
    const std::string begin = "PRETTY_NAME=\"";
    for (std::string line; std::getline(file, line);)
        if (line.compare(0, begin.size(), begin) == 0) return line.substr(begin.size(), line.size() - begin.size() - 1);
    return "unknown";
}

std::string kernel() {
    struct utsname names {};
    return ::uname(&names) == 0 ? std::string(names.sysname) + " " + names.release + ", " + names.machine : "unknown";
}

std::string commandOf(int process) {
    std::string command;
    for (const std::string& word : apps::argumentsOf(process))
        command += (command.empty() ? "" : " ") + shellWord(word);
    return command;
}

std::string firstUpper(std::string text) {
    text[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[0])));
    return text;
}

std::string ofService(const Gathering& gathering) {
    if (!gathering.probe.listening) return "No service runs; what follows was read from files.";
    if (!gathering.probe.answered) return "A service listens, and it " + gathering.probe.how.what + ".";
    const int process = gathering.service.processId();
    return "The service answers in " + std::to_string(gathering.probe.roundTrip.count()) + " \u00b5s" +
           (process > 0 ? ", as process " + std::to_string(process) : "") + ".";
}

std::string ofFolder(const Gathering& gathering) {
    if (!gathering.access.reader) return "Where its data lies is not known here.";
    const std::string& folder = gathering.access.reader->folder();
    if (gathering.isStoredKnown) return "Its data lies in " + folder + ".";
    return "Its data lies in " + folder + ", and could not be read.";
}

// What stands for a secure value or a policy in the folder opens with it.
std::string ofRing(const Gathering& gathering) {
    using State = sd::SDSecurity::KeyRingState;
    if (!gathering.access.reader || !checkLayer().empty()) return "";
    sd::SDSecurity& layer = *sd::SDSecurity::GetInstance();
    const auto served = gathering.probe.answered ? knownRing(gathering.service) : std::nullopt;
    const SlottedRing ring = served ? *served : SlottedRing{layer.CheckKeyRing(), layer.KnownSlots()};
    if (ring.isLocked()) return "The key ring is locked and " + waitsFor(ring) + ".";
    if (ring.status.state == State::Absent) return "There is no key ring yet: nothing was sealed.";
    if (ring.status.state != State::Usable) return "The key ring can't be used: " + ring.status.detail + ".";
    if (ring.isWrapped()) return "The key ring is wrapped, and open; its slots are " + namesOf(ring) + ".";
    return "The key ring is plain, so a copy of that folder opens everything.";
}

std::string ofPolicies(const Gathering& gathering) {
    const auto& machine = gathering.report.machine;
    if (!machine) return "";
    if (!machine->isHere) return "The service goes by no policies of the machine.";
    if (machine->governed == 0) return "No policy of the machine governs this user.";
    const std::string count = std::to_string(machine->governed);
    return (machine->governed == 1 ? "One policy of the machine governs" : count + " policies of the machine govern") +
           " this user; their files were read at " +
           Gathering::momentOf(std::chrono::system_clock::to_time_t(machine->reading.when)) + ".";
}

std::string ofMisfits(const Gathering& gathering) {
    const auto& keys = gathering.report.keys;
    const auto count = std::count_if(keys.begin(), keys.end(),
                                     [](const auto& one) { return one.described && !one.described->misfit.empty(); });
    if (count == 0) return "";
    return (count == 1 ? "One value doesn't fit" : std::to_string(count) + " values don't fit") +
           std::string(" the description of ") + (count == 1 ? "its key." : "their keys.");
}

}  // namespace

void gatherEnvironment(Gathering& gathering) {
    auto& facts = gathering.report.environment;
    for (const Check& check : gathering.report.checks)
        if (check.name == "versions" || check.name == "units") facts.emplace_back(firstUpper(check.name), check.what);
    facts.emplace_back("SQLite, OpenSSL", std::string(sqlite3_libversion()) + ", " + OpenSSL_version(OPENSSL_VERSION));
    facts.emplace_back("System", system() + "; " + kernel());
    facts.emplace_back("Made as", "uid " + std::to_string(::geteuid()) + (actedUser().empty() ? "" : ", by root"));
    if (const std::string path = gathering.service.socketPath(); !path.empty()) facts.emplace_back("Socket", path);
    if (const std::string command = commandOf(gathering.service.processId()); !command.empty())
        facts.emplace_back("The service's command", command);
    if (gathering.access.reader) facts.emplace_back("Data folder", gathering.access.reader->folder());
    if (!gathering.productDir.empty()) facts.emplace_back("Product's data folder", gathering.productDir);
    for (const char* name : {"HOME", "XDG_RUNTIME_DIR", "XDG_DATA_HOME", "XDG_DATA_DIRS", "CREDENTIALS_DIRECTORY",
                             "TMPDIR", "LANG", "LC_ALL"})
        if (const char* const value = std::getenv(name); value && *value) facts.emplace_back(name, value);
}

void putInWords(Gathering& gathering) {
    for (std::string sentence :
         {ofService(gathering), ofFolder(gathering), ofRing(gathering), ofPolicies(gathering), ofMisfits(gathering)})
        if (!sentence.empty()) gathering.report.words.push_back(std::move(sentence));
    if (gathering.request.show) return;
    const bool hides = std::any_of(gathering.report.keys.begin(), gathering.report.keys.end(),
                                   [](const auto& one) { return one.value.kind == ReportedValue::Kind::Hidden; });
    if (hides) gathering.miss("Values that are sealed at rest: this report leaves them out", "put them in with --show");
}

}  // namespace cli
