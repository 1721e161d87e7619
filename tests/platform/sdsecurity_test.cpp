// The security layer as a host sees it: what its files hold, what opens, and what is refused.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/platform/ring_test.h"
#include "tests/support/damage.h"

using KeyState = sd::SDSecurity::KeyState;
using OpenResult = sd::SDSecurity::OpenResult;
using Row = sd::SDSecurityRow;
using Use = sd::SDSecurity::KeyUse;
using test::readFile;
using test::writeFile;
using testing::ElementsAre;

namespace {

std::vector<std::string> sSynced;  // by the path that each had then
int sFolderError = 0;              // of each sync of a folder; 0: none

}  // namespace

// Stands in for the system's.
extern "C" __attribute__((visibility("default"))) int fsync(int descriptor) {
    sSynced.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
    if (sFolderError != 0 && std::filesystem::is_directory(sSynced.back())) return errno = sFolderError, -1;
    return static_cast<int>(::syscall(SYS_fsync, descriptor));
}

namespace {

// Made once, apart from this code, by Python's `cryptography`: with a key K = bytes(range(32)), or range(32, 64) for
// the second, and I = hashlib.sha256(b"sdsecurity key id v1" + K).digest()[:8] and N = bytes(range(0xa0, 0xac)):
//   "v1" + base64.b64encode(I + N + AESGCM(K).encrypt(N, b"pass\0word", b"v1" + I)).decode()
const std::string kHeader = "sdsecurity-keys 1\n";
const std::string kFirstLine = "dc4bc7547e35e387 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n";
const std::string kSecondLine = "07f9fd67daa9576e 202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f\n";
const std::string kRing = kHeader + kFirstLine + kSecondLine;
const std::string kEnvelopeOfNothing = "v1B/n9Z9qpV26goaKjpKWmp6ipqqv1Dj6Nz01Q29OtUk0QlEsQ";  // by the second key

// The same for a row, with L = b"".join(struct.pack(">Q", len(n)) + n for n in (database, table, folded key)) and its
// mark M, SipHash-2-4 of L (openssl mac SIPHASH, 8 bytes) under hashlib.sha256(b"sdsecurity row mark v2" +
// K).digest()[:16]:
//   "v2" + base64.b64encode(I + M + N + AESGCM(K).encrypt(N, b"pass\0word", b"v2" + I + M + L)).decode()
const Row kRow{"sdconfig.db", "secure_v3", "A.b@\xc3\x84Z"};
const std::string kBoundEnvelope = "v23EvHVH4144epWq+nbM84nKChoqOkpaanqKmqq5Z5D15FvG3NBiuADxN9avFvkysUgTry3wA=";
// Its sum: hmac.new(hashlib.sha256(b"sdsecurity ring sum v2" + K + K2).digest(), all lines above it, "sha256").
const std::string kRing2 =
    "sdsecurity-keys 2\nform 2\n"
    "dc4bc7547e35e387 opening - - 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f\n"
    "07f9fd67daa9576e sealing 1764100000 1.1.0~b+1 202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f\n"
    "sum 8d52b981ada8dd7f283fbb844a8ecfa24f505b026f6723f6b36bc8b074d39f28\n";
// hmac.new(hashlib.sha256(b"sdsecurity digest v1" + K).digest(), b"1 a4 b\0cd", "sha256"):
const std::string kDigest = "a46f3c55eb51bc5f8b87afa7b59878e7a21872bc7fab4b48ef88572f3bb3ac71";
const std::string kSecret = "top secret";

// The n-th allocation from here on that OpenSSL makes fails; 0: none does.
int failingAllocation = 0;
bool fails() {
    return failingAllocation > 0 && --failingAllocation == 0;
}
const int kAllocationsCounted = ::CRYPTO_set_mem_functions(
    [](std::size_t size, const char*, int) { return fails() ? nullptr : std::malloc(size); },
    [](void* old, std::size_t size, const char*, int) { return fails() ? nullptr : std::realloc(old, size); },
    [](void* old, const char*, int) { std::free(old); });

unsigned modeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

class SecurityTest : public RingTest {
protected:
    ~SecurityTest() override { forgetLines(); }

    void forgetLines() {
        EXPECT_FALSE(log.has(kSecret) || log.has("0b0c0d0e0f")) << "a value or a key was logged";
        log.clear();
    }
    OpenResult resultOf(const Row& row, const std::string& text) {
        OpenResult why{};
        const std::string plain = security.DecryptForRow(row, text, &why);
        EXPECT_TRUE(why == OpenResult::Done || plain.empty());
        return why;
    }

    // Runs `body` in processes of their own, all at once; each answers whether it went well.
    static void inProcesses(int count, const std::function<bool(int)>& body) {
        std::vector<pid_t> children;
        int gate[2];
        ASSERT_EQ(::pipe2(gate, O_CLOEXEC), 0);
        for (int i = 0; i < count; ++i) {
            children.push_back(::fork());
            if (children.back() != 0) continue;
            char byte = 0;
            ::close(gate[1]);
            ::_exit(::read(gate[0], &byte, 1) == 0 && body(i) ? 0 : 1);
        }
        for (const int end : gate) ::close(end);
        for (const pid_t child : children) {
            int status = -1;
            EXPECT_TRUE(::waitpid(child, &status, 0) == child && status == 0);
        }
    }

    const std::string count = folder / "sdsecurity.count";
};

TEST_F(SecurityTest, KeepsTheFormatOfValuesSealedBefore) {
    writeRing(kRing);
    EXPECT_EQ(open(kEnvelope), kPlain);
    EXPECT_EQ(open(kEnvelopeOfNothing), "");
    EXPECT_EQ(sd::SDSecurity::DigestUnderKey(kFirstLine.substr(0, 16), {"a", std::string_view("b\0cd", 4)}), kDigest);
    std::string all;
    for (int byte = 0; byte < 256; ++byte) all.push_back(static_cast<char>(byte));
    for (const std::string& plain : {std::string(), kPlain, all, std::string(1 << 20U, 'x')}) {
        const std::string text = seal(plain);
        EXPECT_EQ(text.substr(0, 12), kEnvelopeOfNothing.substr(0, 12));
        EXPECT_EQ(text.size(), 2 + (36 + plain.size() + 2) / 3 * 4);
        EXPECT_EQ(open(text), plain);
        EXPECT_NE(seal(plain), text) << "the nonce was used before";
    }
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(readFile(ring), kRing);
}

TEST_F(SecurityTest, OpensNothingThatItDidNotSeal) {
    const std::string good = seal(kSecret);  // 46 bytes: the base64 ends in "=="
    const std::string unpadded = good.substr(0, good.size() - 2), cut = good.substr(0, 47);
    std::vector<std::string> cases{"v2" + good.substr(2), good + "AAAA", good + "\n", " " + good, "v1" + good};
    for (const std::string& text : {unpadded, kEnvelope, unpadded + "AA", cut + "A==", cut + "AA="})
        cases.push_back(text);
    for (std::size_t i = 0; i < good.size(); ++i) {
        cases.push_back(good.substr(0, i));
        for (const char other : {'A', 'B', '=', '\n', '\0', '\xff'}) {
            if (good[i] == other) continue;
            cases.push_back(good);
            cases.back()[i] = other;
        }
    }
    for (const std::string& text : cases) {
        SCOPED_TRACE(text);
        forgetLines();
        EXPECT_EQ(open(text), "");
        ASSERT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(log.lines()[0].level, 7);
        EXPECT_EQ(log.lines()[0].tag, "sdsecurity");
        EXPECT_TRUE(text.size() < 4 || !log.has(text));
    }
    EXPECT_EQ(open(good), kSecret);
    EXPECT_EQ(resultOf(kRow, std::string(good).replace(20, 1, "\xff")), OpenResult::NoEnvelope);
}

TEST_F(SecurityTest, OpensAValueInItsOwnRowAlone) {
    writeRing(kRing2);
    EXPECT_EQ(security.DecryptForRow(kRow, kBoundEnvelope), kPlain);
    EXPECT_EQ(security.DecryptForRow({"sdconfig.db", "secure_v3", "a.B@\xc3\x84z"}, kBoundEnvelope), kPlain);
    EXPECT_EQ(resultOf({"sdconfig.db", "secure_v3", "a.b@\xc3\xa4z"}, kBoundEnvelope), OpenResult::OtherRow);
    EXPECT_TRUE(log.has("sdconfig.db, secure_v3, a.b@\xc3\xa4z: an envelope of 74 bytes belongs to another row", 7));
    EXPECT_EQ(open(kBoundEnvelope), "");
    EXPECT_EQ(log.count("belongs to a row", 7), 1);
    EXPECT_TRUE(log.has("sdsecurity DecryptForRow(", 7) && log.has("sdsecurity FastDecrypt(", 7));
    int foreign = 0;
    for (std::size_t i = 14; i < kBoundEnvelope.size(); ++i) {  // all behind the key's id
        std::string changed = kBoundEnvelope;
        changed[i] = changed[i] == 'A' ? 'B' : 'A';
        const OpenResult result = resultOf(kRow, changed);
        EXPECT_NE(result, OpenResult::Done) << i;
        foreign += result == OpenResult::OtherRow;
    }
    EXPECT_LE(foreign, 1) << "the one character that stands for bits of the mark and of the nonce";

    // Each value is tried in 124 other rows: swapped, renamed or copied between keys, tables and databases.
    std::vector<std::string> names{"", "a", "b", "ab", "A"};
    std::vector<std::pair<Row, std::string>> rows;
    for (const std::string& database : names)
        for (const std::string& table : names)
            for (const char* key : {"", "a", "b", "ba", "a.b"})
                rows.push_back({{database, table, key}, security.EncryptForRow({database, table, key}, kSecret)});
    int opened = 0;
    for (const auto& [from, text] : rows)
        for (const auto& [to, other] : rows) opened += security.DecryptForRow(to, text) == kSecret;
    EXPECT_EQ(opened, rows.size()) << "of " << rows.size() * rows.size();
}

TEST_F(SecurityTest, KeepsTheSecondFormatOfTheRingAndRefusesADamagedOne) {
    const auto refused = [&](const std::string& text) {
        forgetLines();
        writeRing(text);
        return open(kEnvelope).empty() && seal(kSecret).empty() && state() == State::Broken &&
               log.count(ring + ": ", 7) == 2 && readFile(ring) == text;
    };
    writeRing(kRing2);
    EXPECT_EQ(open(kEnvelope), kPlain);
    EXPECT_TRUE(security.RequireBoundForm() && security.RequiresBoundForm());
    EXPECT_EQ(readFile(ring), kRing2);

    test::Damage damage;
    for (int i = 0; i < 10000; ++i) {
        const std::string text = damage.of(kRing2);
        ASSERT_TRUE(text == kRing2 || refused(text)) << text;
    }

    const auto with = [](const std::string& old, const std::string& other) {
        std::string text = kRing2;
        return text.replace(text.find(old), old.size(), other);
    };
    const std::pair<const char*, std::string> cases[] = {{"more than one key of it seals", with("opening", "sealing")},
                                                         {"no key of it seals", with("sealing", "disabled")},
                                                         {"line 3 holds an unknown state", with("opening", "dormant")},
                                                         {"line 4 holds no time", with("1764100000", "01764100000")},
                                                         {"line 2 holds no form", with("form 2", "form 3")},
                                                         {"its sum does not fit", with("form 2", "form 1")},
                                                         {"its last line holds no sum", with("sum ", "hum ")},
                                                         {"a later version", with("keys 2", "keys 3")}};
    for (const auto& [why, text] : cases) EXPECT_TRUE(refused(text) && log.has(why)) << why;
}

TEST_F(SecurityTest, GivesKeysAState) {
    writeRing(kRing);
    EXPECT_EQ(security.DecryptForRow(kRow, kEnvelope), kPlain) << "what was sealed before there were rows";
    const std::string first = kFirstLine.substr(0, 16), second = kSecondLine.substr(0, 16);
    EXPECT_TRUE(security.SetKeyState(first, KeyState::Disabled));
    inProcesses(1, [&](int) {
        beginAnew();
        return resultOf(kRow, kEnvelope) == OpenResult::KeyDisabled;
    });
    EXPECT_EQ(resultOf(kRow, kBoundEnvelope), OpenResult::KeyDisabled);
    EXPECT_TRUE(log.has("key " + first + " is disabled", 7));
    EXPECT_TRUE(security.SetKeyState(first, KeyState::Opening));
    EXPECT_EQ(readFile(ring), kRing) << "which earlier versions read";
    EXPECT_TRUE(security.RequireBoundForm());
    EXPECT_EQ(security.DecryptForRow(kRow, kBoundEnvelope), kPlain);
    EXPECT_EQ(resultOf(kRow, kEnvelope), OpenResult::UnboundForm);
    EXPECT_EQ(open(kEnvelope), kPlain) << "a text of the host's own";

    const auto start = std::time(nullptr);
    EXPECT_TRUE(security.RotateKey());
    const std::string bound = security.EncryptForRow(kRow, "x");
    const auto keys = security.Keys();
    ASSERT_EQ(keys.size(), 3U);
    EXPECT_TRUE(keys[0].id == first && keys[0].made == 0 && keys[0].version.empty() && keys[0].seals == 0);
    EXPECT_TRUE(keys[2].state == KeyState::Sealing && keys[2].made >= start && !keys[2].version.empty());
    EXPECT_EQ(keys[2].seals, 256U);
    EXPECT_TRUE(sd::SDSecurity::SealOf(bound)->keyId == keys[2].id && sd::SDSecurity::SealOf(bound)->isBound);
    EXPECT_TRUE(sd::SDSecurity::SealOf(kEnvelope)->keyId == first && !sd::SDSecurity::SealOf(kEnvelope)->isBound);
    EXPECT_FALSE(sd::SDSecurity::SealOf("v3" + bound.substr(2)));

    const std::string before = readFile(ring);
    for (const std::string& id : {keys[2].id, std::string("rubbish"), std::string(16, '0')}) {
        EXPECT_FALSE(security.RemoveKey(id) || security.SetKeyState(id, KeyState::Disabled)) << id;
        EXPECT_FALSE(security.SetKeyState(id, KeyState::Sealing));
    }
    EXPECT_TRUE(log.has("can't disable a key: no such key", 7) && log.has("can't enable a key: a key seals", 7));
    EXPECT_EQ(readFile(ring), before);
    EXPECT_TRUE(security.RemoveKey(first) && security.RemoveKey(second));
    EXPECT_EQ(resultOf(kRow, kBoundEnvelope), OpenResult::KeyMissing);
    EXPECT_EQ(security.DecryptForRow(kRow, bound), "x");
    EXPECT_FALSE(readFile(ring).find(kFirstLine.substr(17, 64)) != std::string::npos) << "the key itself is gone";
}

TEST_F(SecurityTest, MakesTheRingAtTheFirstSealAlone) {
    const mode_t old = ::umask(0);
    EXPECT_EQ(open(kEnvelope), "");
    EXPECT_TRUE(log.has(ring + ": there is no key ring", 7));
    EXPECT_FALSE(security.RotateKey());
    EXPECT_EQ(state(), State::Absent);
    EXPECT_FALSE(std::filesystem::exists(ring));
    sSynced.clear();
    EXPECT_NE(seal("x"), "");
    EXPECT_THAT(sSynced, ElementsAre(ring + ".new", folder.path(), count + ".new", folder.path())) << "before it seals";
    EXPECT_EQ(state(), State::Usable);
    for (const auto& file : std::filesystem::directory_iterator(folder.path()))
        EXPECT_EQ(modeOf(file.path()), 0600U) << file.path();

    const test::ScopedEnv home("HOME", (folder / "home").c_str());
    for (const std::string& dataHome : {folder / "data", std::string("relative")}) {
        const test::ScopedEnv data("XDG_DATA_HOME", dataHome.c_str());
        security.SetKeyRingFolder("");
        EXPECT_NE(seal("x"), "");
        ::umask(0777);
    }
    for (const char* path : {"data", "data/sdconfig", "home", "home/.local", "home/.local/share/sdconfig"})
        EXPECT_EQ(modeOf(folder / path), 0700U) << path;
    EXPECT_EQ(modeOf(folder / "home/.local/share/sdconfig/sdsecurity.keys"), 0600U);
    security.SetKeyRingFolder(folder / "a/b");
    EXPECT_EQ(seal("x"), "") << "only the default folder is made with those above it";
    EXPECT_FALSE(std::filesystem::exists(folder / "a"));
    EXPECT_TRUE(log.has("mkdir " + folder / "a/b: ", 7));
    ::umask(old);
}

TEST_F(SecurityTest, AgreesOnOneRingWhereProcessesStartAtOnce) {
    inProcesses(8, [this](int i) {
        std::string sealed;  // who waited too long for the one that made it asks again
        return test::waitUntil([&] { return !(sealed = seal(std::to_string(i))).empty(); }) &&
               (writeFile(folder / std::to_string(i), sealed), true);
    });
    for (int i = 0; i < 8; ++i) EXPECT_EQ(open(readFile(folder / std::to_string(i))), std::to_string(i));
    EXPECT_EQ(security.Keys().size(), 1U);
}

TEST_F(SecurityTest, NeverTouchesARingThatItCanNotUse) {
    const auto becomes = [this](const std::string& text, mode_t mode = 0600) {
        return [this, text, mode] { writeRing(text, mode); };
    };
    const std::string real = folder / "real";
    writeFile(real, kRing, 0600);
    const std::string cut = kRing.substr(0, kRing.size() - 1);
    std::string damaged = kRing, upper = kRing;
    damaged[kHeader.size() + 20] ^= 1;
    upper.replace(upper.find("0a0b"), 4, "0A0b");
    std::vector<std::pair<std::string, std::function<void()>>> cases{
        {"empty", becomes("")},
        {"no key", becomes(kHeader)},
        {"a version of tomorrow", becomes("sdsecurity-keys 3\n" + kRing2.substr(18))},
        {"another sum", becomes(kRing2.substr(0, kRing2.size() - 2) + "0\n")},
        {"cut short", becomes(cut)},
        {"carriage returns", becomes(cut + "\r\n")},
        {"a bit of a key turned", becomes(damaged)},
        {"another spelling", becomes(upper)},
        {"a key twice", becomes(kRing + kFirstLine)},
        {"too long", becomes(kRing + std::string(1 << 20U, 'a'))},
        {"readable by the group", becomes(kRing, 0640)},
        {"a link", [&] { std::filesystem::create_symlink(real, ring); }},
        {"a FIFO", [this] { ::mkfifo(ring.c_str(), 0600); }},
        {"a folder", [this] { std::filesystem::create_directory(ring); }},
    };
    if (::geteuid() == 0)
        cases.emplace_back("somebody else's", [this] { writeRing(kRing), (void)!::chown(ring.c_str(), 1, 1); });
    for (const auto& [what, make] : cases) {
        SCOPED_TRACE(what);
        make();
        beginAnew();
        const auto look = [this] {
            struct stat status {};
            ::lstat(ring.c_str(), &status);
            return std::tuple(status.st_ino, status.st_mode, S_ISREG(status.st_mode) ? readFile(ring) : "");
        };
        const auto before = look();
        forgetLines();
        EXPECT_EQ(seal(kSecret), "");
        EXPECT_EQ(open(kEnvelope), "");
        EXPECT_FALSE(security.RotateKey());
        EXPECT_EQ(log.count(ring + ": ", 7), 3);
        EXPECT_EQ(log.lines().size(), 3U);
        EXPECT_EQ(state(), State::Broken);
        EXPECT_EQ(look(), before);
        std::filesystem::remove(ring);
        writeFile(ring, kRing, 0600);
        EXPECT_EQ(open(kEnvelope), kPlain) << "a repair needs no restart";
        std::filesystem::remove(ring);
    }
}

TEST_F(SecurityTest, KeepsNoFailureAndTakesNoneForDamage) {
    ASSERT_EQ(kAllocationsCounted, 1);
    writeRing(kRing);
    EXPECT_EQ(state(), State::Usable);
    for (int n = 1; n <= 60; ++n) {
        SCOPED_TRACE(n);
        inProcesses(1, [&](int) {
            beginAnew();
            failingAllocation = n;
            (void)(open(kEnvelope) + seal("x"));
            failingAllocation = 0;
            const bool toldFalsely = log.has("changed after") || log.has("does not match") || ::ERR_peek_error() != 0;
            return !toldFalsely && open(kEnvelope) == kPlain && open(seal("x")) == "x";
        });
    }
    // The digests of a ring that is in memory, with nothing else to look for.
    EXPECT_EQ(open(kEnvelope), kPlain);
    ASSERT_EQ(::EVP_set_default_properties(nullptr, ""), 1);  // OpenSSL forgets what it has found
    for (int n = 1; n <= 20; ++n) {
        SCOPED_TRACE(n);
        inProcesses(1, [&](int) {
            const auto digest = [&] { return security.DigestUnderKey(kFirstLine.substr(0, 16), {"a", {"b\0cd", 4}}); };
            failingAllocation = n;
            (void)digest();
            failingAllocation = 0;
            return ::ERR_peek_error() == 0 && digest() == kDigest;
        });
    }
}

TEST_F(SecurityTest, SealsWhereTheFileSystemSyncsNoFolder) {
    for (const int error : {EINVAL, ENOSYS, EIO}) {
        const bool canSeal = error != EIO;
        sFolderError = error;
        security.SetKeyRingFolder(folder / std::to_string(error));
        EXPECT_EQ(open(seal("x")), canSeal ? "x" : "") << error;
        EXPECT_EQ(security.RotateKey(), canSeal) << error;
        EXPECT_EQ(security.Keys().size(), canSeal ? 2u : 0u) << error;
        sFolderError = 0;
    }
}

TEST_F(SecurityTest, SealsBesideAProcessThatHoldsTheLock) {
    const int lock = ::open((folder / "sdsecurity.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(::flock(lock, LOCK_EX), 0);
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 122; ++i) EXPECT_EQ(seal("x"), "") << "there is no ring yet, and none can be made";
    EXPECT_TRUE(log.has("another process holds sdsecurity.lock", 7));
    writeRing(kHeader + kFirstLine);
    EXPECT_EQ(open(seal("x")), "x");
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(2));
    ::close(lock);
    for (int i = 0; i < 768; ++i) seal("x");
    EXPECT_EQ(readFile(count).substr(17), "1792\n") << "what was counted in memory, too";
}

TEST_F(SecurityTest, PutsTheRingThatTheStartLookedAtBackInItsPlace) {
    writeRing(kRing);
    EXPECT_EQ(state(), State::Usable);
    std::filesystem::remove(ring);
    EXPECT_EQ(open(seal("x")), "x");
    EXPECT_EQ(readFile(ring), kRing);
    writeFile(ring, kHeader + kFirstLine);  // another one, with another folder
    for (int i = 0; i < 300; ++i) EXPECT_EQ(open(seal("x")), "x");
    EXPECT_EQ(log.count("another key ring stands there", 6), 1);
    EXPECT_FALSE(security.RotateKey()) << "what is in memory is not given up for it either";

    writeRing(kRing2);
    EXPECT_EQ(state(), State::Usable);
    writeFile(ring, kRing);  // of before it required the bound form
    for (int i = 0; i < 300; ++i) EXPECT_EQ(open(seal("x")), "x");
    EXPECT_EQ(resultOf(kRow, kEnvelope), OpenResult::UnboundForm);
    EXPECT_TRUE(log.has("an earlier key ring stands there", 6));
}

TEST_F(SecurityTest, RotatesAndStillOpensWhatWasSealedBefore) {
    const std::string early = seal("early");
    inProcesses(1, [this](int) { return security.RotateKey(); });
    EXPECT_THAT(security.Keys(), ElementsAre(testing::Field(&sd::SDSecurity::KeyInfo::state, KeyState::Opening),
                                             testing::Field(&sd::SDSecurity::KeyInfo::state, KeyState::Sealing)));
    inProcesses(1, [this](int) {
        beginAnew();  // as one that has just started
        return writeFile(folder / "late", seal("late")), true;
    });
    const std::string late = readFile(folder / "late");
    EXPECT_NE(late.substr(0, 12), early.substr(0, 12));
    EXPECT_EQ(open(late), "late") << "another process has rotated";
    EXPECT_EQ(open(early), "early");
    EXPECT_EQ(seal("").substr(0, 12), late.substr(0, 12));

    sSynced.clear();
    EXPECT_TRUE(security.RotateKey());
    EXPECT_THAT(sSynced, ElementsAre(ring + ".new", folder.path())) << "whole before it is the ring";
    int keys = 3;
    while (security.RotateKey()) ++keys;
    EXPECT_EQ(keys, 199);
    EXPECT_TRUE(log.has("it is full", 7));
    EXPECT_EQ(state(), State::Usable);
    EXPECT_EQ(open(seal(early)), early);
}

TEST_F(SecurityTest, CountsSealsOfAllProcessesAndAsksForRotationInTime) {
    writeRing(kHeader + kFirstLine);
    inProcesses(3, [this](int) {
        int sealed = 0;
        while (sealed < 1000 && !seal("x").empty()) ++sealed;
        return sealed == 1000;
    });
    ASSERT_EQ(readFile(count).substr(0, 17), kFirstLine.substr(0, 17));
    EXPECT_GE(std::stoul(readFile(count).substr(17)), 3000U);
    EXPECT_TRUE(log.lines().empty());

    const auto counted = [this](const std::string& text, mode_t mode = 0600) {
        writeFile(count, text, mode);
        forgetLines();
        beginAnew();
        return open(seal("x")) == "x";
    };
    EXPECT_TRUE(counted(kFirstLine.substr(0, 17) + "2147483000\n"));
    EXPECT_FALSE(log.has("rotate"));
    EXPECT_EQ(security.CheckKeyUse(), Use::Fine);
    EXPECT_TRUE(counted(kFirstLine.substr(0, 17) + "2147483647\n"));
    EXPECT_EQ(log.count("rotate the ring", 6), 1);
    EXPECT_EQ(security.CheckKeyUse(), Use::HalfUsed);
    for (const char* damage : {"rubbish", "dc4bc7547e35e387 -1\n", "dc4bc7547e35e387 9999999999999999999999\n"}) {
        EXPECT_TRUE(counted(damage));
        EXPECT_EQ(log.count(count, 6), 1) << damage;
    }
    EXPECT_TRUE(counted("", 0644));
    EXPECT_EQ(modeOf(count), 0600U);
    EXPECT_EQ(readFile(ring), kHeader + kFirstLine);

    EXPECT_FALSE(counted(kFirstLine.substr(0, 17) + "4294967290\n"));
    EXPECT_EQ(log.count("used up", 7), 1);
    EXPECT_EQ(security.CheckKeyUse(), Use::UsedUp);
    EXPECT_TRUE(security.RotateKey());
    EXPECT_EQ(open(seal("x")), "x");
    std::filesystem::remove(count);
    std::filesystem::create_directory(count);
    beginAnew();
    EXPECT_NE(seal("x"), "");
    EXPECT_EQ(log.count("counting in memory", 6), 1);
}

TEST_F(SecurityTest, UsesARingThatTheHostHandsOver) {
    const test::TempDir unit;
    const test::ScopedEnv credentials("CREDENTIALS_DIRECTORY", unit.path().c_str());
    const std::string own = seal("own");
    const auto works = [&] {
        return open(kEnvelope) == kPlain && open(seal(kSecret)) == kSecret && !security.RotateKey();
    };
    const auto ringIn = [&](mode_t mode) {
        writeFile(unit / "sdsecurity.keys", kRing, mode);
        beginAnew();
        return works();
    };
    EXPECT_FALSE(ringIn(0644));
    EXPECT_EQ(open(own), "") << "a broken ring is no reason to take another";
    EXPECT_TRUE(ringIn(0440));
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(unit.path()), {}), 1) << "nothing is written there";

    const int file = ::memfd_create("ring", MFD_CLOEXEC);
    EXPECT_FALSE(security.SetKeyRingDescriptor(file));
    EXPECT_EQ(open(kEnvelope), kPlain) << "the credentials' ring is still in use";
    EXPECT_GT(::write(file, kRing.data(), kRing.size()), 0);
    std::filesystem::remove(unit / "sdsecurity.keys");
    EXPECT_TRUE(security.SetKeyRingDescriptor(file));
    ::close(file);
    EXPECT_EQ(state(), State::Usable);
    EXPECT_TRUE(works());
    EXPECT_EQ(open(own), "");
}

// Counts the places where the memory of this process holds the inverse of `inverted`, in pages that are locked and left
// out of dumps, and in others.
std::pair<int, int> placesInMemory(const std::string& inverted) {
    const auto isInverse = [](char one, char other) { return one == static_cast<char>(~other); };
    std::pair<int, int> places;
    std::istringstream maps(readFile("/proc/self/smaps"));
    std::ifstream memory("/proc/self/mem", std::ios::binary);
    memory.rdbuf()->pubsetbuf(nullptr, 0);  // no copy stays there
    std::string bytes;
    for (std::string line; std::getline(maps, line);) {
        unsigned long from = 0, to = 0;
        char dash = 0;
        std::string access;
        if (std::istringstream(line) >> std::hex >> from >> dash >> to >> access && dash == '-') {
            bytes.assign(access == "rw-p" ? to - from : 0, '\0');
            memory.seekg(static_cast<std::streamoff>(from))
                .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        } else if (line.compare(0, 8, "VmFlags:") == 0) {
            const bool apart = line.find(" lo") != std::string::npos && line.find(" dd") != std::string::npos;
            for (auto at = bytes.begin();; ++at) {
                at = std::search(at, bytes.end(), inverted.begin(), inverted.end(), isInverse);
                if (at == bytes.end()) break;
                ++(apart ? places.first : places.second);
            }
            std::fill(bytes.begin(), bytes.end(), '\0');
        }
    }
    return places;
}

TEST_F(SecurityTest, KeysStandWhereNeitherADumpNorSwapTakesThem) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "there mlock() does nothing, and its own pages, left out of dumps, too, grow together with ours";
#endif
    EXPECT_EQ(open(seal(kSecret)), kSecret);
    beginAnew();
    EXPECT_EQ(open(seal(kSecret)), kSecret);
    const std::string text = readFile(ring);
    std::string inverted;
    for (std::size_t at = text.find("\nsum ") - 64; inverted.size() < 32; at += 2)
        inverted += static_cast<char>(~std::stoi(text.substr(at, 2), nullptr, 16));
    const auto [apart, elsewhere] = placesInMemory(inverted);
    EXPECT_GT(apart, 0);
    EXPECT_EQ(elsewhere, 0);
}

TEST_F(SecurityTest, ServesManyThreads) {
    std::atomic<int> opened{0};
    std::vector<std::thread> threads(4);
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            for (int round = 0; round < 300; ++round) opened += open(seal(kSecret)) == kSecret;
        });
    for (int i = 0; i < 5; ++i) security.RotateKey();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(opened, 1200);
}

}  // namespace
