// What scripted sessions of the command line print, compared with NAME.golden: those who script it know each line, each
// member of --json and each exit code. Lines "$ COMMAND" are typed into a shell; what stands below is what they print,
// and behind "!" what they say on standard error. "$ service OPTIONS" starts the service, "$ stop" ends it and shows
// what it said, "$ end" just ends it; "@" is the session's folder, and $SESSIONS that of the golden files.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <iterator>
#include <optional>
#include <regex>
#include <sstream>

#include "tests/e2e/sandbox.h"
#include "tests/support/legacy_database.h"

namespace test {
namespace {

constexpr int kLineLimitMs = 6 * kProcessLimitMs;  // a line may run dozens of processes

class CommandsTest : public Sandbox {
protected:
    std::string answerTo(const std::string& command) {
        if (command.compare(0, 7, "service") == 0) {
            std::istringstream words(std::regex_replace(command.substr(7), std::regex("@/"), path("")));
            mService.emplace(startService({std::istream_iterator<std::string>(words), {}}));
            return "";
        }
        if (command == "stop") {
            EXPECT_EQ(mService->stop(), 0) << mService->err();
            const std::string said = mService->err();
            mService.reset();
            return alike(said);
        }
        if (command == "end") {
            EXPECT_EQ(mService->stop(), 0) << mService->err();
            return "";
        }
        Environment typed = environment();
        typed.insert({{"PATH", folderOf(SDCONFIG_CLI) + ":" + folderOf(SDCONFIGD) + ":" + folderOf(SDCONFIG_KEYGEN) +
                                   ":/usr/bin:/bin"},
                      {"SESSIONS", GOLDEN_SESSIONS},
                      {"TZ", "UTC"},
                      {"LC_ALL", "C.UTF-8"}});
        const Result result = run({"bash", "-c", "cd " + path("") + "; " + command}, typed, "", kLineLimitMs);
        std::string shown = result.out;
        if (!shown.empty() && shown.back() != '\n') shown += "(no newline)\n";
        std::istringstream said(result.err);
        for (std::string line; std::getline(said, line);) shown += "! " + line + '\n';
        if (result.exitCode != 0) shown += "(exit code " + std::to_string(result.exitCode) + ")\n";
        return alike(shown);
    }

    void expectSession(const std::string& name) {
        std::istringstream golden(readFile(GOLDEN_SESSIONS "/" + name + ".golden"));
        std::string seen, line;
        while (std::getline(golden, line)) {
            if (line.compare(0, 2, "# ") == 0) seen += (seen.empty() ? "" : "\n") + line + '\n';
            if (line.compare(0, 2, "$ ") == 0) seen += line + '\n' + answerTo(line.substr(2));
        }
        expectGolden(GOLDEN_SESSIONS "/" + name + ".golden", SEEN_SESSIONS "/" + name + ".golden", seen);
    }

private:
    static std::string folderOf(const std::string& program) { return program.substr(0, program.rfind('/')); }

    // Without what differs from run to run.
    std::string alike(std::string text) const {
        const std::string root = path("");
        for (const auto& [place, shown] :
             {std::pair(root, "@/"), std::pair(root.substr(0, root.size() - 1), "@"),
              std::pair(folderOf(SDCONFIGD), "BIN"), std::pair(folderOf(SDCONFIG_CLI), "BIN")})
            for (std::size_t at = 0; (at = text.find(place, at)) != std::string::npos;)
                text.replace(at, place.size(), shown);
        static const std::pair<std::regex, std::string> kVarying[] = {
            {std::regex("\\b\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "), ""},
            {std::regex("(\\w)\\(\\d+\\): "), "$1(#): "},
            {std::regex("[^\n]* takes \\d+ ms\n"), ""},
            {std::regex("( bytes, )[0-9a-f]{8}\\]"), "$1DIGEST]"},
            {std::regex("\\d{4}-\\d\\d-\\d\\d[T ]\\d\\d:\\d\\d(:\\d\\d(\\.\\d+)?)?(Z|[+-]\\d\\d:?\\d\\d)?"), "TIME"},
            {std::regex("\\.\\d{8}T\\d{6}Z(-\\d)?"), ".TIME"},
            {std::regex("\\b[0-9a-f]{16,}\\b"), "HEX"},
            {std::regex("(pid\"?[ :=]+|process |/proc/)\\d+"), "$1PID"},
            {std::regex("(uid\"?[ :=]+)\\d+"), "$1UID"},
            {std::regex("(\"(mono|boot|unit|made|round_trip_us)\":)(\"[^\"]*\"|[0-9.]+)"), "$1#"},
            {std::regex("\\b\\d+(\\.\\d+)? (us|\u00b5s|ms)\\b"), "# $2"},
            {std::regex("\\b\\d+ (second|minute)s? ago by BIN"), "# seconds ago by BIN"},  // on a slow machine
            {std::regex("\\b\\d+\\.\\d+\\.\\d+\\b"), "VERSION"},
            {std::regex("'sha256-[^']*"), "'sha256-HASH"},
            {std::regex("Configuration of [^<]*"), "Configuration of USER on HOST"},
        };
        for (const auto& [what, shown] : kVarying) text = std::regex_replace(text, what, shown);
        return text;
    }

    std::optional<Process> mService;
};

TEST_F(CommandsTest, PrintWhatTheyDid) {
    expectSession("commands");
}

TEST_F(CommandsTest, SetAndGetValues) {
    expectSession("values");
}

// Another user's service in a container has another machine's policies: the administrator of this one is told nothing.
TEST_F(CommandsTest, SetAndApplyPolicies) {
    int ready[2];
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    const pid_t contained = ::fork();
    if (contained == 0) {
        if (::chroot(path("home").c_str()) == 0 && ::setuid(65534) == 0) ::prctl(PR_SET_DUMPABLE, 1);  // as after exec
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::prctl(PR_SET_NAME, "sdconfigd") == 0 && ::write(ready[1], "", 1) == 1) ::pause();
        ::_exit(1);
    }
    char byte = 0;
    ::close(ready[1]);
    EXPECT_EQ(::read(ready[0], &byte, 1), 1);
    expectSession("policies");
    ::kill(contained, SIGKILL);
    ::waitpid(contained, nullptr, 0);
    ::close(ready[0]);
}

TEST_F(CommandsTest, CarryEarlierDataOver) {
    for (const char* file : {"untouched", "used"}) makeLegacyDatabase(path(file));
    query(path("used"), kUsedSince);
    expectSession("upgrades");
}

TEST_F(CommandsTest, FindWhatIsWrongWithAFolder) {
    expectSession("checks");
}

TEST_F(CommandsTest, WrapAndOpenRings) {
    expectSession("rings");
}

TEST_F(CommandsTest, KnowDescribedKeys) {
    expectSession("described");
}

TEST_F(CommandsTest, TellOfTrails) {
    expectSession("trails");
}

}  // namespace
}  // namespace test
