// The service's trail: what each call leaves in it, as a reader finds it beside the databases.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "src/sdconfig_impl_policy.h"
#include "tests/src/service_support.h"
#include "tests/support/scarce_memory.h"
#include "trail/chain.h"
#include "trail/reader.h"
#include "trail/verify.h"

namespace sd {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using trail::Entry;

class ServiceTrailTest : public CallingTest {
protected:
    ServiceTrailTest() : CallingTest(service()) {}
    static RunningService& service() {
        static RunningService service([](const test::TempDir& data) {
            std::filesystem::create_directory(data / "policies");
            test::writeFile(data / "policies/10.json", "{\"governed\":\n{\"value\": \"machine's\", \"priority\": 9}}");
            SDConfigDmHelper::SetMachinePolicyFolders({data / "policies"});
            SDConfigService::SetAuditedReads({"audited.*", "Other"});
        });
        return service;
    }

    std::vector<Entry> all() {
        std::vector<Entry> entries;
        trail::Reader reader(mService.data().path(), trail::Order::OldestFirst);
        for (trail::Line line; reader.next(line);) {
            EXPECT_EQ(line.problem, "");
            entries.push_back(line.entry);
        }
        return entries;
    }
    // Those since the last time.
    std::vector<Entry> added() {
        std::vector<Entry> entries = all();
        entries.erase(entries.begin(), entries.begin() + static_cast<std::ptrdiff_t>(mSeen));
        mSeen += entries.size();
        return entries;
    }
    // "METHOD key=came", and "!" where the effective value became another one.
    static std::string told(const Entry& entry) {
        return entry.what + " " + entry.key.value_or("") + "=" + entry.came +
               (entry.oldDigest != entry.newDigest ? "!" : "");
    }
    std::vector<std::string> toldOf(const std::vector<Entry>& entries) {
        std::vector<std::string> texts(entries.size());
        std::transform(entries.begin(), entries.end(), texts.begin(), told);
        return texts;
    }
    std::vector<std::string> addedTold() { return toldOf(added()); }

    static std::string digest(const std::string& id, const std::vector<std::string_view>& texts) {
        return SDSecurity::DigestUnderKey(id, texts);
    }

    std::size_t mSeen = 0;
};

TEST_F(ServiceTrailTest, EachChangeHasItsEntryAndNoValueIsInIt) {
    call("SET_PROPERTY", "p", "canary.1");
    const std::vector<Entry> first = added();
    ASSERT_THAT(toldOf(first), ElementsAre("START =", "SET_PROPERTY p=changed!"));
    EXPECT_EQ(first.front().source, "start");
    ASSERT_TRUE(first.back().by);
    EXPECT_EQ(first.back().by->uid, ::geteuid());
    EXPECT_EQ(first.back().by->pid, ::getpid());
    EXPECT_EQ(first.back().by->exe, std::filesystem::read_symlink("/proc/self/exe").string());

    call("SET_PROPERTY", "p", "canary.1");
    call("SET_PROPERTY", "ro.p", "canary.1");
    call("SET_PROPERTY", "ro.p", "canary.2");
    call("DEL_PROPERTY", "p");
    call("DEL_PROPERTY", "p");
    EXPECT_THAT(addedTold(),
                ElementsAre("SET_PROPERTY p=same", "SET_PROPERTY ro.p=changed!", "SET_PROPERTY ro.p=failed",
                            "DEL_PROPERTY p=changed!", "DEL_PROPERTY p=failed"));

    for (const char* value : {"canary.1", "canary.1", "canary.2"}) call("SET_SECURE", "S", value);
    call("SET_SECURE", std::string("z\0", 2), "canary.1");
    call("SET_POLICY", "s", "canary.3", 4);
    call("SET_POLICY", "s", "canary.3", 9);
    call("SET_POLICY", "s", "canary.3", 9);
    call("SET_SECURE", "s", "canary.1");
    call("SET_POLICY", "s", "a&&&b", 9);  // which reads back as none
    call("DELETE_POLICY", "s");
    call("DELETE_POLICY", "s");  // there is none any more, as for a value that is not there
    call("DEL_SECURE", "S");
    call("DEL_SECURE", "S");
    const std::vector<Entry> changes = added();
    EXPECT_THAT(toldOf(changes),
                ElementsAre("SET_SECURE S=changed!", "SET_SECURE S=same", "SET_SECURE S=changed!",
                            std::string("SET_SECURE z\0=failed", 20), "SET_POLICY s=stored", "SET_POLICY s=changed!",
                            "SET_POLICY s=same", "SET_SECURE s=stored", "SET_POLICY s=changed!",
                            "DELETE_POLICY s=stored", "DEL_SECURE S=changed!"));
    EXPECT_EQ(changes[5].priority, 9);
    EXPECT_EQ(changes[0].newDigest, changes[8].newDigest) << "equal values of one key, whatever its letter case";
    EXPECT_NE(changes[0].newDigest, first.back().newDigest) << "and not of another";
    EXPECT_EQ(changes[0].oldDigest, changes[10].newDigest);

    const std::string text = test::readFile(file("trail.jsonl"));
    EXPECT_EQ(text.find("canary"), std::string::npos);
    const trail::Verdict verdict = trail::verify(mService.data().path(), digest);
    EXPECT_EQ(verdict.problem, "");
    EXPECT_EQ(verdict.attested, changes.back().seq);
}

TEST_F(ServiceTrailTest, AListHasOneCause) {
    call("SET_POLICYLIST", 3, "l.1", "a", 9, "l.2", "b", 4, "governed", "c", 9);
    call("SET_SECURE", "l.2", "local");
    const std::vector<Entry> list = added();
    ASSERT_THAT(toldOf(list), ElementsAre("START =", "SET_POLICYLIST l.1=changed!", "SET_POLICYLIST l.2=changed!",
                                          "SET_POLICYLIST governed=governed", "SET_SECURE l.2=changed!"));
    EXPECT_EQ(list[1].by.has_value(), std::getenv("BUS_OF_VERSION_1_0") == nullptr) << "which can't tell who called";
    EXPECT_EQ(list[1].cause, 0U);
    for (const std::size_t i : {2U, 3U}) EXPECT_EQ(list[i].cause, list[1].seq);
    EXPECT_THAT(test::readFile(file("trail.jsonl")), HasSubstr("\"cause\":" + std::to_string(list[1].seq)));

    call("DM_CLEAR_ALL_KEYS");
    call("DM_CLEAR_ALL_KEYS");
    const std::vector<Entry> cleared = added();
    ASSERT_THAT(toldOf(cleared), ElementsAre("DM_CLEAR_ALL_KEYS l.1=changed!", "DM_CLEAR_ALL_KEYS l.2=stored"));
    EXPECT_EQ(cleared[1].cause, cleared[0].seq);

    const Message status = call("TRAIL_STATUS");
    EXPECT_TRUE(status->getBool(0));
    EXPECT_THAT(status->getString(1), testing::StartsWith("trail-1-" + std::to_string(cleared[1].seq) + "-"));
    EXPECT_EQ(status->signature(), "bsssssss");
    EXPECT_EQ(status->getString(4) + status->getString(5) + status->getString(7), "00");
}

TEST_F(ServiceTrailTest, AMachinePolicysEntryNamesItsFileAndLine) {
    call("SET_SECURE", "governed", "own");
    test::writeFile(file("new"), "\n\n{\"governed\": {\"value\": \"another\", \"priority\": 9}}");
    std::filesystem::rename(file("new"), file("policies/10.json"));
    const auto isTold = [&] { return all().back().what == "POLICIES_READ"; };
    ASSERT_TRUE(test::waitUntil(isTold, 20000));
    std::filesystem::remove(file("policies/10.json"));
    ASSERT_TRUE(test::waitUntil([&] { return isTold() && all().back().why == "it is there no more"; }, 20000));
    const std::vector<Entry> entries = added();
    ASSERT_THAT(toldOf(entries), ElementsAre("START =", "SET_SECURE governed=stored", "POLICIES_READ governed=changed!",
                                             "POLICIES_READ governed=changed!"));
    EXPECT_FALSE(entries[2].by);
    EXPECT_EQ(entries[2].source, file("policies/10.json:3"));
    EXPECT_EQ(entries[2].priority, 9);
    EXPECT_EQ(entries[3].oldDigest, entries[2].newDigest);
}

TEST_F(ServiceTrailTest, ReadingsOfAuditedKeysAreInItBeforeTheyAreAnswered) {
    call("SET_SECURE", "Audited.a", "1");
    call("SET_POLICY", "audited.b", "2", 9);
    const std::vector<Entry> sets = added();
    for (const char* key : {"audited.A", "other", "unheard"}) call("GET_SECURE", key);
    call("GET_POLICY", "audited.b");
    call("DM_GET_POLICIES", 2, "audited.b", "unheard");
    call("DM_LIST");
    call("GET_PROPERTY", "audited.p");
    const std::vector<Entry> reads = added();
    EXPECT_THAT(toldOf(reads),
                ElementsAre("GET_SECURE audited.A=read!", "GET_SECURE other=read!", "GET_POLICY audited.b=read!",
                            "DM_GET_POLICIES audited.b=read!", "DM_LIST audited.b=read!"));
    EXPECT_EQ(reads[0].newDigest, sets[1].newDigest);
    for (const char* reading : {"GET_SECURE", "GET_POLICY"}) {
        call(reading, "audited.b");
        const Message status = call("TRAIL_STATUS");
        EXPECT_EQ(status->getString(2), std::to_string(trail::headOf(status->getString(1))->seq)) << "on the disk";
    }
}

// Root alone can play two users.
TEST_F(ServiceTrailTest, HasWhoWasRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string socket = SDBusSerivceManager::initSync(-1)->socketPath("sdconfig");
    for (const std::string& path :
         {socket, std::filesystem::path(socket).parent_path().string(), mService.runtimeFolder().path()})
        std::filesystem::permissions(path, std::filesystem::perms::all);
    EXPECT_TRUE(test::inChild([&] {
        char byte = 0;
        return ::setuid(65534) == 0 && ::read(test::connectTo(socket), &byte, 1) == 0;
    }));
    call("GET_CONST", "fence");
    const std::vector<Entry> entries = all();
    ASSERT_THAT(toldOf(entries), ElementsAre("START =", "REFUSED =refused"));
    EXPECT_EQ(entries.back().by->uid, 65534U);
    EXPECT_EQ(entries.back().why, "it belongs to another user");
}

TEST_F(ServiceTrailTest, GoesOnUnderAnotherKeyWhereItsOwnOpensNothing) {
    test::LogCapture log;
    call("SET_SECURE", "k", "1");
    const std::string key = added().back().ring;
    call("KEY_ROTATE", false);
    call("SET_SECURE", "k", "1");
    const std::vector<Entry> rotated = added();
    ASSERT_THAT(toldOf(rotated), ElementsAre("KEY_ROTATE =done", "SET_SECURE k=same"));
    EXPECT_EQ(rotated.back().ring, key) << "so that digests can be compared";
    call("KEY_ENABLE", key, false);
    call("SET_SECURE", "k", "1");
    call("KEY_ENABLE", "no key's", false);
    const std::vector<Entry> left = added();
    ASSERT_THAT(toldOf(left),
                ElementsAre("TRAIL_KEY =", "KEY_ENABLE =done", "SET_SECURE k=same", "KEY_ENABLE =failed"));
    EXPECT_EQ(left[1].why, "key " + key + " disabled");
    EXPECT_NE(left[1].ring, key);
    EXPECT_NE(left[2].newDigest, rotated[1].newDigest);
    EXPECT_EQ(call("TRAIL_STATUS")->getString(3), left.back().ring);
    call("KEY_ENABLE", key, true);
    EXPECT_EQ(trail::verify(mService.data().path(), digest).problem, "");
    EXPECT_FALSE(log.has(key, 7)) << "the layer is not asked for what it can't do";
}

TEST_F(ServiceTrailTest, NoReadingIsWithoutItsEntryWhereMemoryRunsOut) {
    call("SET_SECURE", "audited.scarce", "told");
    test::ScarceMemory::forEach([this](std::uint64_t n) {
        (void)added();
        Message answer;
        {
            const test::ScarceMemory scarce(test::ScarceMemory::Of::Others, n);
            answer = call("GET_SECURE", "audited.scarce");
        }
        const bool isTold = answer->type() == 2 && answer->getString(0) == "told";
        call("TRAIL_STATUS");  // writes what waits
        EXPECT_TRUE(!isTold || added().size() == 1) << n;
    });
}

TEST_F(ServiceTrailTest, NoChangeIsWithoutItsEntryWhereMemoryRunsOut) {
    std::string stored = "0";
    call("SET_SECURE", "scarce", stored);
    (void)added();
    test::ScarceMemory::forEach([&](std::uint64_t n) {
        Message answer;
        {
            const test::ScarceMemory scarce(test::ScarceMemory::Of::Others, n);
            answer = call("SET_SECURE", "scarce", std::to_string(n));
        }
        const std::string before = std::exchange(stored, call("GET_SECURE", "scarce")->getString(0));
        call("TRAIL_STATUS");  // writes what waits
        std::vector<Entry> entries = added();
        const auto isChange = [](const Entry& entry) { return entry.came == "changed"; };
        EXPECT_EQ(std::count_if(entries.begin(), entries.end(), isChange), stored != before ? 1 : 0) << n;
        EXPECT_TRUE(answer->type() != 2 || answer->getBool(0) == (stored != before)) << n;
    });
    EXPECT_EQ(trail::verify(mService.data().path(), digest).problem, "");
}

}  // namespace
}  // namespace sd
