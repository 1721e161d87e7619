// The host's slot, from the asking side to systemd-creds: the real program, started for each connection as systemd
// does.
#include "platform/sdsecurity/host_slot.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cerrno>

#include "base/unique_fd.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/sdsecurity.h"
#include "tests/e2e/seal_machine.h"
#include "tests/support/process.h"
#include "tests/support/support.h"

namespace {

using sd::security::HostSealers;
using sd::security::openByHost;
using sd::security::sealByHost;
using sd::security::SecretBytes;
using sd::security::SlotAnswer;
using test::Listener;
using test::machine;
using test::Process;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Outcome = SlotAnswer::Outcome;

constexpr uid_t kOtherUser = 4711;
const std::string kDigits(64, '7');
const SecretBytes kKey(32, 0x77);

bool asOtherUser(const std::function<bool()>& body) {
    return test::inChild([&] { return ::setresuid(kOtherUser, kOtherUser, kOtherUser) == 0 && body(); });
}

class HostSlotTest : public testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "the one who seals has to be root";
        if (::access("/usr/bin/systemd-creds", X_OK) != 0) GTEST_SKIP() << "there is no systemd-creds";
    }
    // The credential of this text, sealed by the machine's key past sdconfig-seal.
    std::string sealedByHand(const std::string& option, const std::string& text) const {
        const auto sealed = test::run({"systemd-creds", "encrypt", option, "--name=", "-", "-"},
                                      {{"SYSTEMD_CREDENTIAL_SECRET", mFolder / "secret"}}, text);
        std::string line = sealed.out;
        line.erase(std::remove(line.begin(), line.end(), '\n'), line.end());
        return "seal:" + line;
    }
    test::TempDir mFolder;
};

void expectAnswer(const SlotAnswer& answer, Outcome outcome, const std::string& reason) {
    EXPECT_EQ(answer.outcome, outcome) << answer.reason;
    EXPECT_THAT(answer.reason, HasSubstr(reason));
    EXPECT_TRUE(answer.key.empty());
}

TEST_F(HostSlotTest, WhatIsSealedOpensForItsUserOnItsMachineAlone) {
    Listener seal = machine(mFolder);
    const SlotAnswer sealed = sealByHost(kKey, seal.path());
    ASSERT_EQ(sealed.outcome, Outcome::Done) << sealed.reason;
    EXPECT_THAT(sealed.sealed, StartsWith("seal:"));
    EXPECT_EQ(openByHost(sealed.sealed, seal.path()).key, kKey);
    EXPECT_TRUE(seal.logs("<6>open: user 0, process " + std::to_string(::getpid()) + ": done"));

    const auto isRefused = [&] {
        const SlotAnswer answer = openByHost(sealed.sealed, seal.path());
        return answer.outcome == Outcome::Refused && answer.reason == "it was sealed for another user";
    };
    EXPECT_TRUE(asOtherUser(isRefused));
    EXPECT_TRUE(seal.logs("<4>open: user 4711, process "));
    const std::string nameless = sealedByHand("--with-key=host", "sdconfig slot key 1\n4711\n" + kDigits + "\n");
    expectAnswer(openByHost(nameless, seal.path()), Outcome::Refused, "for another user");
    const std::string keyless = sealedByHand("--with-key=tpm2-absent", "sdconfig slot key 1\n0\n" + kDigits + "\n");
    expectAnswer(openByHost(keyless, seal.path()), Outcome::Refused, "no machine's key");
    for (const std::string& text : {"sdconfig slot key 1\n0\n" + kDigits, std::string("a service's password")})
        expectAnswer(openByHost(sealedByHand("--with-key=host", text), seal.path()), Outcome::Refused, "no slot's key");

    std::string changed = sealed.sealed;
    changed[changed.size() / 2] = changed[changed.size() / 2] == 'A' ? 'B' : 'A';
    expectAnswer(openByHost(changed, seal.path()), Outcome::Refused, "or was changed");
    const test::TempDir other;
    const Listener otherMachine = machine(other);
    ASSERT_EQ(sealByHost(kKey, otherMachine.path()).outcome, Outcome::Done);
    expectAnswer(openByHost(sealed.sealed, otherMachine.path()), Outcome::Refused, "by another machine");
    EXPECT_THAT(seal.log(), Not(HasSubstr(kDigits)));
}

TEST_F(HostSlotTest, AnotherTpmOpensNothing) {
    if (::access("/usr/bin/swtpm", X_OK) != 0) GTEST_SKIP() << "there is no swtpm";
    const test::TempDir states[2];
    std::vector<Process> chips;
    std::vector<std::string> devices;
    for (const test::TempDir& state : states) {
        const std::string socket = state / "tpm";
        chips.push_back(Process::start({"swtpm", "socket", "--tpm2", "--tpmstate", "dir=" + state.path(), "--server",
                                        "type=unixio,path=" + socket, "--ctrl", "type=unixio,path=" + socket + ".ctrl",
                                        "--flags", "not-need-init,startup-clear"}));
        devices.push_back("--tpm2-device=swtpm:path=" + socket);
        const std::vector<std::string> trial{"systemd-creds", "encrypt", "-T", devices.back(), "--name=", "-", "-"};
        ASSERT_TRUE(test::waitUntil([&] { return test::run(trial).exitCode == 0; })) << chips.back().err();
    }
    const Listener seal = machine(mFolder, {"--with-key=host+tpm2", devices[0]});
    const SlotAnswer sealed = sealByHost(kKey, seal.path());
    ASSERT_EQ(sealed.outcome, Outcome::Done) << sealed.reason << seal.log();
    EXPECT_EQ(openByHost(sealed.sealed, seal.path()).key, kKey);
    expectAnswer(openByHost(sealed.sealed, machine(mFolder, {devices[1]}).path()), Outcome::Refused,
                 "another state of its TPM");
    expectAnswer(openByHost(sealed.sealed, machine(mFolder).path()), Outcome::Refused, "with a TPM, and none answers");
}

TEST_F(HostSlotTest, ABadRequestIsAnsweredAndNamesWhoMadeIt) {
    const struct {
        std::string bytes, answer;
    } cases[] = {{"", "refused the connection ended before the request did\n"},
                 {"seal " + kDigits, "refused the connection ended before the request did\n"},
                 {"seal " + kDigits + "\nseal " + kDigits + "\n", "refused there is more than one request\n"},
                 {"seal " + std::string(63, '7') + "\n", "refused it is no slot's key\n"},
                 {"open " + std::string(7999, 'A') + ".\n", "refused it is nothing that was sealed\n"},
                 {std::string(8100, 'A'), "refused the request is too long\n"},
                 {std::string("seal\0\n", 6), "refused it is no request\n"}};
    Listener seal = machine(mFolder);
    for (const auto& [bytes, answer] : cases) EXPECT_EQ(seal.answerTo(bytes), answer) << bytes;
    EXPECT_TRUE(seal.logs("asked: user 0, process " + std::to_string(::getpid()) + ": not done: it is no request"));

    // All that this user may have at a time is taken; another user's is not.
    const sd::UniqueFd turns(::open((mFolder / "turns").c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_len = 4;
    ASSERT_EQ(::fcntl(turns.get(), F_OFD_SETLK, &lock), 0);
    expectAnswer(sealByHost(kKey, seal.path()), Outcome::NotNow, "this user asks for too much at a time");
    EXPECT_TRUE(seal.logs("<4>asked: user 0, process " + std::to_string(::getpid()) + ": not done: this user asks"));
    EXPECT_TRUE(asOtherUser([&] { return sealByHost(kKey, seal.path()).outcome == Outcome::Done; }));
}

TEST_F(HostSlotTest, WithoutAWorkingSystemdCredsAReasonIsGiven) {
    const struct {
        std::string script;
        Outcome outcome;
        std::string reason;
    } cases[] = {
        {"", Outcome::NotNow, "systemd-creds is missing"},
        {"exec sleep 60", Outcome::NotNow, "did not end in time"},
        {"exec yes", Outcome::Refused, "more than can be taken"},
        {"kill -9 $$", Outcome::NotNow, "could not be run"},
        {"echo 'a text'", Outcome::NotNow, "nothing that could be kept"},
        {"echo in dictionary attack lockout mode >&2; exit 1", Outcome::NotNow, "locked for some time"},
        {"echo 'tpm:warn(2.0): busy' >&2; exit 1", Outcome::NotNow, "the TPM can't do it now"},
        {"echo TPM2 support is not installed. >&2; exit 1", Outcome::NotNow, "libtss2"},
        {"echo TPM2 support not installed. >&2; exit 1", Outcome::NotNow, "libtss2"},
        {"echo 'No TPM2 (tpmrm) device found' >&2; exit 1", Outcome::Refused, "there is none"},
        {"echo no encryption key available >&2; exit 1", Outcome::Refused, "neither a TPM nor a lasting place"},
        {"echo $* with $SYSTEMD_CREDENTIAL_SECRET >&2; exit 1", Outcome::NotNow, "could not seal"}};
    Listener seal({SEAL_WITH_STAND_IN, "--with-key=host", "--tpm2-device=auto", "--tpm2-pcrs=7"},
                  {{"SYSTEMD_CREDENTIAL_SECRET", "a secret"}});
    for (const auto& [script, outcome, reason] : cases) {
        ::unlink(SYSTEMD_CREDS_STAND_IN);
        if (!script.empty()) test::writeScript(SYSTEMD_CREDS_STAND_IN, script);
        expectAnswer(sealByHost(kKey, seal.path()), outcome, reason);
    }
    EXPECT_TRUE(
        seal.logs("<4>systemd-creds: encrypt --name=sdconfig-slot-key-0 --with-key=host --tpm2-device=auto "
                  "--tpm2-pcrs=7 - - with a secret"));
    EXPECT_THAT(seal.log(), HasSubstr("<3>seal: user 0, process"));
    EXPECT_TRUE(asOtherUser([&] { return openByHost("seal:AAAA", seal.path()).outcome == Outcome::Refused; }));
    EXPECT_TRUE(seal.logs("<4>systemd-creds: decrypt --name=sdconfig-slot-key-4711 --tpm2-device=auto - - with a "));
    EXPECT_THAT(Listener({SEAL_WITH_STAND_IN, "--help"}).answerTo(""), "");
}

TEST_F(HostSlotTest, WhoeverAnswersForItIsNotTrusted) {
    const struct {
        std::string answer;
        Outcome outcome;
        std::string reason;
    } cases[] = {{"", Outcome::NotNow, "closed the connection without an answer"},
                 {"garbage\n", Outcome::Refused, "no answer of it"},
                 {"key " + kDigits, Outcome::Refused, "no answer of it"},
                 {"key " + kDigits + "\n\n", Outcome::Refused, "no answer of it"},
                 {"key " + kDigits + "7\n", Outcome::Refused, "no answer of it"},
                 {"sealed AAAA\n", Outcome::Refused, "no answer of it"},
                 {"key " + std::string(9000, '7') + "\n", Outcome::Refused, "no answer of it"},
                 {"later a \x1b[2J reason\n", Outcome::NotNow, "a ?[2J reason"},
                 {"refused no\n", Outcome::Refused, "no"}};
    for (const auto& [answer, outcome, reason] : cases) {
        test::writeFile(mFolder / "answer", answer);
        const Listener other({"/bin/sh", "-c", "read line; cat " + mFolder / "answer"});
        errno = EAGAIN;  // as an earlier call may have left it
        expectAnswer(openByHost("seal:AAAA", other.path()), outcome, reason);
    }
    expectAnswer(openByHost("seal:AAAA", Listener({"/bin/sh", "-c", "exec cat >/dev/null"}).path()), Outcome::NotNow,
                 "within 5 s");
    expectAnswer(openByHost("seal:AAAA", mFolder / "none"), Outcome::NotNow, "sdconfig-seal.socket is not started");
    const Listener others({"/bin/cat"}, {}, {"setpriv", "--reuid=4711", "--clear-groups"});
    expectAnswer(sealByHost(kKey, others.path()), Outcome::Refused, "somebody else's: user 4711 listens there");
    for (const std::string sealed : {"", "seal:", "seal:A A", "keyring:AAAA", "seal:AA\nAA"})
        expectAnswer(openByHost(sealed, mFolder / "none"), Outcome::Refused, "it");
}

// Where systemd seals for users itself, stood in for: the program turns what it gets round.
TEST(UserCredentialTest, SystemdIsAskedWhereItSealsForUsers) {
    const test::TempDir folder;
    HostSealers sealers;
    sealers.socket = folder / "none";
    sealers.systemSocket = folder / "socket";
    sealers.systemdCreds = folder / "creds";
    const auto standIn = [&](const std::string& script) {
        test::writeScript(sealers.systemdCreds, "PATH=/usr/bin:/bin\n" + script);
    };
    const sd::UniqueFd inherited(::fcntl(STDERR_FILENO, F_DUPFD, 50));  // programs have nothing of it
    standIn("[ -e /proc/$$/fd/" + std::to_string(inherited.get()) + R"( ] && exit 1
               [ "$1 $3 $4 $5" = "--user --name=sdconfig-slot-key - -" ] || exit 1
               exec 2>&-; sleep 0.1  # one output ends long before the other
               case $2 in encrypt) base64 -w 20 ;; decrypt) base64 -d ;; esac)");
    expectAnswer(sealByHost(kKey, sealers), Outcome::NotNow, "nobody seals");  // an earlier systemd
    test::writeFile(sealers.systemSocket, "");
    const std::string sealed = sealByHost(kKey, sealers).sealed;
    EXPECT_THAT(sealed, StartsWith("user:d3d3"));
    EXPECT_EQ(openByHost(sealed, sealers).key, kKey);
    expectAnswer(openByHost("user:AAAA", sealers), Outcome::Refused, "no slot's key");

    standIn("echo it is no good >&2; exit 1");
    expectAnswer(openByHost(sealed, sealers), Outcome::Refused, "systemd-creds: it is no good");
    expectAnswer(sealByHost(kKey, sealers), Outcome::NotNow, "nobody seals");  // the service is asked instead
    ::unlink(sealers.systemSocket.c_str());
    expectAnswer(openByHost(sealed, sealers), Outcome::NotNow, "not there");
}

// The whole way, with a folder that is copied to another machine.
TEST_F(HostSlotTest, ACopiedRingOpensOnAnotherMachineByTheRecoveryCodeAlone) {
    using Kind = sd::SDSecurity::SlotKind;
    using SlotOutcome = sd::SDSecurity::SlotOutcome;
    const test::ScopedEnv noCredentials("CREDENTIALS_DIRECTORY", nullptr);
    const test::TempDir data, elsewhere;
    Listener here = machine(mFolder), there = machine(elsewhere);
    sd::SDSecurity& security = *sd::SDSecurity::GetInstance();
    const auto beginOn = [&](const std::string& socket) {
        security.SetSealSocket(socket);
        security.SetKeyRingFolder(data.path());
    };
    beginOn(here.path());
    const std::string sealed = security.FastEncrypt("x");
    std::string code = sd::SDSecurity::MakeRecoveryCode(), key;
    ASSERT_EQ(security.MakeSlotKey(Kind::Recovery, sd::SDSecurity::SlotUse::Fresh, code, key).outcome,
              SlotOutcome::Done);
    ASSERT_EQ(security.Protect(Kind::Host, {key, ""}).outcome, SlotOutcome::Done);
    beginOn(here.path());
    EXPECT_EQ(security.FastDecrypt(sealed), "x");

    beginOn(there.path());
    EXPECT_EQ(security.FastDecrypt(sealed), "");
    EXPECT_THAT(security.CheckKeyRing().detail, HasSubstr("it is locked; host: it was sealed by another machine"));
    EXPECT_EQ(security.Recover(key).outcome, SlotOutcome::Done);
    beginOn(there.path());
    EXPECT_EQ(security.FastDecrypt(sealed), "x") << "its slot was made anew";
    beginOn(data / "nobody");
    EXPECT_EQ(security.FastDecrypt(sealed), "");
    EXPECT_EQ(security.CheckKeyRing().state, sd::SDSecurity::KeyRingState::Locked);
}

}  // namespace
