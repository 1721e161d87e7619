#include "tests/torture/power/worker.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include <nlohmann/json.hpp>

#include "base/unique_fd.h"
#include "tests/support/arguments.h"

namespace power {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using torture::Failed;

constexpr int kCallLimitMs = 10000;

TrailRead readTrail(const std::string& text) {
    static const std::map<std::string, std::string> kKinds{{"GET_SECURE", "read"},       {"SET_SECURE", "secure"},
                                                           {"DEL_SECURE", "secure"},     {"SET_POLICY", "policy"},
                                                           {"SET_POLICYLIST", "policy"}, {"DELETE_POLICY", "policy"}};
    TrailRead trail;
    std::istringstream lines(text);
    bool isFirst = true;
    for (std::string line; std::getline(lines, line); isFirst = false) {
        const Json entry = Json::parse(line);
        if (isFirst) trail.isWhole = entry.at("seq") == 1;
        const auto kind = kKinds.find(entry.at("what"));
        if (kind == kKinds.end()) continue;
        trail.told.emplace_back(kind->second, entry.at("key"));
        trail.bytes += line.size() + 1;
    }
    return trail;
}

RingRead readRing(const std::string& text) {
    RingRead ring;
    const Json listing = Json::parse(text);
    for (const Json& key : listing.at("keys")) {
        if (key.at("state") == "sealing")
            ring.sealing = key.at("key");
        else
            ring.sealedByOthers += key.at("values").get<long>() + key.at("policies").get<long>();
    }
    return ring;
}

}  // namespace

Worker::Worker(const Programs& programs)
    : mPrograms(programs),
      mProxy(SDBusSerivceManager::initSync(-1)->getServiceProxyInterface("sdconfig", SDBusSameUser, 1)) {}

void Worker::put(const Files& files) const {
    fs::remove_all(disk());
    (void)mLife.makeFolder("disk");
    for (const auto& [path, content] : files) {  // a folder comes before what is in it
        const std::string target = disk() + "/" + path;
        if (path.back() == '/') {
            (void)mLife.makeFolder("disk/" + path);
            continue;
        }
        const sd::UniqueFd file(::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (::write(file.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            throw Failed("no room for a state");
    }
}

void Worker::check(const Model& model, const Files& files, Look look) {
    model.checkFiles(files);
    const bool isSound = look == Look::Whole && isFoundSound(files);
    if (look == Look::Short || model.upgrade().empty()) return checkStart(model, files, look, isSound);
    upgradeAgain(model);
    Model upgraded = model;
    upgraded.settleAll();
    checkStart(upgraded, files, look, isSound);
}

// isSound: a look before found nothing.
void Worker::checkStart(const Model& model, const Files& files, Look look, bool isSound) {
    const bool isWhole = look == Look::Whole;
    start();
    try {
        const Values found = ask(model);
        model.checkValues(found);
        if (isSound && mLife.log().find(" E ") != std::string::npos)
            throw Failed("sdconfig check found nothing before the start, which does");
        const int code = mLife.end(isWhole ? SIGTERM : SIGKILL);
        if (isWhole && code != 0) throw Failed("the service ends with " + std::to_string(code));
        if (isWhole) lookAt(model, files, found);
    } catch (const std::exception& failure) {
        throw Failed(failure.what() + ("; the service said: " + mLife.said()));
    }
}

std::vector<Entry> Worker::record(Model& model, const Files& files, bool isKilled) {
    constexpr int kSets = 3;
    (void)std::ofstream(recording());  // empty, and there where there are no files
    put(files);
    for (const auto& [path, content] : files) noteExisting(path, content);
    const Variables variables{{"LD_PRELOAD", mPrograms.recorder}, {"POWER_ROOT", disk()}, {"POWER_LOG", recording()}};
    const bool isUpgrade = !model.upgrade().empty();
    if (isUpgrade) {
        upgradeAgain(model, variables);
        mark("ack\tupgrade");
    }
    start(variables);
    mark("ack\tstart");
    const std::string torn = "data/trail.torn";  // what the start kept aside is there from now on
    if (fs::exists(disk() + "/" + torn)) mark("ack\tfile\t" + torn);
    if (!isUpgrade) settle(model, files);
    for (int i = 0; i < kSets; ++i) {
        const std::string key = "after.cut." + std::to_string(i);
        mark("begin\tsecure\t" + key + "\tvalue");
        set(key, "value");
        mark("ack\tsecure\t" + key);
    }
    if (isKilled) {
        const sd::UniqueFd log(::open(recording().c_str(), O_WRONLY | O_CLOEXEC));
        ::flock(log.get(), LOCK_EX);  // so that no call is cut off from its record
        mLife.end(SIGKILL);
    } else {
        mark("begin\tend");
        mLife.end(SIGTERM);
    }
    std::vector<Entry> log = readLog(recording());
    checkRecording(log, disk());
    return log;
}

// By what a service, which is recorded, has.
void Worker::settle(Model& model, const Files& files) {
    if (model.isReadingUnderWay()) model.settleReading(trail());
    const std::vector<Key> readings = model.readings();
    for (const Key& reading : readings) mark("begin\tread\t" + reading.second);
    const Values found = ask(model);
    for (const Key& reading : readings) mark("ack\tread\t" + reading.second);
    model.settle(found, files);
}

void Worker::noteExisting(const std::string& path, const std::string& content) const {
    const bool isFolder = path.back() == '/';
    const std::string target = disk() + "/" + path.substr(0, path.size() - (isFolder ? 1 : 0));
    struct stat status {};
    if (::stat(target.c_str(), &status) != 0) throw Failed("there is no " + target);
    appendToLog(recording(), {Kind::Exists, status.st_ino, isFolder ? 1 : 0, target, content});
}

void Worker::mark(const std::string& text) const {
    appendToLog(recording(), {Kind::Mark, 0, 0, "", text});
}

void Worker::start(const Variables& variables) {
    Words words{mPrograms.sdconfigd, "--data-dir", disk() + "/data"};
    for (std::string option : mPrograms.options) {
        if (option[0] == '@') option.replace(0, 1, disk());
        words.push_back(std::move(option));
    }
    if (!mLife.start(words, variables)) throw Failed("the service doesn't start: " + mLife.said());
}

Values Worker::ask(const Model& model) {
    std::vector<std::shared_ptr<SDBusMessage>> calls;
    for (const auto& [kind, name] : model.keys()) {
        calls.push_back(mProxy->makeMethodCallMessage(kind == "secure" ? "GET_SECURE" : "GET_POLICY"));
        calls.back()->appendString(name);
    }
    const auto answers = mProxy->callsWithRepliesBlocking(calls, kCallLimitMs);
    Values found;
    auto answer = answers.begin();
    for (const Key& key : model.keys()) {
        if ((*answer)->type() != 2) throw Failed(key.second + ": no answer");
        found[key] = (*answer++)->getString(0);
    }
    return found;
}

void Worker::set(const std::string& key, const std::string& value) {
    auto call = mProxy->makeMethodCallMessage("SET_SECURE");
    test::appendAll(*call, key, value);
    const auto answer = mProxy->callWithReplyBlocking(std::move(call), kCallLimitMs);
    if (answer->type() != 2 || !answer->getBool(0)) throw Failed(key + " can't be set: " + mLife.said());
}

test::Result Worker::run(Words words, const Variables& variables) const {
    words.insert(words.begin(), mPrograms.sdconfig);
    return test::run(words, variables);
}

std::string Worker::ran(const Words& words, const Variables& variables) const {
    const test::Result told = run(words, variables);
    if (told.exitCode != 0)
        throw Failed("sdconfig " + words[0] + " ends with " + std::to_string(told.exitCode) + ": " + told.out +
                     told.err);
    return told.out;
}

// Whatever a cut left, a look at it ends well, says what it finds, and leaves all as it is; the rest is the next
// start's to mend.
bool Worker::isFoundSound(const Files& files) const {
    const test::Result told = run({"check", disk() + "/data"});
    constexpr int kWrongUse = 2;  // as where the folder is not there yet
    const bool isSaid = told.exitCode != 1 || told.out.find("finding: ") != std::string::npos;
    if (told.exitCode < 0 || told.exitCode > kWrongUse || !isSaid)
        throw Failed("sdconfig check, before the start, ends with " + std::to_string(told.exitCode) + ": " + told.out +
                     told.err);
    if (filesIn(disk()) != files) throw Failed("sdconfig check changes what it looks at");
    return told.exitCode == 0;
}

// One that was cut finds all again, and carries it over.
void Worker::upgradeAgain(const Model& model, const Variables& variables) const {
    const Json rows = Json::parse(ran({"upgrade", "--force", "--json", disk() + "/data"}, variables)).at("rows");
    const std::string found = rows.at("config").dump() + " " + rows.at("secure").dump();
    if (found != model.upgrade()) throw Failed("an earlier version's tables have " + found + " rows");
}

TrailRead Worker::trail() const {
    return readTrail(ran({"log", "--reverse", "--json", "--data-dir", disk() + "/data"}));
}

Values Worker::storedIn(const std::string& folder) const {
    const Json listing = Json::parse(ran({"list", "--data-dir", folder, "--show", "--json"}));
    Values stored;
    for (const Json& row : listing.at("secure")) stored[{"secure", row.at("key")}] = row.at("value");
    for (const Json& row : listing.at("policies")) stored[{"policy", row.at("uri")}] = row.at("value");
    return stored;
}

// After an end by itself the folder is sound, and has what was written and nothing else, each with its entry.
void Worker::lookAt(const Model& model, const Files& files, const Values& found) const {
    const std::string data = disk() + "/data";
    (void)ran({"check", data});
    const Values stored = storedIn(data);
    model.checkStored(stored);
    model.checkTrail(trail(), found);
    if (model.isSealingKeyKnown()) model.checkRing(readRing(ran({"key", "list", "--json", "--data-dir", data})));
    for (const std::string& old : replacedFolders(files))
        model.checkReplaced(old, storedIn(disk() + "/" + old), stored);
}

}  // namespace power
