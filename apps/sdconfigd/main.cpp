// sdconfigd: hosts the configuration service until it is told to end.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <future>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "apps/common/escaped.h"
#include "apps/common/smallest_call.h"
#include "apps/common/usage.h"
#include "apps/data/data_check.h"
#include "apps/data/data_folder.h"
#include "apps/data/data_folder_lock.h"
#include "apps/data/database_check.h"
#include "apps/data/served_folder.h"
#include "apps/data/table_reader.h"
#include "apps/data/trail_note.h"
#include "apps/data/upgrader.h"
#include "apps/sdconfigd/clean_end.h"
#include "apps/sdconfigd/constants_file.h"
#include "apps/sdconfigd/preflight.h"
#include "base/standard_folders.h"
#include "base/whole_path.h"
#include "libsdconfig/sdconfig.h"
#include "platform/sdbus/sdbus.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "platform/velmarlog/log_secret.h"
#include "src/sdconfig_came.h"
#include "src/sdconfig_helpers.h"
#include "src/sdconfig_impl_policy.h"
#include "src/sdconfig_impl_property.h"
#include "src/sdconfig_protocol.h"
#include "src/sdconfig_service_sdbus.h"

namespace {

constexpr char kName[] = "sdconfig";

enum ExitCode { kDone = 0, kFailed = 1, kWrongUse = 2 };

struct Options {
    std::string dataDir;
    bool dataDirNamed = false;
    std::string productDir;
    std::string constants;
    std::vector<std::string> policyDirs;
    std::string sealSocket;
    int logLevel = 6;
    bool logSecrets = false;
    bool allowDumps = false;
    bool upgrade = false;
    bool rotateKey = false;
    bool noAudit = false;
    std::vector<std::string> auditReads;
    int auditMiB = 8;
    int auditKeep = 4;
};

// One line, whatever bytes a path in it has.
std::string lineOf(const std::string& text) {
    return "sdconfigd: " + apps::escaped(text) + "\n";
}

void tell(const std::string& text) {
    std::fputs(lineOf(text).c_str(), stderr);
}

int fail(const std::string& problem, ExitCode code = kFailed) {
    tell(problem);
    return code;
}

void declareOptions(CLI::App& app, Options& options) {
    app.option_defaults()->take_last();  // a wrapper's options can be overridden
    app.option_defaults()->disable_flag_override();
    app.add_option("--data-dir", options.dataDir, "Folder of the databases and the key ring; made if it is missing")
        ->type_name("DIR")
        ->check(apps::notEmpty)
        ->capture_default_str();
    app.add_option("--product-dir", options.productDir,
                   "The product's data folder: DIR/../etc/build.prop is read before /etc/build.prop")
        ->type_name("DIR")
        ->check(apps::notEmpty);
    app.add_option("--constants", options.constants, "Constants to answer, a line name=value each")
        ->type_name("FILE")
        ->check(apps::notEmpty);
    app.add_option("--policy-dir", options.policyDirs,
                   "A folder of the machine's policies in place of the standard ones; may be given several times, the "
                   "files of a later one count before those of an earlier one")
        ->type_name("DIR")
        ->check(apps::notEmpty)
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("--seal-socket", options.sealSocket,
                   "The socket of the service of root that keeps a key ring's slot host, instead of the machine's")
        ->type_name("PATH")
        ->check(apps::notEmpty);
    app.add_flag("--no-audit", options.noAudit, "Keep no trail of what is changed, and by whom");
    app.add_option("--audit-reads", options.auditReads,
                   "Have each reading of the keys that fit the pattern in the trail, too; may be given several times")
        ->type_name("KEY-GLOB")
        ->check(apps::notEmpty)
        ->take_all()
        ->allow_extra_args(false);
    app.add_option("--audit-size", options.auditMiB, "Size from which on the trail goes on in another file")
        ->type_name("MIB")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("--audit-keep", options.auditKeep, "Files of the trail to keep besides the current one")
        ->type_name("N")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_option("--log-level", options.logLevel,
                   "Least level of log lines to write: 5 information, 6 warnings, 7 errors, 8 none")
        ->type_name("N")
        ->check(CLI::Range(0, 8))
        ->capture_default_str();
    app.add_flag("--log-secrets", options.logSecrets,
                 "Show the values that log lines name, not their length and digest");
    app.add_flag("--allow-dumps", options.allowDumps, "Leave core dumps of the service as the system has them");
    app.add_flag("--upgrade", options.upgrade, "Carry the database of an earlier version over before serving");
    app.add_flag("--rotate-key", options.rotateKey,
                 "Add a key to the key ring, with which everything is sealed from now on, and end")
        ->excludes("--upgrade")
        ->excludes("--constants")
        ->excludes("--policy-dir")
        ->excludes("--product-dir");
    app.set_version_flag("--version", "sdconfigd " SDCONFIG_VERSION);
    app.footer(
        "Exit codes: 0 ended as told, 1 can't serve, 2 wrong use.\n"
        "Example: sdconfigd --data-dir ~/.local/share/sdconfig");
}

void hideSecrets() {
    if (velmarLogSetSecretsShown) return velmarLogSetSecretsShown(false);
    tell("the log layer can't hide values: lines of level 5, and those about a refused property, show them");
}

// A limit of 0 would stop files alone. Of one byte the kernel makes no file either, and does not start the program that
// takes dumps where there is one: for it that is a crash of such a program.
void stopDumps() {
    constexpr rlim_t kNone = 1;
    rlimit limit{};
    if (::getrlimit(RLIMIT_CORE, &limit) == 0 && limit.rlim_max <= kNone) return;
    limit = {kNone, kNone};
    if (::setrlimit(RLIMIT_CORE, &limit) != 0) tell(std::string("can't stop core dumps: ") + std::strerror(errno));
}

void note(const std::string& folder, const char* what, bool isDone) {
    sd::trail::Entry entry;
    entry.what = what;
    entry.came = isDone ? sd::came::kDone : sd::came::kFailed;
    if (const std::string problem = apps::noteInTrail(folder, std::move(entry)); !problem.empty())
        tell("the trail has no entry of that: " + problem);
}

bool isOfEarlierVersion(const std::string& database) {
    const apps::Tables tables = apps::readTables(database, {"dbinfor"}, "dbVersion");
    const auto found = tables.rows.find("dbinfor");
    return found != tables.rows.end() && !found->second.empty() && found->second.front().value != sd::kDatabaseVersion;
}

// The upgrade of the store itself, whose connection is closed again before the service opens its own.
std::string upgrade(const std::string& dataDir, bool isNoted) {
    const std::string database = dataDir + "/" + apps::kSecureLayout.file;
    const bool isToNote = isNoted && isOfEarlierVersion(database);
    apps::Upgrader store(database);
    if (isToNote) note(dataDir, "UPGRADE", store.isCurrent());
    if (!store.isCurrent()) return database + " could not be upgraded; the lines above tell why";
    if (store.leftBehind())
        tell(database + " has data of an earlier version, of which nothing was copied; stop the service and copy it " +
             "with: sdconfig upgrade --force " + dataDir);
    return "";
}

// Returns a line for a person, or "".
std::string useProduct(const std::string& folder) {
    if (folder.empty()) return "";
    const std::filesystem::path product = std::filesystem::absolute(folder);
    std::error_code failure;
    if (!std::filesystem::is_directory(product, failure))
        return "--product-dir names no folder: " + product.string() +
               "; name the product's data folder, or leave it out";
    sd::SDConfig::setVelmarDataPath(product);
    return "";
}

bool mayHaveBuildProp() {
    const auto isThere = [](const char* file) { return ::access(file, F_OK) == 0; };
    return !sd::SDConfig::getVelmarDataPath().empty() || isThere("/etc/build.prop") ||
           isThere("/velmar/etc/build.prop");
}

// The data folder in this service's hands. Made before the stores, so that it is given up after their files are closed.
class HeldFolder {
public:
    HeldFolder() = default;
    ~HeldFolder() {
        if (mEndedCleanly) mMark->write();
    }
    HeldFolder(const HeldFolder&) = delete;
    HeldFolder& operator=(const HeldFolder&) = delete;

    std::optional<apps::Finding> take(const std::string& path) {
        mMark.emplace(path);
        mPreflight.emplace(path);
        return mLock.take(path);
    }
    Preflight& preflight() { return *mPreflight; }

    // What the mark of the last end says. It goes while the rest of the start is done, since that takes a sync of the
    // disk; markRemoved waits for it, and returns a line for a person, or "".
    Integrity takeMark() {
        const bool agrees = mMark->agrees();
        mRemoval = std::async(std::launch::async, [this] { return mMark->remove(); });
        return agrees ? Integrity::Known : Integrity::ToCheck;
    }
    std::string markRemoved() { return mRemoval.get(); }

    void noteServed() { mMark->noteServed(); }
    void noteCleanEnd() { mEndedCleanly = true; }

private:
    apps::DataFolderLock mLock;
    std::optional<CleanEndMark> mMark;
    std::future<std::string> mRemoval;  // goes before the mark, whose removal it waits for
    bool mEndedCleanly = false;
    std::optional<Preflight> mPreflight;
};

void tellKeyUse(const std::string& dataDir) {
    if (const auto used = apps::keyUseFinding(dataDir)) tell(used->what + ": " + used->next);
}

// Waits for a wrapped ring to be opened, and tells what came of it. Returns a line for a person where it can't be used
// at all, or "".
std::string awaitRingOnce() {
    using State = sd::SDSecurity::KeyRingState;
    const std::string& dataDir = sd::SDConfig::getDataPathUtf8();
    const auto ring = sd::SDSecurity::GetInstance()->CheckKeyRing();
    if (ring.state == State::Broken) return "the key ring can't be used: " + ring.detail;
    if (const auto locked = apps::lockedRing(dataDir, ring)) tell(locked->what + ": " + locked->next);
    if (ring.state == State::Usable) tellKeyUse(dataDir);
    return "";
}

// The same where memory runs out meanwhile. A service that serves doesn't end for that: whatever needs the ring opens
// it.
std::string awaitRing() {
    constexpr int kTries = 3;
    for (int i = 0; i < kTries; ++i) {
        try {
            return awaitRingOnce();
        } catch (const std::bad_alloc&) {
            std::fputs("sdconfigd: memory is short: it can't be told whether the key ring is open\n", stderr);
        }
    }
    return "";
}

// Tells the library and the layers below it where the data is, and takes the data folder. Returns a line for a person,
// or "".
std::string prepare(const Options& options, HeldFolder& folder) {
    const std::string dataDir = sd::wholePath(options.dataDir);
    sd::SDConfig::setDataPath(dataDir);
    if (sd::SDConfig::getDataPathUtf8() != dataDir) return "the path of the data folder is not valid UTF-8";

    sd::SDConfigService::SetTrailKept(!options.noAudit);
    sd::SDConfigService::SetTrailSize(options.auditMiB, options.auditKeep);
    sd::SDConfigService::SetAuditedReads(options.auditReads);
    if (!options.policyDirs.empty()) sd::SDConfigDmHelper::SetMachinePolicyFolders(options.policyDirs);
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    security.SetKeyRingFolder(dataDir);
    if (!options.sealSocket.empty()) security.SetSealSocket(options.sealSocket);
    if (std::string problem = sd::makeFolder(dataDir); !problem.empty()) return problem;
    if (const auto problem = folder.take(dataDir)) return problem->what + ": " + problem->next;
    const Integrity integrity = folder.takeMark();
    (void)security.OpenKeyRingAhead();
    if (const std::string problem = security.SelfTest(); !problem.empty())
        return "nothing can be sealed or opened: " + problem;
    if (std::string problem = folder.preflight().check(integrity); !problem.empty()) return problem;
    if (!folder.preflight().isRingLocked()) tellKeyUse(dataDir);
    if (!options.upgrade) return "";
    folder.preflight().close();
    return upgrade(dataDir, !options.noAudit);
}

// Whether the service answers its own client: where its thread hangs it does not. Nothing where memory is short.
std::optional<bool> answers(std::chrono::milliseconds limit) {
    try {
        const auto proxy = SDBusSerivceManager::initSync(-1)->getServiceProxyInterface(kName, SDBusSameUser, 1);
        return apps::smallestCall(*proxy, static_cast<int>(limit.count()))->type() == sd::protocol::kMethodReply;
    } catch (const std::bad_alloc&) {
        return std::nullopt;
    }
}

timespec timespecOf(std::chrono::milliseconds time) {
    return {time.count() / 1000, time.count() % 1000 * 1000000};
}

// Waits for a signal to end. A manager that restarts a service which gives no sign of life gets one twice in the time
// it allows, each of them after a call that was answered.
void waitForEnd(const sigset_t& endSignals) {
    using namespace std::chrono;
    uint64_t allowed = 0;
    int signal = 0;
    if (sd_watchdog_enabled(0, &allowed) <= 0) {
        sigwait(&endSignals, &signal);
        return;
    }
    const milliseconds period(allowed / 2000);
    for (timespec wait = timespecOf(period); sigtimedwait(&endSignals, nullptr, &wait) < 0;) {
        if (errno != EAGAIN) continue;
        const std::optional<bool> isAnswered = answers(period);
        if (isAnswered.value_or(false)) sd_notify(0, "WATCHDOG=1");
        wait = timespecOf(isAnswered ? period : period / 16);  // a lack of memory passes before the sign is missed
    }
}

// Serves until SIGTERM, SIGINT or SIGHUP, which every thread has blocked.
int serve(HeldFolder& folder, const sigset_t& endSignals) {
    SDBusSerivceManager& bus = *SDBusSerivceManager::initSync(-1);
    sd::SDConfigService* const service = sd::SDConfigService::GetInstance();
    std::string problem = folder.preflight().checkTables();
    if (problem.empty() && !sd::SDConfigService::CanStore())
        problem = "a database could not be opened for writing; were memory and descriptors short?";
    folder.preflight().close();
    if (!problem.empty()) return fail(problem);
    const bool buildProp = mayHaveBuildProp();
    // Each client asks for the product's version at its start, and error lines would tell each time what is told below.
    if (!buildProp) sd::SDPropertyInf::SetAbsentFileLevel(5);
    folder.noteServed();
    if (problem = folder.markRemoved(); !problem.empty()) return fail(problem);
    service->Start();
    if (problem = bus.registrationFailure(kName); !problem.empty()) return fail(problem);

    // Whoever is told that it is ready takes it for a service that stays, so what it says then asks for no memory.
    std::string lines;
    if (!buildProp) lines = lineOf("there is no build.prop, so the product's properties are unset; see --product-dir");
    lines += lineOf("ready on " + bus.socketPath(kName) + ", data in " + sd::SDConfig::getDataPath());
    // A manager that waits for it would end a service that is untold.
    if (const int told = sd_notify(0, "READY=1"); told < 0)
        return fail(std::string("can't tell the manager that it is ready: ") + std::strerror(-told));
    std::fputs(lines.c_str(), stderr);
    ::malloc_trim(0);  // what it took to look at the databases
    const std::string problemOfRing = folder.preflight().isRingLocked() ? awaitRing() : "";
    if (problemOfRing.empty()) waitForEnd(endSignals);
    sd_notify(0, "STOPPING=1");
    bus.unregisterServiceInterface(kName);
    return problemOfRing.empty() ? kDone : fail(problemOfRing);
}

int run(const Options& options, const sigset_t& endSignals) {
    // Before any file is touched, so that a second service leaves the first one's data alone.
    if (const int holder = SDBusSerivceManager::initSync(-1)->serviceProcess(kName))
        return fail("the service \"" + std::string(kName) + "\" is already running as process " +
                    std::to_string(holder) + "; end that one first");
    if (std::string problem = options.constants.empty() ? "" : useConstants(options.constants); !problem.empty())
        return fail(problem + "; name a file of lines name=value with --constants, or leave it out", kWrongUse);
    if (const std::string problem = useProduct(options.productDir); !problem.empty()) return fail(problem, kWrongUse);
    CleanEndMark::watchForDamage();
    static HeldFolder folder;
    if (const std::string problem = prepare(options, folder); !problem.empty()) return fail(problem);
    const int code = serve(folder, endSignals);
    if (code == kDone) folder.noteCleanEnd();
    return code;
}

// Makes `folder` the one whose ring is meant: the running service's, where there is one. Returns a line for a person,
// or "".
std::string chooseFolder(const Options& options, std::string& folder) {
    folder = sd::wholePath(options.dataDir);
    if (!SDBusSerivceManager::initSync(-1)->isServiceRegistered(kName)) return "";
    const std::string served = apps::servedFolder();
    if (!options.dataDirNamed) folder = served;
    if (folder.empty()) return "the system does not tell where the running service keeps its data; say it: --data-dir";
    if (served.empty() || apps::isSameFolder(folder, served)) return "";
    return "the running service keeps its data in " + served + ": leave out --data-dir to rotate that key ring, or " +
           "stop the service first";
}

// A running service makes the key itself, as for `sdconfig key rotate`; one that can't be asked for that takes it up by
// itself.
bool makeKey(sd::SDSecurity& security) {
    SDBusSerivceManager& bus = *SDBusSerivceManager::initSync(-1);
    if (!bus.isServiceRegistered(kName)) return security.RotateKey();
    const auto proxy = bus.getServiceProxyInterface(kName, SDBusSameUser, 1);
    auto call = proxy->makeMethodCallMessage(sd::protocol::kKeyRotate);
    call->appendBool(false);
    const auto answer = proxy->callWithReplyBlocking(std::move(call), sd::protocol::kCallTimeoutMs);
    if (answer->type() != sd::protocol::kMethodReply) return security.RotateKey();
    return answer->getInt(0) == static_cast<int>(sd::protocol::KeyOutcome::Done);
}

int rotateKey(const Options& options) {
    std::string folder;
    if (const std::string problem = chooseFolder(options, folder); !problem.empty()) return fail(problem);
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    security.SetKeyRingFolder(folder);
    const auto ring = security.CheckKeyRing();
    const bool absent = ring.state == sd::SDSecurity::KeyRingState::Absent;
    if (const auto finding = apps::ringFinding(folder, absent && apps::holdsSealedValues(folder)))
        return fail(finding->what + ": " + finding->next);
    if (absent) return fail(ring.detail + "; the first value that is sealed makes it");
    // A running service may have been told what opens it.
    const bool isServed = SDBusSerivceManager::initSync(-1)->isServiceRegistered(kName);
    if (const auto locked = apps::lockedRing(folder, ring); locked && !isServed)
        return fail(locked->what + ": " + locked->next);
    const bool isMade = makeKey(security);
    if (!isServed && !options.noAudit) note(folder, sd::protocol::kKeyRotate, isMade);  // a service does it itself
    if (!isMade) return fail("the key ring could not be changed; the line above, or the service's log, tells why");
    tell("a new key seals from now on; what was sealed before still opens; back up " +
         (apps::isRingOf(folder, ring) ? folder + "/" + apps::kRingFile : ring.detail));
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    sigaddset(&endSignals, SIGHUP);  // its terminal was closed
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    ::umask(0077);  // nothing that the service makes is anybody else's business

    Options options;
    options.dataDir = apps::defaultDataFolder();
    CLI::App app("Keeps the client's settings, secure values and policies, and answers them to its processes.",
                 "sdconfigd");
    declareOptions(app, options);
    try {
        app.parse(argc, argv);
        options.dataDirNamed = app.count("--data-dir") > 0;
        velmarLogSetLevel(options.logLevel);
        if (!options.logSecrets) hideSecrets();
        if (!options.allowDumps) stopDumps();
        if (options.dataDir.empty()) return fail("there is no data folder; name one with --data-dir");
        return options.rotateKey ? rotateKey(options) : run(options, endSignals);
    } catch (const CLI::Success& help) {
        app.exit(help);
        return std::cout.flush() ? kDone : fail("standard output can't be written");
    } catch (const CLI::ParseError& error) {
        tell(apps::usageProblem(error) + "; see sdconfigd --help");
        return kWrongUse;
    } catch (const std::exception& error) {
        return fail(error.what());
    }
}
