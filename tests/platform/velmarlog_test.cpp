// The log layer as a host sees it: what lands on standard error, in the journal and in a sink.
#include "platform/velmarlog/velmarlog.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/sip_hash.h"
#include "tests/support/support.h"

using testing::AllOf;
using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::MatchesRegex;

// Stands in for libsystemd's: the layer finds this one first. Refuses lines that hold "refuse".
extern "C" __attribute__((visibility("default"))) int sd_journal_sendv(const iovec* fields, int count) {
    std::string all;
    for (int i = 0; i < count; ++i)
        all += "<" + std::string(static_cast<const char*>(fields[i].iov_base), fields[i].iov_len) + ">";
    if (all.find("refuse") != std::string::npos) return -ENOENT;
    return ::write(STDERR_FILENO, all.data(), all.size()) < 0 ? -errno : 0;
}

// Stands in for the C library's, which has a lock as this has; "holds" it for a while when told.
std::atomic<bool> sClockHolds{false}, sClockHeld{false};
extern "C" __attribute__((visibility("default"))) std::tm* localtime_r(const std::time_t* time, std::tm* parts) {
    static std::mutex sLock;
    const std::lock_guard lock(sLock);
    if (sClockHolds) {
        sClockHeld = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return ::gmtime_r(time, parts);
}

namespace {

// What reaches standard error while `log` runs, one entry a write.
std::vector<std::string> writesOf(const std::function<void()>& log) {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends) != 0) throw std::runtime_error("socketpair");
    const int old = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    log();
    ::dup2(old, STDERR_FILENO);
    std::vector<std::string> writes;
    std::string buffer(1UL << 19U, '\0');
    for (ssize_t got = 0; (got = ::recv(ends[0], buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;)
        writes.push_back(buffer.substr(0, static_cast<std::size_t>(got)));
    for (const int descriptor : {ends[0], ends[1], old}) ::close(descriptor);
    return writes;
}

const std::string kTime = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9]\\.[0-9][0-9][0-9] ";

TEST(StandardErrorTest, ShowsEachLineOfTheLeastLevelInOneWriteAndKeepsErrno) {
    const auto all = [] {
        for (int level = 5; level <= 7; ++level) {
            errno = EACCES;
            velmarLogPrint(0, level, "tag", "%s %s(%d): line %d", "file", "function", 7, level);
            EXPECT_EQ(errno, EACCES);
        }
    };
    const std::string text = "tag: file function\\(7\\): line ";
    const auto warning = MatchesRegex(kTime + "W " + text + "6\n");
    const auto error = MatchesRegex(kTime + "E " + text + "7\n");
    EXPECT_THAT(writesOf(all), ElementsAre(warning, error));
    velmarLogSetLevel(5);
    EXPECT_THAT(writesOf(all), ElementsAre(MatchesRegex(kTime + "I " + text + "5.*"), warning, error));
    EXPECT_THAT(writesOf([&all] { ::close(STDERR_FILENO), all(); }), ElementsAre());
    velmarLogSetLevel(8);
    EXPECT_THAT(writesOf([] { velmarLogPrint(0, 9, "tag", "line"); }), ElementsAre());
    velmarLogSetLevel(6);
}

TEST(StandardErrorTest, LetsNoTextForgeALineOrDriveTheTerminal) {
    const struct {
        std::string text, shown;
    } cases[] = {
        {"a\n12:00:00.000 E other: forged\n", "a\n    12:00:00.000 E other: forged"},
        {"\x1b[2J\r\x7f\tb", "\\x1b[2J\\x0d\\x7f\tb"},
        {"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"\x9b\x80|\xc2\x9b|\xff|\xc3|\xc0\xaf", "\\x9b\\x80|\\xc2\\x9b|\\xff|\\xc3|\\xc0\\xaf"},
        {u8"\u00a0\u0800\U00010000", u8"\u00a0\u0800\U00010000"},
        {"\xe0\x80\xaf\xed\xa0\x80|\xe2\x82", "\\xe0\\x80\\xaf\\xed\\xa0\\x80|\\xe2\\x82"},
        {std::string(65536, 'x'), std::string(65536, 'x')},
        {std::string(65537, 'x'), std::string(65536, 'x') + " [cut: 65537 bytes]"},
    };
    for (const auto& row : cases) {
        const std::vector<std::string> writes = writesOf([&] { velmarLogPrint(0, 7, "t", "%s", row.text.c_str()); });
        ASSERT_EQ(writes.size(), 1U);
        EXPECT_EQ(writes[0].substr(13), "E t: " + row.shown + "\n");
    }
}

// Each "death" runs in a process of its own, whose standard error the test reads: fresh state and a real exit.
TEST(JournalTest, TakesTheLinesOfAProcessWhoseStandardErrorItReads) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto logAs = [](unsigned long inodeOffset, int level, const char* text) {
        struct stat status {};
        ::fstat(STDERR_FILENO, &status);
        const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + inodeOffset);
        ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
        velmarLogSetLevel(5);
        velmarLogPrint(0, level, "tag", "%s %s(%d): %s", "file", "function", 7, text);
        velmarLogPrint(0, level, "tag", "no place");
        std::exit(0);
    };
    EXPECT_EXIT(logAs(0, 6, "a\nb\x1b"), ExitedWithCode(0),
                HasSubstr("<MESSAGE=file function(7): a\nb\\x1b><PRIORITY=4><SYSLOG_IDENTIFIER=tag><CODE_FILE=file>"
                          "<CODE_FUNC=function><CODE_LINE=7><MESSAGE=no place><PRIORITY=4><SYSLOG_IDENTIFIER=tag>"));
    EXPECT_EXIT(logAs(0, 5, ""), ExitedWithCode(0), HasSubstr("<PRIORITY=6>"));
    EXPECT_EXIT(logAs(0, 7, "refuse"), ExitedWithCode(0),
                AllOf(HasSubstr(" E tag: file function(7): refuse\n"), HasSubstr("<PRIORITY=3>")));
    EXPECT_EXIT(logAs(1, 7, ""), ExitedWithCode(0), HasSubstr(" E tag: no place\n"));
}

// From the paper that describes the hash, and the table that comes with it: of so many bytes 0, 1, 2 ...
TEST(SecretTest, TheHashIsSipHash) {
    const std::pair<int, std::uint64_t> published[] = {
        {0, 0x726fdb47dd0e0e31}, {1, 0x74f839c593dc67fd},  {7, 0xab0200f58b01d137},
        {8, 0x93f5f5799a932462}, {15, 0xa129ca6149be45e5}, {63, 0x958a324ceb064572},
    };
    for (const auto& [size, hash] : published) {
        std::string text;
        for (int i = 0; i < size; ++i) text += static_cast<char>(i);
        EXPECT_EQ(sd::sipHash({0x0706050403020100, 0x0f0e0d0c0b0a0908}, text), hash) << size;
    }
}

TEST(SecretTest, HidesAValueBehindADigestOfThisProcess) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EQ(velmarLogHidden("value"), "");
    velmarLogSetSecretsShown(false);
    const std::string hidden = velmarLogHidden("value");
    EXPECT_THAT(hidden, MatchesRegex("\\[5 bytes, [0-9a-f]+\\]"));
    EXPECT_EQ(velmarLogHidden("value"), hidden);
    EXPECT_NE(velmarLogHidden("Value"), hidden);
    const auto tell = [] {
        velmarLogSetSecretsShown(false);
        velmarLogPrint(0, 7, "t", "%s", velmarLogHidden("value").c_str());
        std::exit(0);
    };
    EXPECT_EXIT(tell(), ExitedWithCode(0), AllOf(HasSubstr("[5 bytes, "), testing::Not(HasSubstr(hidden))));
    velmarLogSetSecretsShown(true);
}

std::string sEarly;
const bool sLoggedBeforeMain = [] {
    velmarLogSetSink([](int, const char*, const std::string& line) { sEarly = line; });
    velmarLogPrint(0, 7, "t", "early");
    velmarLogSetSink({});
    return true;
}();

TEST(LifetimeTest, WorksBeforeMainAndAtExit) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EQ(sEarly, "early");
    const auto exitLogging = [] {
        std::atexit([] { velmarLogPrint(0, 7, "t", "late"); });
        velmarLogSetSink(
            [](int, const char*, const std::string& line) { (void)!::write(2, line.data(), line.size()); });
        std::exit(0);
    };
    EXPECT_EXIT(exitLogging(), ExitedWithCode(0), "late");
}

TEST(ForkTest, AChildLogsAtOnceWhereverAnotherThreadWas) {
    const auto logInBoth = [] {
        static std::atomic<bool> sLogged{false};
        sClockHolds = true;
        // Detached: to the child it is a thread that nobody has joined, which the thread sanitizer would tell.
        std::thread([] {
            velmarLogPrint(0, 7, "t", "parent");
            sLogged = true;
        }).detach();
        test::waitUntil([] { return sClockHeld.load(); });
        sClockHolds = false;
        test::inChild([] {
            velmarLogPrint(0, 7, "t", "child");
            return true;
        });
        test::waitUntil([] { return sLogged.load(); });
    };
    EXPECT_THAT(writesOf(logInBoth), testing::UnorderedElementsAre(HasSubstr("t: parent"), HasSubstr("t: child")));
}

TEST(SinkTest, ThatLogsOrThrowsLosesNothing) {
    velmarLogSetSink([](int, const char*, const std::string& line) {
        velmarLogPrint(0, 7, "sink", "got %s", line.c_str());
        throw std::runtime_error("full");
    });
    const std::vector<std::string> writes = writesOf([] { velmarLogPrint(0, 7, "t", "one"); });
    velmarLogSetSink({});
    EXPECT_THAT(writes, ElementsAre(HasSubstr("E sink: got one\n"), HasSubstr("E t: one\n")));
}

TEST(SinkTest, IsSwappedWhileOthersLogAndEachLineReachesOne) {
    std::atomic<int> taken{0};
    const auto sink = [&taken](int, const char*, const std::string& line) { taken += line == "line"; };
    velmarLogSetSink(sink);
    std::vector<std::thread> threads(3);
    for (std::thread& thread : threads)
        thread = std::thread([] {
            for (int line = 0; line < 2000; ++line) velmarLogPrint(0, 7, "t", "line");
        });
    for (int i = 0; i < 2000; ++i) velmarLogSetSink(sink);
    for (std::thread& thread : threads) thread.join();
    velmarLogSetSink({});
    EXPECT_EQ(taken, 6000);
}

}  // namespace
