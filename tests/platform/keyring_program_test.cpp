// sdconfig-keyring, asked as the service asks it, before a real keyring on a session bus of its own.
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <future>
#include <string>
#include <utility>

#include "platform/sdsecurity/keyring_slot.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "tests/support/keyring_session.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using sd::security::KeyringHelper;
using sd::security::KeyringLimits;
using sd::security::SecretBytes;
using sd::security::SlotAnswer;
using Outcome = SlotAnswer::Outcome;
using Session = test::KeyringSession;

constexpr KeyringLimits kPatient{60s, 100ms, 1s};
const SecretBytes kKey(32, 0xc5);
const std::string kNoId(32, '0');

std::future<SlotAnswer> watch(KeyringHelper& helper, const std::string& id) {
    const auto promise = std::make_shared<std::promise<SlotAnswer>>();
    helper.watch(id, [promise](SlotAnswer answer) { promise->set_value(std::move(answer)); });
    return promise->get_future();
}

class KeyringProgramTest : public testing::Test {
protected:
    void SetUp() override {
        for (const char* const program : {"dbus-daemon", "gnome-keyring-daemon"})
            if (test::run({"which", program}).exitCode != 0) GTEST_SKIP() << program << " is not installed";
    }

    static void expect(const SlotAnswer& answer, Outcome outcome, const std::string& reason) {
        EXPECT_EQ(answer.outcome, outcome);
        EXPECT_EQ(answer.reason, reason);
    }
    static void expectKey(const SlotAnswer& answer) {
        expect(answer, Outcome::Done, "");
        EXPECT_EQ(answer.key, kKey);
    }
};

TEST_F(KeyringProgramTest, AKeyIsThereAsLongAsItsItem) {
    Session session;
    session.start();
    const test::ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", "autolaunch:");  // for libraries that start a bus
    KeyringHelper helper(KEYRING_PROGRAM, kPatient);
    const std::string id = helper.store(kKey).sealed;
    const std::string other = helper.store(kKey).sealed;
    expectKey(helper.find(id));

    session.changeItem(id);
    expect(helper.find(id), Outcome::Refused, "the item was changed");
    for (int times = 0; times < 2; ++times) expect(helper.forget(id), Outcome::Done, "");
    expect(helper.find(id), Outcome::Refused, "the item is gone, or this is another keyring");
    expectKey(helper.find(other));
}

TEST_F(KeyringProgramTest, ALockedKeyringIsWaitedFor) {
    Session session;
    session.start();
    KeyringHelper helper(KEYRING_PROGRAM, kPatient);
    const std::string id = helper.store(kKey).sealed;
    session.lock();
    expect(helper.find(id), Outcome::NotNow, "locked");
    expect(helper.find(kNoId), Outcome::NotNow, "locked");
    expect(helper.store(kKey), Outcome::NotNow, "locked");
    expect(helper.forget(id), Outcome::NotNow, "locked");

    std::future<SlotAnswer> told = watch(helper, id);
    expect(helper.find(id), Outcome::NotNow, "locked");
    EXPECT_EQ(told.wait_for(0s), std::future_status::timeout);
    session.unlock();
    expectKey(told.get());

    // Its service is started again, locked.
    session.endKeyring();
    expect(helper.find(id), Outcome::NotNow, "absent: nobody offers it on the session bus");
    told = watch(helper, id);
    session.startKeyring(false);
    EXPECT_EQ(helper.find(id).outcome, Outcome::NotNow);
    EXPECT_EQ(told.wait_for(0s), std::future_status::timeout);
    session.unlock();
    expectKey(told.get());
}

TEST_F(KeyringProgramTest, AnAbsentBusIsWaitedForAndMayGo) {
    Session session;
    KeyringHelper helper(KEYRING_PROGRAM, kPatient);
    expect(helper.find(kNoId), Outcome::NotNow, "absent: there is no session bus");
    std::future<SlotAnswer> told = watch(helper, kNoId);
    session.start();
    expect(told.get(), Outcome::Refused, "the item is gone, or this is another keyring");
    const std::string id = helper.store(kKey).sealed;

    session.endBus();
    told = watch(helper, id);
    session.start();
    expectKey(told.get());
}

TEST_F(KeyringProgramTest, ASilentKeyringIsToldInTime) {
    Session session;
    session.start();
    KeyringHelper helper(KEYRING_PROGRAM, kPatient);
    const std::string id = helper.store(kKey).sealed;
    session.signalKeyring(SIGSTOP);
    expect(helper.find(id), Outcome::NotNow, "it does not answer");
    expect(KeyringHelper(KEYRING_PROGRAM, kPatient).find(id), Outcome::NotNow, "it does not answer");
    session.signalKeyring(SIGCONT);
    EXPECT_TRUE(test::waitUntil([&] { return helper.find(id).key == kKey; }, test::kProcessLimitMs));
}

TEST_F(KeyringProgramTest, ARingOpensAsSoonAsItsKeyringDoes) {
    using sd::SDSecurity;
    Session session;
    session.start();
    const test::TempDir folder;
    SDSecurity& security = *SDSecurity::GetInstance();
    const auto beginAnew = [&] {
        security.SetKeyRingFolder(folder.path());
        security.SetKeyringProgram(KEYRING_PROGRAM);
    };
    beginAnew();
    const std::string sealed = security.FastEncrypt("secret");
    SDSecurity::SlotKeys keys;
    security.MakeSlotKey(SDSecurity::SlotKind::Recovery, SDSecurity::SlotUse::Fresh, SDSecurity::MakeRecoveryCode(),
                         keys.recovery);
    const SDSecurity::SlotResult made = security.Protect(SDSecurity::SlotKind::Keyring, keys);
    EXPECT_EQ(made.outcome, SDSecurity::SlotOutcome::Done) << made.reason;

    session.lock();
    beginAnew();
    security.OpenKeyRingAhead();
    EXPECT_EQ(security.FastDecrypt(sealed), "");
    EXPECT_THAT(security.CheckKeyRing().detail, testing::HasSubstr("keyring: locked"));
    session.unlock();
    EXPECT_TRUE(test::waitUntil([&] { return security.FastDecrypt(sealed) == "secret"; }, test::kProcessLimitMs));

    Session elsewhere;
    elsewhere.start();
    beginAnew();
    EXPECT_EQ(security.FastDecrypt(sealed), "");
    EXPECT_EQ(security.CheckKeyRing().state, SDSecurity::KeyRingState::Locked);
    beginAnew();  // with no program that outlives its session
}

// What it is asked may be anything.
TEST(KeyringProgram, NonsenseEndsIt) {
    // It can't be looked into, not even by the leak checker.
    const test::Environment environment{{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere"},
                                        {"ASAN_OPTIONS", "detect_leaks=0"}};
    const auto answered = [&](const std::string& input) { return test::run({KEYRING_PROGRAM}, environment, input); };
    const std::string asked = "1 find " + kNoId + "\n";
    EXPECT_EQ(answered(asked).out, "1 not-now absent: there is no session bus\n");
    EXPECT_EQ(answered(asked).exitCode, 0) << "the input has ended";
    for (const std::string& line :
         {"\n"s, "find\n"s, "x" + asked, " " + asked, "1 find\n"s, "1 find " + kNoId + "0\n", "1 find " + kNoId + " \n",
          "1 steal " + kNoId + "\n", "1 store " + kNoId + "\n", "1 store " + std::string(64, 'g') + "\n",
          "123456789012345678" + asked, std::string(1000, '1'), std::string(100000, '\0')}) {
        const test::Result result = answered(line + asked);
        EXPECT_EQ(result.exitCode, 1) << line;
        EXPECT_EQ(result.out, "") << line;
    }
    EXPECT_EQ(test::run({KEYRING_PROGRAM, std::string(64, '5')}).exitCode, 2);
}

}  // namespace
