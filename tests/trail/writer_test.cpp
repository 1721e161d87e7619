// The trail's writer: what a reader finds after commits, kills, other people's hands, full disks, and rotations.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>

#include "tests/support/scarce_memory.h"
#include "tests/support/support.h"
#include "tests/trail/trail_support.h"
#include "trail/files.h"
#include "trail/verify.h"
#include "trail/writer.h"

using namespace sd::trail;
using test::entryOf;
using test::ScarceMemory;
using test::storyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

std::atomic<off_t> syncedMost{0};  // of any file, at the last of its syncs

}  // namespace

// The trail's own: what a file holds then is on the disk.
extern "C" int fdatasync(int file) {
    struct stat status {};
    if (::fstat(file, &status) == 0) syncedMost = status.st_size;
    return static_cast<int>(::syscall(SYS_fdatasync, file));
}

namespace {

class WriterTest : public testing::Test {
protected:
    // The slots as a database has them.
    using Slots = std::array<std::string, kSlots>;

    WriterOptions options() {
        return {mFolder.path(), std::uint64_t{8} << 20, 4, mKeys.digest(), [this] { return mKeys.sealing(); }};
    }
    std::string path(const std::string& name = kCurrentFile) const { return mFolder.path() + "/" + name; }
    std::string problem() { return verify(mFolder.path(), mKeys.digest()).problem; }

    std::vector<RotatedFile> rotated() const { return listRotated(openFolder(mFolder.path()).get()); }
    bool isAllPacked() const {
        const std::vector<RotatedFile> files = rotated();
        return std::all_of(files.begin(), files.end(), [](const RotatedFile& file) { return file.isPacked; });
    }

    // A change that is committed.
    void commit(Writer& writer, const std::vector<Entry>& entries) {
        const Carried carried = writer.prepare(entries);
        if (!carried.text.empty()) mSlots[static_cast<std::size_t>(carried.slot)] = carried.text;
        writer.confirm();
    }
    Opening open(Writer& writer) { return writer.open({mSlots.begin(), mSlots.end()}); }
    // What a start finds that is all there is of a process.
    std::vector<std::string> damagesAtAStart() {
        Writer writer(options());
        return open(writer).damages;
    }

    test::TempDir mFolder;
    test::Keys mKeys;
    Slots mSlots;
};

// Where the first so many lines end.
std::size_t endOfLine(const std::string& text, std::uint64_t count) {
    std::size_t end = 0;
    for (; count > 0; --count) end = text.find('\n', end) + 1;
    return end;
}

}  // namespace

TEST_F(WriterTest, CommitsAreThereAndDroppedOnesAreNot) {
    {
        Writer writer(options());
        EXPECT_TRUE(open(writer).isNew);
        (void)writer.append(entryOf("START"));
        commit(writer, {entryOf("SET_SECURE", "a")});
        (void)writer.prepare({entryOf("SET_SECURE", "dropped")});
        writer.drop();
        EXPECT_EQ(writer.append(entryOf("SET_SECURE", "failed")), 3u);
        commit(writer, {entryOf("SET_POLICY", "b"), entryOf("SET_POLICY", "c")});
        EXPECT_THAT(mSlots[1], HasSubstr("failed"));  // so that the chain of the slots has no hole
        (void)writer.append(entryOf("END"));
        EXPECT_TRUE(writer.sync());
        EXPECT_EQ(writer.status().onDisk, 6u);
        EXPECT_EQ(verify(mFolder.path(), mKeys.digest(), writer.status().head).problem, "");
    }
    EXPECT_THAT(storyOf(mFolder.path()),
                ElementsAre("START", "SET_SECURE a", "SET_SECURE failed", "SET_POLICY b", "SET_POLICY c", "END"));
    EXPECT_EQ(test::linesOf({mFolder.path(), Order::NewestFirst})[1].entry.cause, 4u);
    struct stat status {};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777u, 0600u);

    Writer writer(options());
    const Opening opening = open(writer);
    EXPECT_TRUE(opening.wasEnded);
    EXPECT_EQ(opening.putBack, 0u);
    EXPECT_THAT(opening.damages, testing::IsEmpty());
    EXPECT_EQ(writer.append(entryOf("START")), 7u);
    EXPECT_EQ(problem(), "");
}

TEST_F(WriterTest, WhatAPowerCutTookFromTheFileComesFromTheSlots) {
    std::uint64_t onDisk = 0;
    {
        Writer writer(options());
        open(writer);
        for (int i = 0; i < 100; ++i) {
            if (i % 3 == 0) (void)writer.append(entryOf("REFUSED"));
            commit(writer, {entryOf("SET_SECURE", std::to_string(i))});
        }
        onDisk = writer.status().onDisk;
    }
    const std::string whole = test::readFile(path());
    const std::vector<std::string> story = storyOf(mFolder.path());
    const auto isTornOff = ElementsAre(HasSubstr("are in trail.torn"));
    // A start that finds so much damage puts back all that a slot has.
    const auto putBack = [&](std::size_t damageCount) {
        std::vector<std::string> damages = damagesAtAStart();
        EXPECT_EQ(damages.size(), damageCount);
        std::vector<std::string> wanted = story;
        wanted.insert(wanted.end(), damageCount, "DAMAGE");
        EXPECT_EQ(storyOf(mFolder.path()), wanted);
        EXPECT_EQ(problem(), "");
        return damages;
    };
    // A slow run is synced on its way: what no slot carries is on the disk then, and no cut takes it.
    const std::size_t first = std::max(whole.size() - 6000, endOfLine(whole, onDisk));
    for (std::size_t size = first; size <= whole.size(); size += 97) {
        const std::string zeros(size % 2 == 0 ? size % 5000 : 0, '\0');
        test::writeFile(path(), whole.substr(0, size) + zeros);
        SCOPED_TRACE(size);
        putBack(!zeros.empty() || whole[size - 1] != '\n' ? 1 : 0);
    }
    // What was written later may be there without what was written before.
    for (std::size_t at = first; at + 700 < whole.size(); at += 501) {
        test::writeFile(path(), std::string(whole).replace(at, 600, 600, '\0'));
        SCOPED_TRACE(at);
        EXPECT_THAT(putBack(1), isTornOff);
    }
    // What no commit carried is lost there, with what stands behind it.
    test::writeFile(path(), whole);
    {
        Writer writer(options());
        open(writer);
        for (int i = 0; i < 3; ++i) (void)writer.append(entryOf("REFUSED"));
    }
    test::writeFile(path(), test::readFile(path()).replace(whole.size() + 10, 300, 300, '\0'));
    EXPECT_THAT(putBack(1), isTornOff);
    const Slots own = std::exchange(mSlots, Slots{"no line"});
    EXPECT_THAT(damagesAtAStart(), ElementsAre(HasSubstr("1 lines in the databases are none of the trail")));
    mSlots = own;
    // What is zero before the last start, or while a process has the file, no power cut took: it stays, for verifying.
    {
        Writer writer(options());
        open(writer);
        (void)writer.append(entryOf("START"));
        commit(writer, {entryOf("SET_SECURE", "started")});
    }
    const std::string started = test::readFile(path());
    for (const std::size_t at : {std::size_t{20}, whole.size() - 10}) {
        test::writeFile(path(), std::string(started).replace(at, 1, 1, '\0'));
        EXPECT_THAT(damagesAtAStart(), testing::IsEmpty()) << at;
        EXPECT_EQ(test::readFile(path()).size(), started.size());
        EXPECT_THAT(problem(), HasSubstr("not JSON"));
    }
    const std::size_t start = started.rfind('{', started.rfind("START"));
    test::writeFile(path(), std::string(started).replace(start, 9, 9, '\0'));
    EXPECT_THAT(damagesAtAStart(), isTornOff);
    EXPECT_EQ(problem(), "");
    // A file that is gone was there all the same.
    fs::remove(path());
    {
        Writer writer(options());
        EXPECT_FALSE(open(writer).isNew);
    }
    // More than that no power cut takes: somebody did.
    test::writeFile(path(), whole.substr(0, whole.find('\n') + 1));
    EXPECT_THAT(damagesAtAStart(), Contains(HasSubstr("are missing")));
    EXPECT_THAT(problem(), HasSubstr("behind entry 1"));
}

TEST_F(WriterTest, ACommitThatWasToldAsFailedAndWasMadeIsTold) {
    {
        Writer writer(options());
        open(writer);
        (void)writer.append(entryOf("START"));
        const Carried carried = writer.prepare({entryOf("SET_SECURE", "a")});
        mSlots[7] = carried.text;
        writer.drop();
        (void)writer.append(entryOf("SET_SECURE", "failed"));
    }
    {
        Writer writer(options());
        EXPECT_THAT(open(writer).damages, ElementsAre(HasSubstr("a commit was made that had been told as failed")));
        (void)writer.append(entryOf("START"));
    }
    EXPECT_THAT(storyOf(mFolder.path()), ElementsAre("START", "SET_SECURE failed", "DAMAGE a", "START"));
    EXPECT_THAT(damagesAtAStart(), testing::IsEmpty());  // it was told
}

TEST_F(WriterTest, OtherHandsOnTheFileAreTold) {
    Writer writer(options());
    open(writer);
    const struct {
        std::function<void()> act;
        const char* told;
        bool isLoss;
    } kHands[] = {
        {[&] { test::writeFile(path(), test::readFile(path()) + "somebody's line\n"); }, "16 bytes behind the last",
         false},
        {[&] { test::writeFile(path(), test::readFile(path()) + std::string(1 << 20, '\0')); }, "1048576 bytes", false},
        {[&] {
             EXPECT_THAT(test::readFile(path(kTornFile)), StartsWith("somebody's line\n")) << "and what came later";
             fs::rename(path(), path("away")), ::mkfifo(path().c_str(), 0600);
         },
         "is a pipe; it is trail.torn now", true},
        {[&] { fs::rename(path(), path("away")), fs::create_symlink("away", path()); }, "is a link", true},
        {[&] { fs::remove(path()); }, "was taken away, and was left with entry", true},
        {[&] { fs::resize_file(path(), fs::file_size(path()) / 2); }, "ended with entry", true},
    };
    for (const auto& hand : kHands) {
        for (const char* key : {"1", "2", "3"}) commit(writer, {entryOf("SET_SECURE", key)});
        hand.act();
        (void)writer.append(entryOf("SET_SECURE", "next"));
        EXPECT_EQ(writer.status().waiting, 0u) << hand.told;
        std::vector<Line> lines = test::linesOf({mFolder.path(), Order::NewestFirst});
        std::string why;
        while (lines.back().entry.key != "next") lines.pop_back();
        for (const Line& line : lines) why += line.entry.what + " " + line.entry.why + "\n";
        EXPECT_THAT(why, HasSubstr(hand.told));
        EXPECT_EQ(problem().empty(), !hand.isLoss) << hand.told << problem();
    }
}

TEST_F(WriterTest, AFullDiskStopsNobodyAndTheGapIsTold) {
    Writer writer(options());
    open(writer);
    (void)writer.append(entryOf("START"));
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlimit full{fs::file_size(path()) + 100000, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
    const std::string longKey(60000, 'k');
    for (int i = 0; i < 100; ++i) commit(writer, {entryOf("SET_SECURE", longKey)});
    (void)writer.prepare({entryOf("SET_SECURE", "dropped")});
    writer.drop();
    const WriterStatus status = writer.status();
    EXPECT_GT(status.waiting, 50u);
    EXPECT_EQ(status.head.seq, 2u) << "there was room for one";
    EXPECT_EQ(status.waiting + status.lost, 99u);
    EXPECT_THAT(status.why, HasSubstr("File too large"));
    EXPECT_FALSE(writer.sync());
    const rlimit roomier{full.rlim_cur + 300000, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &roomier), 0);
    writer.flush();
    EXPECT_EQ(writer.status().waiting, status.waiting - 5);
    EXPECT_EQ(writer.status().head.seq, 7u);
    EXPECT_EQ(verify(mFolder.path(), mKeys.digest(), writer.status().head).problem, "");
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
    (void)writer.append(entryOf("SET_SECURE", "after"));
    EXPECT_TRUE(writer.sync());
    const std::vector<Line> lines = test::linesOf({mFolder.path(), Order::NewestFirst});
    EXPECT_EQ(lines.size(), status.waiting + 4);
    EXPECT_EQ(lines[0].entry.key, "after");
    EXPECT_EQ(lines[1].entry.what, "GAP");
    EXPECT_EQ(lines[1].entry.count, status.lost);
    EXPECT_LT(lines[1].entry.from, lines[1].entry.to);
    EXPECT_EQ(problem(), "");
}

TEST_F(WriterTest, AFileThatCantBeOpenedYetIsGoneOnWithOnceItCan) {
    {
        Writer writer(options());
        open(writer);
        commit(writer, {entryOf("SET_SECURE", "a"), entryOf("SET_SECURE", "b")});
    }
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit none{0, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    Writer writer(options());
    open(writer);
    commit(writer, {entryOf("SET_SECURE", "c")});
    const WriterStatus status = writer.status();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(status.waiting, 1u);
    EXPECT_THAT(status.why, HasSubstr("Too many open files"));
    commit(writer, {entryOf("SET_SECURE", "d")});
    EXPECT_THAT(storyOf(mFolder.path()), ElementsAre("SET_SECURE a", "SET_SECURE b", "SET_SECURE c", "SET_SECURE d"));
    EXPECT_EQ(problem(), "");
    fs::rename(path(), path("away"));
    fs::create_directory(path());
    test::writeFile(path(kTornFile), "in its way");
    for (int i = 0; i < 3; ++i) (void)writer.append(entryOf("REFUSED"));
    EXPECT_EQ(writer.status().waiting, 3u + 1) << "each try finds the same damage";
}

TEST_F(WriterTest, EntriesWaitForTheRingAndOutliveItsKey) {
    mKeys.set({});
    Writer writer(options());
    open(writer);
    (void)writer.append(entryOf("START"));
    commit(writer, {entryOf("SET_POLICY", "a"), entryOf("SET_POLICY", "b")});
    EXPECT_THAT(storyOf(mFolder.path()), ElementsAre());
    EXPECT_EQ(writer.status().waiting, 3u);
    EXPECT_EQ(writer.status().why, "the key ring is absent or locked");
    mKeys.set({"k2"});
    writer.flush();
    EXPECT_EQ(writer.key(), "k2");
    mKeys.set({"k1"});  // k2 was pruned
    EXPECT_EQ(writer.key(), "k2");
    commit(writer, {entryOf("SET_POLICY", "c"), entryOf("SET_POLICY", "d")});
    EXPECT_THAT(storyOf(mFolder.path()),
                ElementsAre("START", "SET_POLICY a", "SET_POLICY b", "TRAIL_KEY", "SET_POLICY c", "SET_POLICY d"));
    const std::vector<Line> lines = test::linesOf({mFolder.path(), Order::OldestFirst});
    EXPECT_EQ(lines[2].entry.cause, 2u);
    EXPECT_EQ(lines[5].entry.cause, 5u);
    EXPECT_EQ(problem(), "");
    mKeys.set({"k2"});  // the last lines are nobody's
    EXPECT_THAT(problem(), HasSubstr("attested by no key at hand"));
}

TEST_F(WriterTest, MoreThanASlotTakesIsOneEntry) {
    Writer writer(options());
    open(writer);
    std::vector<Entry> entries(75, entryOf("DM_CLEAR_ALL_KEYS", std::string(60000, 'k')));
    entries[0].came = "stored";  // the others weren't
    commit(writer, entries);
    for (Entry& entry : entries) entry.came = "stored";
    commit(writer, entries);
    EXPECT_THAT(storyOf(mFolder.path()), ElementsAre("DM_CLEAR_ALL_KEYS", "DM_CLEAR_ALL_KEYS"));
    const std::vector<Line> lines = test::linesOf({mFolder.path(), Order::OldestFirst});
    EXPECT_EQ(lines[0].entry.count, 75u);
    EXPECT_EQ(lines[0].entry.came, "");
    EXPECT_EQ(lines[1].entry.came, "stored");
}

// What was made ready for a commit needs no memory for its end, whether there was a key for it or not.
TEST_F(WriterTest, ACommitThatMemoryRunsOutOverIsToldOnceOrNotMade) {
    std::vector<std::string> expected;
    for (int kind = 0; kind < 8; ++kind) {
        const bool lasts = (kind & 1) != 0, isLocked = (kind & 2) != 0, isAtEnd = (kind & 4) != 0;
        ScarceMemory::forEach([&](std::uint64_t n) {
            Writer writer(options());
            (void)writer.open({});
            const std::string key = std::to_string(kind) + "." + std::to_string(n);
            if (isLocked) mKeys.set({});
            const auto isDone = [&](bool isScarce, const auto& step) {
                return ScarceMemory::passes(isScarce ? n : UINT64_MAX, lasts, step);
            };
            (void)isDone(true, [&] { (void)writer.append(entryOf("REFUSED")); });
            const bool isMade = isDone(!isAtEnd, [&] { (void)writer.prepare({2, entryOf("SET_SECURE", key)}); });
            (void)isDone(isAtEnd, [&] { writer.confirm(); });
            mKeys.set({"k1"});
            commit(writer, {entryOf("SET_POLICY", key)});
            if (isMade) expected.insert(expected.end(), 2, "SET_SECURE " + key);
            expected.push_back("SET_POLICY " + key);
        });
    }
    std::vector<std::string> story = storyOf(mFolder.path());
    story.erase(std::remove(story.begin(), story.end(), "REFUSED"), story.end());
    EXPECT_EQ(story, expected);
    EXPECT_EQ(problem(), "");
}

// The writer's own thread syncs, rotates and packs meanwhile.
TEST_F(WriterTest, ARotationThatMemoryRunsOutOverIsGoneOnWith) {
    WriterOptions small = options();
    small.bytesMax = 8000;
    ScarceMemory::forEach([&](std::uint64_t n) {
        for (const auto& file : fs::directory_iterator(mFolder.path())) fs::remove(file);
        {
            Writer writer(small);
            (void)writer.open({});
            const ScarceMemory scarce(ScarceMemory::Of::Others, n);
            for (int i = 0; i < 40; ++i) commit(writer, {entryOf("SET_SECURE")});  // so many that the thread hurries
            const auto isOver = [&] { return ScarceMemory::hasFailed() || (!rotated().empty() && isAllPacked()); };
            EXPECT_TRUE(test::waitUntil(isOver, 20000)) << n;
        }
        Writer writer(small);
        EXPECT_THAT(writer.open({}).damages, testing::IsEmpty()) << n;
        commit(writer, {entryOf("SET_SECURE")});
        const std::vector<std::string> story = storyOf(mFolder.path());
        EXPECT_EQ(std::count(story.begin(), story.end(), "SET_SECURE"), 41) << n;
        EXPECT_THAT(story, testing::Not(Contains("DAMAGE"))) << n;
        EXPECT_EQ(problem(), "") << n;
    });
}

// Also how to follow a trail: a reader that is asked again.
TEST_F(WriterTest, RotationsKeepTheChainAndDropTheOldest) {
    WriterOptions small = options();
    small.bytesMax = 20000;
    std::uint64_t last = 0, followed = 0;
    std::vector<std::string> planted;  // by somebody who wants the others dropped
    const auto isRotated = [&] {
        std::error_code absent;
        const auto size = fs::file_size(path(), absent);
        return size > 0 && size <= small.bytesMax;
    };
    {
        Writer writer(small);
        open(writer);
        Reader follower(mFolder.path(), Order::OldestFirst);
        for (int round = 0; round < 9; ++round) {
            for (int i = 0; i < 100; ++i) commit(writer, {entryOf("SET_SECURE", "key" + std::to_string(i))});
            if (round == 8) commit(writer, {entryOf("SET_SECURE", std::string(60000, '\x01'))});  // more than a block
            for (int i = 0; i < 1000 && !isRotated(); ++i) ::usleep(10000);
            for (Line line; follower.next(line);) {
                EXPECT_EQ(line.problem, "");
                EXPECT_EQ(line.entry.seq, ++followed);
            }
            const std::uint64_t newest = rotated().back().first;
            for (std::uint64_t i = 1; i <= 4 && round == 7; ++i) {
                planted.push_back(path(rotatedName(newest + i)));
                test::writeFile(planted.back(), "");
            }
        }
        last = writer.status().head.seq;
        for (int i = 0; i < 1000 && !isAllPacked(); ++i) ::usleep(10000);
    }
    EXPECT_EQ(followed, last);
    for (const std::string& name : planted) fs::remove(name), fs::remove(packedName(name));
    const std::vector<RotatedFile> files = rotated();
    ASSERT_EQ(files.size(), 4u);
    EXPECT_TRUE(isAllPacked());
    const Verdict verdict = verify(mFolder.path(), mKeys.digest());
    EXPECT_EQ(verdict.problem, "");
    EXPECT_EQ(verdict.head.seq, last);
    test::writeFile(path(rotatedName(UINT64_MAX)), "");
    test::writeFile(path(rotatedName(0)), "what no verification would see\n");
    EXPECT_GT(verdict.first, 1u);
    EXPECT_EQ(test::linesOf({mFolder.path(), Order::NewestFirst}).size(), verdict.lines);
    fs::remove(path(files.front().name));
    EXPECT_THAT(problem(), HasSubstr("what is kept begins with entry " + std::to_string(verdict.first)));
}

TEST_F(WriterTest, ARotationThatWasNotFinishedIsGoneOnWith) {
    {
        Writer writer(options());
        open(writer);
        for (int i = 0; i < 10; ++i) commit(writer, {entryOf("SET_SECURE", "a")});
    }
    fs::rename(path(), path(rotatedName(1)));
    Writer writer(options());
    EXPECT_FALSE(open(writer).isNew);
    EXPECT_EQ(writer.append(entryOf("START")), 11u);
    EXPECT_EQ(problem(), "");
}

TEST_F(WriterTest, ARotationThatFailsIsNoneAndIsTriedAgain) {
    WriterOptions small = options();
    small.bytesMax = 8000;
    fs::create_directories(path(rotatedName(1)) + "/of somebody");
    {
        Writer writer(small);
        open(writer);
        for (int i = 0; i < 42; ++i) {  // so many that the thread hurries, and has looked before the last
            commit(writer, {entryOf("SET_SECURE", "a")});
            const auto isSynced = [&] { return writer.status().onDisk == writer.status().head.seq; };
            EXPECT_TRUE(i < 39 || test::waitUntil(isSynced, 20000));
        }
        EXPECT_EQ(writer.status().head.seq, 42u) << "nothing else was written";
        fs::remove_all(path(rotatedName(1)));
        EXPECT_TRUE(
            test::waitUntil([&] { return commit(writer, {entryOf("SET_SECURE")}), !rotated().empty(); }, 20000));
    }
    EXPECT_EQ(problem(), "");
}

TEST_F(WriterTest, AForkedChildLeavesItAlone) {
    auto writer = std::make_unique<Writer>(options());
    open(*writer);
    (void)writer->append(entryOf("START"));
    const pid_t child = ::fork();
    if (child == 0) {
        const bool isLeftAlone = writer->append(entryOf("SET_SECURE", "child")) == 0 && !writer->sync();
        writer.reset();
        ::_exit(isLeftAlone ? 0 : 1);
    }
    int status = 1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(writer->append(entryOf("END")), 2u);
    EXPECT_EQ(problem(), "");
}

TEST_F(WriterTest, AnEndIsWrittenOnceAllBeforeItIsOnTheDisk) {
    Writer writer(options());
    open(writer);
    for (int i = 0; i < 3; ++i) (void)writer.append(entryOf("REFUSED"));
    const auto size = static_cast<off_t>(fs::file_size(path()));
    syncedMost = 0;
    EXPECT_EQ(writer.append(entryOf("END")), 4u);
    EXPECT_GE(syncedMost, size);
}

// The service's thread writes, while others ask how it is and read.
TEST_F(WriterTest, ThreadsAndReadersBesideIt) {
    WriterOptions small = options();
    small.bytesMax = 100000;
    small.keep = 100;
    Writer writer(small);
    open(writer);
    std::thread other([&] {
        for (int i = 0; i < 300; ++i) (void)writer.append(entryOf("REFUSED")), (void)writer.status();
    });
    for (int i = 0; i < 300; ++i) {
        commit(writer, {entryOf("SET_SECURE", "a")});
        if (i % 30 == 0) {
            EXPECT_EQ(problem(), "");
        }
    }
    other.join();
    EXPECT_TRUE(writer.sync());
    const std::vector<std::string> story = storyOf(mFolder.path());
    EXPECT_EQ(std::count(story.begin(), story.end(), "SET_SECURE a"), 300);
    EXPECT_EQ(std::count(story.begin(), story.end(), "REFUSED"), 300);
    EXPECT_EQ(problem(), "");
}
