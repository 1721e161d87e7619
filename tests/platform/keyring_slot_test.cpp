// The asking side of the keyring slot, before programs that stand in for sdconfig-keyring.
#include "platform/sdsecurity/keyring_slot.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <future>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "tests/support/scarce_memory.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using sd::security::KeyringHelper;
using sd::security::KeyringLimits;
using sd::security::SecretBytes;
using sd::security::SlotAnswer;
using testing::HasSubstr;
using Outcome = SlotAnswer::Outcome;

const std::string kId(32, 'a');
const std::string kKeyDigits(64, '5');
const SecretBytes kKey(32, 0x55);
constexpr KeyringLimits kPatient{60s, 1ms, 50ms};

bool hasChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) >= 0 || errno != ECHILD;
}

class KeyringSlotTest : public testing::Test {
protected:
    // A shell script that has the number and the words of the first request.
    std::string standIn(const std::string& script) {
        std::string program = mFolder / ("stand-in" + std::to_string(++mPrograms));
        test::writeScript(program, "echo >> " + starts() + "\nread number word rest\n" + script);
        return program;
    }
    std::string starts() const { return mFolder / "starts"; }
    std::size_t startCount() const { return test::readFile(starts()).size(); }

    const test::TempDir mFolder;
    int mPrograms = 0;
};

TEST_F(KeyringSlotTest, AProgramThatCantAnswerIsAskedAgainLater) {
    test::writeFile(mFolder / "no program", "");
    const struct {
        std::string program;
        std::string reason;
    } cases[] = {
        {mFolder / "missing", "the package sdconfig-keyring is not installed"},
        {mFolder / "no program", "can't be run: Permission denied"},
        {standIn("exit 3"), "sdconfig-keyring ended with code 3"},
        {standIn("kill -TERM $$"), "sdconfig-keyring ended by signal 15"},
        {standIn("exec <&- >&- sleep 60"), "sdconfig-keyring ended"},
        {standIn("echo hello; exec sleep 60"), "answers what nobody asked"},
        {standIn("echo 7 done " + kKeyDigits + "; exec sleep 60"), "answers what nobody asked"},
        {standIn("echo $number done " + kKeyDigits + "5; exec sleep 60"), "answers what nobody asked"},
        {standIn("printf '%s refused a\\033 reason\\n' $number; exec sleep 60"), "answers what nobody asked"},
        {standIn("cat /dev/zero | tr '\\0' 5"), "answers what nobody asked"},
    };
    for (const auto& [program, reason] : cases) {
        SCOPED_TRACE(reason);
        KeyringHelper helper(program, kPatient);
        const SlotAnswer answer = helper.find(kId);
        EXPECT_EQ(answer.outcome, Outcome::NotNow);
        EXPECT_THAT(answer.reason, HasSubstr(reason));
        EXPECT_TRUE(test::waitUntil([] { return !hasChildren(); })) << "with the object still there";
    }
    {
        KeyringHelper helper(standIn("exec sleep 60"), {50ms, 1ms, 50ms});
        EXPECT_EQ(helper.find(kId).reason, "sdconfig-keyring did not answer within 50 ms");
    }
    EXPECT_FALSE(hasChildren());
}

TEST_F(KeyringSlotTest, ItStartsClean) {
    const int inherited = ::fcntl(STDERR_FILENO, F_DUPFD, 50);
    const auto before = std::signal(SIGTERM, SIG_IGN);
    KeyringHelper helper(standIn("[ -e /proc/$$/fd/" + std::to_string(inherited) + " ] && open=1\n" +
                                 "plain=$(grep -Ec 'Sig(Ign|Blk):.*0{7}$' /proc/$$/status)\n" +
                                 "echo $number refused $# arguments, open: $open, plain: $plain; read more"),
                         kPatient);
    EXPECT_EQ(helper.find(kId).reason, "0 arguments, open: , plain: 2");
    std::signal(SIGTERM, before);
    ::close(inherited);
}

TEST_F(KeyringSlotTest, OneProgramAnswersAllUntilItFails) {
    KeyringHelper helper(standIn("while [ $word != forget ]; do\n"
                                 "[ $word = store ] && answer=" +
                                 kId + " || answer=" + kKeyDigits +
                                 "\n"
                                 "printf '%s do' $number; sleep 0.05; echo ne $answer\n"  // a line in two pieces
                                 "read number word rest; done; exit 9"),
                         {60s, 1h, 1h});
    const SlotAnswer stored = helper.store(kKey);
    EXPECT_EQ(stored.outcome, Outcome::Done) << stored.reason;
    EXPECT_EQ(stored.sealed, kId);
    EXPECT_EQ(helper.find(kId).key, kKey);
    EXPECT_EQ(helper.find(kId + "\n9 forget " + kId).outcome, Outcome::Refused) << "it comes from a file";
    EXPECT_EQ(startCount(), 1U);

    EXPECT_EQ(helper.forget(kId).reason, "sdconfig-keyring ended with code 9");
    EXPECT_EQ(helper.find(kId).reason, "sdconfig-keyring ended with code 9");
    EXPECT_EQ(startCount(), 1U) << "not again before its pause is over";
}

TEST_F(KeyringSlotTest, AWatchTellsOnceAndMayAsk) {
    // The first one dies of the watch, the next one answers it.
    KeyringHelper helper(standIn("[ $(wc -l < " + starts() +
                                 ") = 1 ] && exit 1\n"
                                 "while echo $number done " +
                                 kKeyDigits + "; do read number word rest || exit; done"),
                         kPatient);
    std::promise<SecretBytes> promise;
    helper.watch(kId, [&](const SlotAnswer& answer) {
        EXPECT_EQ(answer.outcome, Outcome::Done) << answer.reason;
        promise.set_value(helper.find(kId).key);
    });
    std::future<SecretBytes> found = promise.get_future();
    ASSERT_EQ(found.wait_for(60s), std::future_status::ready);
    EXPECT_EQ(found.get(), kKey);
    EXPECT_EQ(startCount(), 2U);

    KeyringHelper waiting(standIn("exec sleep 60"), kPatient);
    waiting.watch(kId, [](const SlotAnswer& /*answer*/) { ADD_FAILURE() << "nobody answered"; });
    EXPECT_TRUE(test::waitUntil([&] { return startCount() == 3; }, 60000));
}

TEST_F(KeyringSlotTest, MemoryThatRunsOutCostsOneAnswerAndNoMore) {
    using Of = test::ScarceMemory::Of;
    const std::string program =
        standIn("while echo $number done " + kKeyDigits + "; do read number word rest || exit; done");
    test::ScarceMemory::forEach([&](std::uint64_t n) {
        for (const int kind : {0, 1, 2, 3}) {  // of either threads, with a lack that passes and one that lasts
            auto helper = std::make_unique<KeyringHelper>(program, kPatient);
            std::atomic<int> told{0};
            int wanted = 0;
            try {
                const test::ScarceMemory scarce(kind < 2 ? Of::Others : Of::ThisThread, n, kind % 2 != 0);
                helper->watch(kId, [&](const SlotAnswer& answer) { told += answer.key == kKey ? 1 : 2; });
                wanted = 1;
                (void)helper->find(kId);
            } catch (const std::bad_alloc&) {  // whoever asked is told
            }
            EXPECT_TRUE(test::waitUntil([&] { return helper->find(kId).key == kKey && told == wanted; })) << n;
            const test::ScarceMemory none(Of::ThisThread, 1, true);
            helper.reset();
        }
    });
    EXPECT_FALSE(hasChildren());
}

TEST_F(KeyringSlotTest, ForksBesideDoNotDisturb) {
    KeyringHelper helper(standIn("while echo $number done " + kKeyDigits + "; do read number word rest || exit; done"),
                         kPatient);
    std::atomic<bool> enough{false};
    std::thread forking([&] {
        for (int i = 0; i < 20; ++i)
            EXPECT_TRUE(test::inChild([&] { return helper.find(kId).outcome == Outcome::NotNow; }));
        enough = true;
    });
    while (!enough) EXPECT_EQ(helper.find(kId).key, kKey);
    forking.join();
    EXPECT_EQ(startCount(), 1U);
}

}  // namespace
