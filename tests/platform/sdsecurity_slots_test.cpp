// A wrapped key ring as a host sees it: what opens it, what its file holds, and what is refused.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/evp.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "apps/sdconfigd/constants_file.h"
#include "base/unique_fd.h"
#include "tests/platform/ring_test.h"
#include "tests/support/damage.h"
#include "tests/support/scarce_memory.h"

using Kind = sd::SDSecurity::SlotKind;
using OpenResult = sd::SDSecurity::OpenResult;
using Outcome = sd::SDSecurity::SlotOutcome;
using SlotKeys = sd::SDSecurity::SlotKeys;
using SlotState = sd::SDSecurity::SlotState;
using Use = sd::SDSecurity::SlotUse;
using test::readFile;
using test::writeFile;
using test::writeScript;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

int syncsToLive = -1;  // this process ends at the sync of a file after so many; -1: at none

}  // namespace

// Stands in for the system's.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
    if (syncsToLive >= 0 && syncsToLive-- == 0) ::_exit(0);
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

namespace {

// Made once, apart from this code, by Python's `cryptography`: the ring is sealed under bytes(range(0x40, 0x60)), M,
// and that for the recovery code below, without its dashes, and for the passphrase, with s the slot's line up to the
// nonce:
//   AESGCM(hashlib.scrypt(typed, salt=salt, n=1 << 15, r=8, p=1, maxmem=1 << 28, dklen=32)).encrypt(nonce, M,
//       b"sdsecurity slot v1\n" + s)
const std::string kPlainRing =
    "sdsecurity-keys 2\nform 2\n"
    "dc4bc7547e35e387 opening - - 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n"
    "07f9fd67daa9576e sealing 1764100000 1.1.0 202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f\n"
    "sum 94c7530d7d086ea1cf48256980de80cf9ea20ab07b601b7319e32735044ed885\n";
const std::string kWrapped =
    "sdsecurity-wrapped-keys 1\n"
    "slot recovery 1764100000 15 000102030405060708090a0b0c0d0e0f a0a1a2a3a4a5a6a7a8a9aaab 3f0080839470ed"
    "64136f88ceb33229bfacde05d99dfa9f3fd97bc5560016a8b1748f118aa3aa7ad9e2fd5aedb59418a4\n"
    "slot passphrase 1764100000 15 101112131415161718191a1b1c1d1e1f b0b1b2b3b4b5b6b7b8b9babb f8d728b33bb1"
    "d8333851fb6cdc174a0e25b31fb92e7052380e45303791db742406c1fbac521057e2594668dd799f09bb\n"
    "ring c0c1c2c3c4c5c6c7c8c9cacb 2c2043ab19ef4f8200c0095dcedad1edadff383eac430e3af6d750584a194d73b00136"
    "b4c4c32584dd101d622e532d5d0aa465152c5c117887824f43d93bd1653f99ef63a06346189030d41fa441f247eefba1caaf"
    "4b1a6256b2eb164eedcb35d886e89a264616bef1b38facd6636b52427c5307eee62025a30d192ef57e22a96906982c10c37b"
    "8b1bfd829c73f1d808371bfd213118d12bb01c614cc28e15bdd61636adab66c94325f821efa9fc4a9e7e0e7349c2993bacfd"
    "0f944ec3dbf9a7a9b3b3bf5432b3fb4b3b8fcba536787415718b40847c2b64eddf163bf017791ca8860006b932ebd099fa38"
    "096513eda1df7650a68129097a40f53dd560150f7c61f073d9762e99626788f44e00af8544d14c4feabc45be54141777d6a0"
    "14e36cb7569085e96f15ea484e4ba4e4519cec56289de443064d\n";
const std::string kCode = "0123-4567-89AB-CDEF-GHJK-MNPQ-RSJR";
const std::string kPassphrase = "correct horse";

// A file that can be read when its name is gone.
class OpenFile {
public:
    explicit OpenFile(const std::string& path) : mFile(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    bool isOverwritten() const {
        const std::string bytes = readFile("/proc/self/fd/" + std::to_string(mFile.get()));
        return bytes.size() >= kPlainRing.size() && bytes.find_first_not_of('\0') == std::string::npos;
    }

private:
    sd::UniqueFd mFile;
};

class SlotsTest : public RingTest {
protected:
    ~SlotsTest() override { EXPECT_FALSE(log.has("0b0c0d0e0f") || log.has("4b4c4d4e4f")) << "a key was logged"; }

    void writeRing(const std::string& text) {
        RingTest::writeRing(text);
        log.clear();
    }
    std::string keyOf(Kind kind, const std::string& typed) {
        std::string key;
        EXPECT_EQ(security.MakeSlotKey(kind, Use::Standing, typed, key).outcome, Outcome::Done);
        return key;
    }
    // As MakeSlotKey makes a fresh one, but for the least cost that is allowed.
    std::string freshKey(const std::string& typed) {
        static unsigned char sCount = 0;
        const std::string salt(16, static_cast<char>('A' + ++sCount));
        unsigned char key[32];
        EXPECT_EQ(::EVP_PBE_scrypt(typed.data(), typed.size(), reinterpret_cast<const unsigned char*>(salt.data()), 16,
                                   1U << 15U, 8, 1, 1UL << 28U, key, sizeof key),
                  1);
        return "15 " + test::hex(salt) + ' ' + test::hex(key);
    }
    Outcome unlock(const std::string& typed) { return security.Unlock(keyOf(Kind::Passphrase, typed)).outcome; }
    std::vector<Kind> kinds() {
        std::vector<Kind> all;
        for (const auto& slot : security.Slots()) all.push_back(slot.kind);
        return all;
    }
};

TEST_F(SlotsTest, KeepsTheFormatAndIsLockedUntilSomethingOpensIt) {
    writeRing(kWrapped);
    EXPECT_EQ(state(), State::Locked);
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(open(kEnvelope).empty() && seal("x").empty());
    EXPECT_EQ(log.count("it is locked", 7), 1) << "not one for each call";
    OpenResult why{};
    security.DecryptForRow({"sdconfig.db", "secure_v3", "k"}, kEnvelope, &why);
    EXPECT_EQ(why, OpenResult::RingLocked);
    EXPECT_FALSE(security.RotateKey());
    EXPECT_EQ(security.SelfTest(), "");
    EXPECT_EQ(readFile(ring), kWrapped);
    EXPECT_THAT(kinds(), ElementsAre(Kind::Recovery, Kind::Passphrase));
    writeFile(ring, kPlainRing);
    EXPECT_TRUE(state() == State::Broken && open(kEnvelope).empty()) << "no other is taken in its place";
    std::filesystem::rename(ring, ring + ".away");
    EXPECT_TRUE(state() == State::Broken && seal("x").empty() && !std::filesystem::exists(ring)) << "nor made";
    std::filesystem::rename(ring + ".away", ring);
    writeFile(ring, kWrapped);
    EXPECT_EQ(open(kEnvelope), "");

    EXPECT_EQ(unlock("correct house"), Outcome::WrongKey);
    EXPECT_EQ(security.Unlock(keyOf(Kind::Recovery, kCode)).outcome, Outcome::WrongKey);
    EXPECT_EQ(state(), State::Locked);
    EXPECT_EQ(unlock(kPassphrase), Outcome::Done);
    EXPECT_EQ(open(kEnvelope), kPlain);
    EXPECT_EQ(open(seal("x")), "x");
    EXPECT_EQ(log.count("it is open now", 6), 1);
    beginAnew();
    EXPECT_EQ(open(kEnvelope), "");
    EXPECT_EQ(security.Recover(keyOf(Kind::Recovery, "oL234567 89abcdefghjk-mnpq-rsjr")).outcome, Outcome::Done);
    EXPECT_EQ(open(kEnvelope), kPlain);
    EXPECT_EQ(readFile(ring), kWrapped);

    const test::TempDir unit;
    const test::ScopedEnv credentials("CREDENTIALS_DIRECTORY", unit.path().c_str());
    writeFile(unit / "sdsecurity.passphrase", "wrong\n", 0440);
    beginAnew();
    EXPECT_THAT(security.CheckKeyRing().detail, HasSubstr("passphrase: what the system handed over does not open it"));
    writeFile(unit / "sdsecurity.passphrase", kPassphrase + "\n");
    beginAnew();
    EXPECT_EQ(security.OpenKeyRingAhead().state, State::Locked);
    EXPECT_EQ(open(kEnvelope), kPlain) << "what needs the ring waits for it";
}

TEST_F(SlotsTest, NeitherTakesADamagedRingForAnAbsentOneNorOpensIt) {
    writeRing(kWrapped);
    const std::string passphrase = keyOf(Kind::Passphrase, kPassphrase), code = keyOf(Kind::Recovery, kCode);
    test::Damage damage;
    int broken = 0;
    for (int i = 0; i < 10000; ++i) {
        const std::string text = damage.of(kWrapped);
        if (text == kWrapped) continue;
        writeRing(text);
        const State before = state();
        ASSERT_TRUE(before == State::Broken || before == State::Locked) << text;
        broken += before == State::Broken;
        ASSERT_FALSE(security.Unlock(passphrase).outcome == Outcome::Done ||
                     security.Recover(code).outcome == Outcome::Done)
            << text;
        ASSERT_TRUE(open(kEnvelope).empty() && readFile(ring) == text) << text;
    }
    EXPECT_GT(broken, 5000);

    const auto with = [](const std::string& old, const std::string& other) {
        std::string text = kWrapped;
        return text.replace(text.find(old), old.size(), other);
    };
    const std::size_t second = kWrapped.find("slot passphrase"), last = kWrapped.find("ring c0");
    const std::string line = kWrapped.substr(second, last - second), other = "slot passphrase 1764100001";
    const std::pair<const char*, std::string> cases[] = {
        {"a later version", with("keys 1", "keys 2")},
        {"line 3 holds a slot of an unknown kind, as a later version made it", with("slot passphrase", "slot palm")},
        {"line 4 repeats a kind of slot", with("ring c0", line + "ring c0")},
        {"line 3 is not where its kind of slot stands", with("slot recovery", line + "slot recovery")},
        {"it has no recovery slot", with(kWrapped.substr(0, second), "sdsecurity-wrapped-keys 1\n")},
        {"line 2 holds no cost that is allowed", with(" 15 0", " 19 0")},
        {"line 3 holds no time", with("passphrase 17", "passphrase 017")},
        {"its last line holds no ring", with("ring c0", "rung c0")}};
    for (const auto& [why, text] : cases) {
        writeRing(text);
        EXPECT_THAT(security.CheckKeyRing().detail, HasSubstr(why));
        EXPECT_EQ(state(), State::Broken);
    }
    // A slot of another ring, beside one that still opens.
    writeRing(with("slot passphrase 1764100000", other));
    EXPECT_EQ(security.Recover(code).outcome, Outcome::RingUnusable);
}

TEST_F(SlotsTest, TellsAMistypedCodeBeforeItIsStretched) {
    const std::string code = sd::SDSecurity::MakeRecoveryCode();
    EXPECT_THAT(code, testing::MatchesRegex("([0-9A-HJKMNP-TV-Z]{4}-){6}[0-9A-HJKMNP-TV-Z]{4}"));
    EXPECT_NE(sd::SDSecurity::MakeRecoveryCode(), code);
    const auto mistyped = [this](const std::string& typed) {
        std::string key;
        return security.MakeSlotKey(Kind::Recovery, Use::Standing, typed, key).outcome == Outcome::Mistyped;
    };
    EXPECT_FALSE(mistyped(code)) << "there is no ring";
    for (std::size_t i = 0; i < code.size(); ++i) {
        if (code[i] == '-') continue;
        for (const char other : std::string("0123456789ABCDEFGHJKMNPQRSTVWXYZ")) {
            std::string wrong = code;
            wrong[i] = other;
            EXPECT_TRUE(other == code[i] || mistyped(wrong)) << wrong;
        }
        const std::size_t next = i + 1 < code.size() && code[i + 1] == '-' ? i + 2 : i + 1;
        std::string swapped = code;
        if (next < code.size()) std::swap(swapped[i], swapped[next]);
        EXPECT_TRUE(swapped == code || mistyped(swapped)) << swapped;
    }
    for (const std::string& typed : {std::string(), code + "0", code.substr(1), "U" + code.substr(1), code + "\n"})
        EXPECT_TRUE(mistyped(typed)) << typed;
}

TEST_F(SlotsTest, WrapsAPlainRingAndKeepsItWrapped) {
    writeRing(kPlainRing);
    EXPECT_EQ(open(kEnvelope), kPlain);
    const std::string code = freshKey("code"), passphrase = freshKey("words");
    EXPECT_EQ(security.Protect(Kind::Passphrase, {"", passphrase}).outcome, Outcome::NeedsRecovery);
    EXPECT_EQ(security.Protect(Kind::Passphrase, {code, ""}).outcome, Outcome::NeedsPassphrase);
    EXPECT_EQ(security.Protect(Kind::Recovery, {code, ""}).outcome, Outcome::NotWrapped);
    EXPECT_EQ(security.Protect(Kind::Host, {code, ""}).outcome, Outcome::NotNow);
    EXPECT_EQ(security.Unprotect(Kind::Passphrase, {}).outcome, Outcome::NotWrapped);
    EXPECT_EQ(security.UnprotectAll().outcome, Outcome::NotWrapped);
    EXPECT_EQ(security.Unlock("").outcome, Outcome::NotWrapped);
    EXPECT_EQ(readFile(ring), kPlainRing);

    const OpenFile plain(ring);
    const auto result = security.Protect(Kind::Passphrase, {code, passphrase});
    EXPECT_TRUE(result.outcome == Outcome::Done && result.reason.empty()) << result.reason;
    EXPECT_TRUE(plain.isOverwritten());
    const std::string wrapped = readFile(ring);
    EXPECT_EQ(wrapped.find("sdsecurity-wrapped-keys 1\nslot recovery "), 0U);
    EXPECT_EQ(wrapped.find("2021222324"), std::string::npos);
    EXPECT_EQ(open(kEnvelope), kPlain);

    // A plain ring in its place is none that it can have become.
    writeFile(ring, kPlainRing);
    EXPECT_EQ(security.Protect(Kind::Passphrase, {code, passphrase}).outcome, Outcome::RingUnusable);
    EXPECT_FALSE(security.RotateKey());
    EXPECT_EQ(state(), State::Broken);
    EXPECT_EQ(open(kEnvelope), kPlain);
    for (int i = 0; i < 600; ++i) seal("x");
    EXPECT_TRUE(log.has("a plain key ring stands there", 6));
    EXPECT_EQ(readFile(ring), kPlainRing);
    writeFile(ring, wrapped);

    // All that writes the ring writes it wrapped, with the same slots.
    EXPECT_TRUE(security.RotateKey());
    const std::string sealed = seal("x"), slots = wrapped.substr(0, wrapped.find("ring "));
    EXPECT_NE(readFile(ring), wrapped);
    EXPECT_EQ(readFile(ring).substr(0, slots.size()), slots);
    {
        const test::TempDir unit;
        const test::ScopedEnv credentials("CREDENTIALS_DIRECTORY", unit.path().c_str());
        writeFile(unit / "sdsecurity.passphrase", kPassphrase, 0400);
        writeFile(ring, kWrapped);
        EXPECT_THAT(security.CheckKeyRing().detail, HasSubstr("another key ring stands there")) << "which opens";
    }
    std::filesystem::remove(ring);
    for (int i = 0; i < 600; ++i) seal("x");
    EXPECT_EQ(readFile(ring).substr(0, slots.size()), slots) << "written again from memory";
    for (const std::string& key : {passphrase, code}) {
        beginAnew();
        EXPECT_EQ(open(sealed), "");
        EXPECT_EQ((key == code ? security.Recover(key) : security.Unlock(key)).outcome, Outcome::Done);
        EXPECT_EQ(open(sealed), "x");
    }
    EXPECT_EQ(security.UnprotectAll().outcome, Outcome::Done);
    beginAnew();
    EXPECT_EQ(open(sealed), "x");
    EXPECT_EQ(readFile(ring).find("sdsecurity-keys 2\n"), 0U);
}

// A keyring of files in the folder, which is locked while there is a file "locked" in it.
std::string keyringIn(const test::TempDir& folder) {
    std::string program = folder / "program";
    writeScript(program, "cd " + folder.path() + R"(
while read number word rest; do
    case $word in
    store) while [ -e slow ]; do touch asked; sleep 0.02; done
           [ -e locked ] && echo $number not-now it is locked && continue
           id=$(od -An -tx1 -N16 /dev/urandom | tr -d ' \n'); echo $rest >$id; echo $number done $id ;;
    find) if [ -e locked ]; then echo $number not-now it is locked
          elif [ -e $rest ]; then echo $number done $(cat $rest)
          else echo $number refused it is gone; fi ;;
    forget) rm -f $rest; echo $number done ;;
    watch) { while [ -e locked ]; do sleep 0.02; done; echo $number done $(cat $rest); } & ;;
    esac
done
)");
    return program;
}

TEST_F(SlotsTest, OpensByTheKeyringAsSoonAsThatIsUnlocked) {
    const test::TempDir keyring, other;
    security.SetKeyringProgram(keyringIn(keyring));
    const auto itemCount = [&] {
        return std::distance(std::filesystem::directory_iterator(keyring.path()), {}) - 1;  // the program
    };
    writeRing(kPlainRing);
    const std::string code = freshKey("code");
    ASSERT_EQ(security.Protect(Kind::Keyring, {code, ""}).outcome, Outcome::Done);
    EXPECT_EQ(security.Protect(Kind::Passphrase, {"", freshKey("words")}).outcome, Outcome::Done);
    EXPECT_EQ(itemCount(), 1);
    EXPECT_EQ(security.Slots()[2].state, SlotState::Opens);
    beginAnew();
    EXPECT_EQ(open(kEnvelope), kPlain);

    writeFile(keyring / "locked", "");
    beginAnew();
    EXPECT_THAT(security.OpenKeyRingAhead().detail, HasSubstr(ring + ": it is "));
    EXPECT_EQ(open(kEnvelope), "");
    EXPECT_THAT(security.CheckKeyRing().detail, HasSubstr("it is locked; keyring: it is locked"));
    EXPECT_EQ(security.Slots()[2].state, SlotState::NotNow);
    std::filesystem::remove(keyring / "locked");
    EXPECT_TRUE(test::waitUntil([&] { return open(kEnvelope) == kPlain; })) << "by itself";
    EXPECT_EQ(log.count("it is open now", 6), 1);

    // The folder was copied to where the keyring has no such item: the code brings it back.
    security.SetKeyringProgram(keyringIn(other));
    beginAnew();
    EXPECT_EQ(open(kEnvelope), "");
    EXPECT_THAT(security.CheckKeyRing().detail, HasSubstr("keyring: it is gone"));
    EXPECT_EQ(security.Slots()[2].state, SlotState::Refused);
    for (const auto& item : std::filesystem::directory_iterator(keyring.path()))
        if (item.path().filename() != "program")
            writeFile(other / item.path().filename().string(), std::string(64, '5'));
    EXPECT_EQ(security.Slots()[2].reason, "the key that was kept for it does not open it");
    EXPECT_EQ(security.Recover(code).outcome, Outcome::Done);
    beginAnew();
    EXPECT_EQ(open(kEnvelope), kPlain) << "the slot was made anew";
    writeFile(other / "locked", "");
    const std::string before = readFile(ring);
    const std::string newCode = freshKey("new code");
    EXPECT_EQ(security.Unprotect(Kind::Passphrase, {newCode, ""}).outcome, Outcome::NotNow);
    EXPECT_EQ(readFile(ring), before) << "a slot that stays has to be made anew, too";
    std::filesystem::remove(other / "locked");
    EXPECT_EQ(security.Unprotect(Kind::Passphrase, {newCode, ""}).outcome, Outcome::Done);
    EXPECT_THAT(kinds(), ElementsAre(Kind::Recovery, Kind::Keyring));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(other.path()), {}), 2) << "the earlier item is gone";
    const std::string later = seal("later");
    writeRing(before);
    EXPECT_EQ(security.Recover(code).outcome, Outcome::Done);
    EXPECT_EQ(open(later), "") << "by an earlier copy of the file and its code";
    EXPECT_EQ(security.UnprotectAll().outcome, Outcome::Done);
    security.SetKeyringProgram("");
}

TEST_F(SlotsTest, OpensAlthoughMemoryRanOutOnceMeanwhile) {
    const test::TempDir keyring;
    security.SetKeyringProgram(keyringIn(keyring));
    writeRing(kPlainRing);
    ASSERT_EQ(security.Protect(Kind::Keyring, {freshKey("code"), ""}).outcome, Outcome::Done);
    test::ScarceMemory::forEach([&](std::uint64_t n) {
        beginAnew();
        {
            const test::ScarceMemory scarce(test::ScarceMemory::Of::Others, n);
            security.OpenKeyRingAhead();
            (void)open(kEnvelope);
        }
        EXPECT_TRUE(test::waitUntil([&] { return open(kEnvelope) == kPlain; })) << n;
    });
    security.SetKeyringProgram("");
}

// As a service starts with it.
TEST_F(SlotsTest, WhatAHostTellsIsTakenWholeOrNotWhereMemoryRunsOut) {
    using test::ScarceMemory;
    const test::TempDir standard;
    const test::ScopedEnv data("XDG_DATA_HOME", standard.path().c_str());
    const std::string longFolder = folder / std::string(100, 'd'), constants = folder / "constants";
    ScarceMemory::forEach([&](std::uint64_t n) {
        const std::string name(50, 'n'), value = std::string(50, 'v') + std::to_string(n);
        writeFile(constants, std::string(name).append("=").append(value).append("\nother=").append(value));
        std::string problem;
        const bool isTaken = ScarceMemory::passes(n, false, [&] { problem = useConstants(constants); });
        const bool isThere = security.GetString(name) == value && security.GetString("other") == value;
        EXPECT_TRUE(!isTaken || !problem.empty() || isThere) << n;
        security.SetKeyRingFolder("");
        (void)ScarceMemory::passes(n, false, [&] { security.SetKeyRingFolder(longFolder); });
        (void)seal("x");
        EXPECT_TRUE(std::filesystem::is_empty(standard.path())) << "another ring seals, " << n;
    });
}

TEST_F(SlotsTest, NobodyWaitsForASlotThatIsBeingMade) {
    const test::TempDir keyring;
    security.SetKeyringProgram(keyringIn(keyring));
    writeRing(kPlainRing);
    writeFile(keyring / "slow", "");
    std::thread making([&] {
        EXPECT_EQ(security.Protect(Kind::Keyring, {freshKey("code"), ""}).outcome, Outcome::Done);
    });
    EXPECT_TRUE(test::waitUntil([&] { return std::filesystem::exists(keyring / "asked"); }));
    EXPECT_EQ(open(seal("x")), "x");
    EXPECT_FALSE(security.RotateKey());
    EXPECT_TRUE(log.has("its slots are being changed", 7));
    std::filesystem::remove(keyring / "slow");
    making.join();
    EXPECT_TRUE(security.RotateKey());
    security.SetKeyringProgram("");
}

TEST_F(SlotsTest, LeavesThePlainBytesWhereTheyHaveAnotherName) {
    writeRing(kPlainRing);
    std::filesystem::create_hard_link(ring, folder / "other");
    const auto result = security.Protect(Kind::Passphrase, {freshKey("code"), freshKey("words")});
    EXPECT_EQ(result.outcome, Outcome::Done);
    EXPECT_THAT(result.reason, HasSubstr("it has another name"));
    EXPECT_EQ(readFile(folder / "other"), kPlainRing);
}

TEST_F(SlotsTest, IsPlainOrWrappedWhereverItWasKilled) {
    const std::string code = freshKey("code"), passphrase = freshKey("words");
    int wrapped = 0;
    for (int lives = 0; lives < 4; ++lives) {
        writeRing(kPlainRing);
        const pid_t child = ::fork();
        if (child == 0) {
            syncsToLive = lives;
            security.Protect(Kind::Passphrase, {code, passphrase});
            ::_exit(1);
        }
        int status = -1;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status != 0, lives == 3) << "a file, its folder, and the plain bytes are synced";
        beginAnew();
        if (state() == State::Locked) {
            ++wrapped;
            EXPECT_EQ(security.Unlock(passphrase).outcome, Outcome::Done);
        }
        EXPECT_EQ(open(kEnvelope), kPlain);
        EXPECT_EQ(security.Protect(Kind::Passphrase, {freshKey("code"), freshKey("words")}).outcome, Outcome::Done);
        EXPECT_FALSE(std::filesystem::exists(ring + ".new"));
    }
    EXPECT_EQ(wrapped, 3);
    for (const bool isRead : {true, false}) {
        if (const pid_t child = ::fork(); child == 0) {
            syncsToLive = 0;
            security.UnprotectAll();
            ::_exit(1);
        } else {
            EXPECT_EQ(::waitpid(child, nullptr, 0), child);
        }
        const OpenFile plain(ring + ".new");
        beginAnew();
        EXPECT_EQ(security.OpenKeyRingAhead().state, State::Locked);
        EXPECT_TRUE(std::filesystem::exists(ring + ".new")) << "as long as nobody has seen that the other one opens";
        EXPECT_EQ(unlock("words"), Outcome::Done);
        EXPECT_TRUE(isRead ? security.OpenKeyRingAhead().state == State::Usable : security.RotateKey());
        EXPECT_TRUE(!std::filesystem::exists(ring + ".new") && plain.isOverwritten());
    }
}

TEST_F(SlotsTest, ANewCodeOrPassphraseMakesAllAnew) {
    writeRing(kWrapped);
    const std::string oldCode = keyOf(Kind::Recovery, kCode), oldPassphrase = keyOf(Kind::Passphrase, kPassphrase);
    EXPECT_EQ(security.Protect(Kind::Recovery, {freshKey("c"), oldPassphrase}).outcome, Outcome::Locked);
    ASSERT_EQ(security.Unlock(oldPassphrase).outcome, Outcome::Done);
    const std::string code = freshKey("code");
    EXPECT_EQ(security.Protect(Kind::Recovery, {code, ""}).outcome, Outcome::NeedsPassphrase);
    EXPECT_EQ(security.Protect(Kind::Recovery, {code, freshKey(kPassphrase)}).outcome, Outcome::WrongKey);
    EXPECT_EQ(security.Protect(Kind::Recovery, {oldCode, oldPassphrase}).outcome, Outcome::NeedsRecovery);
    EXPECT_EQ(security.Unprotect(Kind::Passphrase, {code, ""}).outcome, Outcome::LastSlot);
    EXPECT_EQ(security.Unprotect(Kind::Keyring, {code, ""}).outcome, Outcome::NoSuchSlot);
    EXPECT_EQ(readFile(ring), kWrapped);

    EXPECT_EQ(security.Protect(Kind::Recovery, {code, oldPassphrase}).outcome, Outcome::Done);
    const std::string sealed = seal("x");
    beginAnew();
    EXPECT_EQ(security.Recover(oldCode).outcome, Outcome::WrongKey);
    EXPECT_EQ(security.Recover(code).outcome, Outcome::Done);
    EXPECT_EQ(open(sealed), "x");
    const std::string code2 = freshKey("code 2"), passphrase2 = freshKey("words 2");
    EXPECT_EQ(security.Protect(Kind::Passphrase, {"", passphrase2}).outcome, Outcome::NeedsRecovery);
    EXPECT_EQ(security.Protect(Kind::Passphrase, {code2, passphrase2}).outcome, Outcome::Done);
    const std::string later = seal("later");
    beginAnew();
    for (const std::string& key : {code, oldCode}) EXPECT_EQ(security.Recover(key).outcome, Outcome::WrongKey);
    EXPECT_EQ(security.Unlock(oldPassphrase).outcome, Outcome::WrongKey);
    EXPECT_EQ(security.Unlock(passphrase2).outcome, Outcome::Done);
    EXPECT_EQ(open(sealed) + open(kEnvelope) + open(later), "x" + kPlain + "later");
    writeRing(kWrapped);
    EXPECT_EQ(security.Recover(oldCode).outcome, Outcome::Done);
    EXPECT_EQ(open(later) + open(sealed), "") << "by an earlier copy of the file and its code";
}

}  // namespace
