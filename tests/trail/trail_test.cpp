// The trail: a line and back, reading files of any kind from both ends, and what verifying finds.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/support.h"
#include "trail/chain.h"
#include "trail/entry.h"
#include "trail/packed.h"
#include "trail/reader.h"
#include "trail/verify.h"

using namespace sd::trail;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr char kKey[] = "k1";

// Keyed enough for a test: the digest of the key's name and the texts.
std::string digest(const std::string& key, const std::vector<std::string_view>& texts) {
    if (key != kKey) return "";
    std::string all = key;
    for (const std::string_view text : texts) (all += '\0').append(text);
    return lineDigest(all);
}

// Lines of a trail, as its writer would have made them.
class Lines {
public:
    std::string make(Entry entry) {
        entry.seq = mHead.seq + 1;
        if (entry.utc == 0) entry.utc = static_cast<std::int64_t>(entry.seq) * 1'000'000;
        entry.ring = kKey;
        entry.before = mHead.digest;
        const std::string line = sealedLine(entry, digest);
        mHead = {entry.seq, lineDigest(line)};
        return line + "\n";
    }
    std::string make(int count) {
        std::string lines;
        for (int i = 0; i < count; ++i) {
            Entry entry;
            entry.what = "SET_SECURE";
            entry.key = "key" + std::to_string(i % 7);
            lines += make(entry);
        }
        return lines;
    }
    const Head& head() const { return mHead; }

private:
    Head mHead;
};

class TrailTest : public testing::Test {
protected:
    test::TempDir mFolder;

    void write(const std::string& name, const std::string& text) const {
        std::ofstream(mFolder.path() + "/" + name, std::ios::binary) << text;
    }
    std::vector<std::uint64_t> read(Order order, std::optional<Since> since = std::nullopt) const {
        Reader reader(mFolder.path(), order, since);
        std::vector<std::uint64_t> found;
        for (Line line; reader.next(line);) found.push_back(line.problem.empty() ? line.entry.seq : 0);
        return found;
    }
};

std::string packedLines(const std::string& lines) {
    std::string packed;
    for (std::size_t at = 0, end = 0; at < lines.size(); at = end) {
        end = lines.find('\n', std::min(at + 600, lines.size() - 1)) + 1;
        packed += packedBlock(std::string_view(lines).substr(at, end - at));
    }
    return packed;
}

}  // namespace

TEST_F(TrailTest, LineAndBack) {
    Entry entry;
    entry.by = Peer{1000, 4711, "/usr/bin/\x1b[31m\xe2\x80\xae", std::nullopt, "a\xff", true};
    entry.what = "SET_SECURE";
    entry.key = std::string("\xed\xa0\x80 \0 \"\\", 8);
    entry.priority = -3;
    entry.mono = 4711'000'001;
    entry.utc = -1;
    Lines lines;
    std::string line = lines.make(entry);
    line.pop_back();
    EXPECT_THAT(
        line,
        HasSubstr(
            R"("by":{"uid":1000,"pid":4711,"exe":"/usr/bin/\u001b[31m\u202e","unit":null,"name_base64":"Yf8=","gone":true})"));
    EXPECT_THAT(line, HasSubstr(R"("utc":"1969-12-31T23:59:59.999999Z","mono":4711.000001,)"));
    Entry read;
    std::string problem;
    ASSERT_TRUE(parseLine(line, read, problem)) << problem;
    EXPECT_EQ(sealedLine(read, digest), line);
    EXPECT_EQ(read.key, entry.key);
    EXPECT_EQ(read.by->name, "a\xff");
    EXPECT_EQ(isAttested(line, read, digest), true);
}

TEST_F(TrailTest, ReadsFromBothEndsOverFiles) {
    Lines lines;
    write("trail-000000000001.jsonl.zst", packedLines(lines.make(40)));
    write("trail-000000000041.jsonl", lines.make(40));
    write("trail.jsonl", lines.make(40));
    std::vector<std::uint64_t> wanted(120);
    for (std::size_t i = 0; i < wanted.size(); ++i) wanted[i] = i + 1;
    EXPECT_EQ(read(Order::OldestFirst), wanted);
    for (const std::uint64_t since : {1, 2, 30, 40, 41, 77, 80, 81, 100, 120, 121}) {
        const Since at{{static_cast<std::int64_t>(since) * 1'000'000, 0, ""}};
        const std::vector<std::uint64_t> later(wanted.begin() + static_cast<std::ptrdiff_t>(since) - 1, wanted.end());
        EXPECT_EQ(read(Order::OldestFirst, at), later) << since;
        EXPECT_EQ(read(Order::NewestFirst, at), std::vector(later.rbegin(), later.rend())) << since;
    }
    EXPECT_EQ(read(Order::NewestFirst), std::vector(wanted.rbegin(), wanted.rend()));
    const Verdict verdict = verify(mFolder.path(), digest, lines.head());
    EXPECT_EQ(verdict.problem, "");
    EXPECT_EQ(verdict.lines, 120u);
    EXPECT_EQ(verdict.attested, 120u);
}
