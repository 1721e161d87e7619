// Who made a call: what is told of its process, of one that has ended, and of one that got its number.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <limits>

#include "src/sdconfig_callers.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace sd {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSecond = 1'000'000'000;

SDBusPeer peerOf(int process, std::int64_t admittedNs = kNever) {
    return {1, 1000, process, admittedNs};
}

TEST(CallersTest, TellsWhatAProcessIsNow) {
    const trail::Peer self = lookUp(peerOf(::getpid()));
    EXPECT_FALSE(self.isGone);
    EXPECT_EQ(self.uid, 1000U);
    EXPECT_EQ(self.exe, std::filesystem::read_symlink("/proc/self/exe").string());
    EXPECT_EQ(self.name, test::readFile("/proc/self/comm").substr(0, self.name->size()));
    EXPECT_TRUE(self.unit);

    EXPECT_TRUE(lookUp(peerOf(::getpid(), 0)).isGone) << "it began after the peer was admitted";
    EXPECT_FALSE(lookUp(peerOf(0)).isGone) << "of a process without a number here nothing is known";
    const trail::Peer gone = lookUp(peerOf(std::numeric_limits<int>::max()));
    EXPECT_TRUE(gone.isGone && !gone.exe && !gone.unit && !gone.name);
}

class FakeProcessTest : public testing::Test {
protected:
    trail::Peer lookUpWith(const std::string& status, const std::string& groups, const std::string& program = "/p") {
        const std::string folder = mProc / "7";
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        test::writeFile(folder + "/stat", status);
        test::writeFile(folder + "/cgroup", groups);
        std::filesystem::create_symlink(program, folder + "/exe");
        return lookUp(peerOf(7, 10 * kSecond), mProc.path());
    }
    // ticks: when it began.
    static std::string statusOf(const std::string& name, const std::string& state, long ticks) {
        return "7 (" + name + ") " + state + " 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 " + std::to_string(ticks) +
               " 20 21\n";
    }
    auto unitIn(const std::string& groups) { return lookUpWith(statusOf("n", "S", 1), groups).unit; }
    test::TempDir mProc;
};

TEST_F(FakeProcessTest, TakesNoLaterProcessAndNoNameForAnother) {
    const long ticks = ::sysconf(_SC_CLK_TCK);
    EXPECT_FALSE(lookUpWith(statusOf("n", "S", 10 * ticks), "").isGone);
    EXPECT_TRUE(lookUpWith(statusOf("n", "S", 10 * ticks + 1), "").isGone);
    EXPECT_TRUE(lookUpWith(statusOf("n", "Z", 1), "").isGone);
    EXPECT_EQ(lookUpWith(statusOf(") Z 1 (\n", "S", 1), "").name, ") Z 1 (\n");
    for (const char* damaged : {"", "7", "7 )n(", "7 (n", "7 (n)", "7 (n) S", "7 (n) S 1 2 x x"})
        EXPECT_FALSE(lookUpWith(damaged, "").name == "x") << damaged;
    const std::string longest = "/" + std::string(4000, 'x');
    EXPECT_EQ(lookUpWith(statusOf("n", "S", 1), "", longest).exe, longest);
}

TEST_F(FakeProcessTest, TellsTheInnermostUnitOrTheGroup) {
    EXPECT_EQ(unitIn("0::/user.slice/user@1000.service/app.slice/app-velmar-7.scope\n"), "app-velmar-7.scope");
    EXPECT_EQ(unitIn("0::/user.slice/user@1000.service/app.slice/a.service/worker\n"), "a.service");
    EXPECT_EQ(unitIn("0::/docker/12ab\n"), "/docker/12ab");
    EXPECT_EQ(unitIn("12:cpu:/x\n1:name=systemd:/system.slice/cron.service\n0::/\n"), "cron.service");
    EXPECT_EQ(unitIn("0::/a.scope\n1:name=systemd:/b.scope\n"), "a.scope");
    for (const char* nothing : {"", "\n\n", "0::", "nonsense"}) EXPECT_FALSE(unitIn(nothing)) << nothing;
}

}  // namespace
}  // namespace sd
