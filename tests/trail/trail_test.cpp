// The trail: a line and back, reading files of any kind from both ends, and what verifying finds.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <random>

#include "tests/support/support.h"
#include "tests/trail/trail_support.h"
#include "trail/packed.h"
#include "trail/verify.h"
#include "trail/writer.h"

using namespace sd::trail;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Lines of a trail, as its writer would have made them.
class Lines {
public:
    explicit Lines(Digest digest) : mDigest(std::move(digest)) {}

    std::string make(Entry entry) {
        entry.seq = mHead.seq + 1;
        if (entry.utc == 0) entry.utc = static_cast<std::int64_t>(entry.seq) * 1'000'000;
        entry.ring = "k1";
        entry.before = mHead.digest;
        const std::string line = sealedLine(entry, mDigest);
        mHead = {entry.seq, lineDigest(line)};
        return line + "\n";
    }
    std::string make(int count) {
        std::string lines;
        for (int i = 0; i < count; ++i) lines += make(test::entryOf("SET_SECURE", "key" + std::to_string(i % 7)));
        return lines;
    }
    // A file after a rotation.
    std::string makeFile(std::uint64_t oldest, int count) {
        Entry entry = test::entryOf("ROTATE");
        entry.oldest = oldest;
        const std::string first = make(entry);
        return first + make(count);
    }
    const Head& head() const { return mHead; }

private:
    const Digest mDigest;
    Head mHead;
};

std::string packedLines(const std::string& lines) {
    std::string packed;
    for (std::size_t at = 0, end = 0; at < lines.size(); at = end) {
        end = lines.find('\n', std::min(at + 600, lines.size() - 1)) + 1;
        packed += packedBlock(std::string_view(lines).substr(at, end - at));
    }
    return packed;
}

class TrailTest : public testing::Test {
protected:
    test::TempDir mFolder;
    test::Keys mKeys;
    const Digest mDigest = mKeys.digest();

    std::string path(const std::string& name) const { return mFolder.path() + "/" + name; }
    void write(const std::string& name, const std::string& text) const { test::writeFile(path(name), text); }
    std::vector<std::uint64_t> read(Order order, std::optional<Since> since = std::nullopt) const {
        std::vector<std::uint64_t> found;
        for (const Line& line : test::linesOf({mFolder.path(), order, since}))
            found.push_back(line.problem.empty() ? line.entry.seq : 0);
        return found;
    }
    std::string problem(const std::optional<Head>& head = std::nullopt) const {
        return verify(mFolder.path(), mDigest, head).problem;
    }
};

}  // namespace

TEST_F(TrailTest, LineAndBack) {
    Entry entry = test::entryOf("SET_SECURE", std::string("\xed\xa0\x80 \0 \"\\", 8));
    entry.by = Peer{4294967295, 2147483647, "/usr/bin/\x1b[31m\xe2\x80\xae", std::nullopt, "a\xff", true};
    entry.priority = -3;
    entry.mono = 4711'000'001;
    entry.utc = -1;
    std::string line = Lines(mDigest).make(entry);
    line.pop_back();
    EXPECT_THAT(line,
                HasSubstr(R"("by":{"uid":4294967295,"pid":2147483647,"exe":"/usr/bin/\u001b[31m\u202e","unit":null,)"
                          R"("name_base64":"Yf8=","gone":true})"));
    EXPECT_THAT(line, HasSubstr(R"("utc":"1969-12-31T23:59:59.999999Z","mono":4711.000001,)"));
    Entry read;
    std::string problem;
    ASSERT_TRUE(parseLine(line, read, problem)) << problem;
    EXPECT_EQ(read.key, entry.key);
    EXPECT_EQ(read.by->name, "a\xff");
    EXPECT_EQ(isAttested(line, read, mDigest), true);
    EXPECT_EQ(isAttested(line + " ", read, Digest()), false) << "without the key, too";
    EXPECT_EQ(sealedLine(read, mDigest), line);
}

TEST_F(TrailTest, LinesThatAreNoEntries) {
    const std::string sound = Lines(mDigest).make(test::entryOf("SET_SECURE", "a"));
    const auto problemOf = [&](const std::string& from, const std::string& to) {
        std::string line = sound.substr(0, sound.size() - 1), why;
        line.replace(line.find(from), from.size(), to);
        Entry entry;
        return parseLine(line, entry, why) ? "none" : why;
    };
    EXPECT_EQ(problemOf(R"("key":"a")", R"("later":[{"a":[1,null]}],"more":{},"key":"a")"), "none");
    EXPECT_EQ(problemOf(R"("key":"a")", R"("key":"a","key":"a")"), "\"key\" stands twice");
    EXPECT_EQ(problemOf(R"("key":"a")", R"("key":"a","key_base64":"YQ==")"), "\"key\" stands twice");
    EXPECT_EQ(problemOf(R"("key":"a")", R"("key_base64":"YQ=")"), "\"key_base64\" is not in base64");
    EXPECT_EQ(problemOf(R"("key":"a")", "\"key\":\"" + std::string(65537, 'k') + "\""), "\"key\" is too long");
    EXPECT_EQ(problemOf(R"("by":null)", R"("by":{"later":1})"), "none");
    EXPECT_EQ(problemOf(R"("by":null)", R"("by":{"uid":-1})"), "\"uid\" is of another type");
    EXPECT_EQ(problemOf(R"("by":null)", R"("by":{"name":"a","exe":"b","name":"a"})"), "\"name\" stands twice");
    EXPECT_EQ(problemOf("1970-01-01", "1970-02-29"), "\"utc\" is of another type");
    for (const char* mono : {R"("mono":1e12,"later":)", R"("mono":"1","later":)"})
        EXPECT_EQ(problemOf(R"("mono":)", mono), "\"mono\" is of another type");
    EXPECT_THAT(problemOf(R"("seq":1,)", ""), HasSubstr("lacks one of"));
    for (const char* seq : {R"("seq":0,)", R"("seq":18446744073709551615,)"})
        EXPECT_EQ(problemOf(R"("seq":1,)", seq), "has a \"seq\" or a \"what\" that no entry has");
    EXPECT_EQ(problemOf("SET_SECURE", ""), "has a \"seq\" or a \"what\" that no entry has");
    EXPECT_THAT(problemOf("{", "[{"), HasSubstr("is no JSON object"));
    EXPECT_THAT(problemOf("{", std::string(100000, '[')), HasSubstr("is no JSON object"));
}

TEST(TrailTimeTest, IsReadAsItIsWritten) {
    for (const char* text :
         {"1970-01-01T00:00:00.000000Z", "2000-02-29T23:59:59.999999Z", "2028-02-29T12:30:01.000001Z",
          "2028-03-01T00:00:00.000000Z", "2100-02-28T00:00:00.000000Z", "2100-03-01T00:00:00.000000Z",
          "2026-12-31T00:00:00.000000Z", "1969-04-30T01:02:03.040506Z"}) {
        const auto time = utcOf(text);
        EXPECT_EQ(time ? utcText(*time) : "none", text);
    }
    for (const char* text : {"2100-02-29", "2027-02-29", "2026-04-31", "2026-13-01", "2026-00-10", "2026-01-00"})
        EXPECT_FALSE(utcOf(std::string(text) + "T00:00:00.000000Z")) << text;
    for (const char* text : {"T24:00:00.000000Z", "T00:60:00.000000Z", "T00:00:60.000000Z", "T00:00:00.000000", ""})
        EXPECT_FALSE(utcOf(std::string("2026-01-01") + text)) << text;
}

// An entry with all that is as long as it may be, and as long as it gets when it is escaped, can be read again.
TEST_F(TrailTest, TheLongestLine) {
    const std::string escapes(std::size_t{1} << 20, '\x01');
    Entry entry = test::entryOf("SET_SECURE", escapes);
    entry.by = Peer{0, 0, escapes, escapes, escapes, false};
    entry.why = escapes;
    write("trail.jsonl", Lines(mDigest).make(entry));
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(read(Order::NewestFirst).size(), 1u);
}

TEST_F(TrailTest, ReadsFromBothEndsOverFiles) {
    Lines lines(mDigest);
    write("trail-000000000001.jsonl.zst", packedLines(lines.make(40)));
    write("trail-000000000041.jsonl", lines.make(40));
    write("trail.jsonl", lines.make(40));
    std::vector<std::uint64_t> wanted(120);
    for (std::size_t i = 0; i < wanted.size(); ++i) wanted[i] = i + 1;
    EXPECT_EQ(read(Order::OldestFirst), wanted);
    for (const int since : {1, 2, 30, 40, 41, 77, 80, 81, 100, 120, 121}) {
        const Since at{{std::int64_t{since} * 1'000'000, 0, ""}};
        const std::vector<std::uint64_t> later(wanted.begin() + since - 1, wanted.end());
        EXPECT_EQ(read(Order::OldestFirst, at), later) << since;
        EXPECT_EQ(read(Order::NewestFirst, at), std::vector(later.rbegin(), later.rend())) << since;
    }
    EXPECT_EQ(read(Order::NewestFirst), std::vector(wanted.rbegin(), wanted.rend()));
    const Verdict verdict = verify(mFolder.path(), mDigest, lines.head());
    EXPECT_EQ(verdict.problem, "");
    EXPECT_EQ(verdict.lines, 120u);
    EXPECT_EQ(verdict.attested, 120u);
}

TEST_F(TrailTest, FilesOfAnyKindAreRead) {
    const std::string lines = Lines(mDigest).make(3);
    const auto both = [&](const std::string& wanted) {
        const std::vector<Line> found = test::linesOf({mFolder.path(), Order::OldestFirst});
        EXPECT_THAT(found.empty() ? "" : found.front().problem, HasSubstr(wanted));
        std::vector<std::uint64_t> forward = read(Order::OldestFirst);
        EXPECT_EQ(read(Order::NewestFirst), std::vector(forward.rbegin(), forward.rend())) << wanted;
        EXPECT_THAT(problem(), HasSubstr(wanted));
        std::filesystem::remove_all(path("trail.jsonl"));
        return forward;
    };
    EXPECT_TRUE(both("").empty());
    ASSERT_EQ(::mkfifo(path("trail.jsonl").c_str(), 0600), 0);
    (void)both("is a pipe");
    std::filesystem::create_directory(path("trail.jsonl"));
    (void)both("is a folder");
    std::filesystem::create_symlink("/dev/zero", path("trail.jsonl"));
    (void)both("is a link");
    write("trail.jsonl", "");
    EXPECT_TRUE(both("").empty());
    write("trail.jsonl", std::string(kLineBytesMax + 100000, 'x') + "\n" + lines);
    EXPECT_THAT(both("is longer than 512 KiB"), ElementsAre(0, 1, 2, 3));
    write("trail.jsonl", lines + "{");
    EXPECT_THAT(read(Order::NewestFirst), ElementsAre(3, 2, 1));
    EXPECT_EQ(problem(), "is cut short");
    write("trail.jsonl", "");
    std::filesystem::resize_file(path("trail.jsonl"), std::uintmax_t{1} << 30);
    EXPECT_TRUE(read(Order::NewestFirst).empty());
    EXPECT_TRUE(read(Order::OldestFirst).empty());
    Writer writer({mFolder.path(), 1 << 20, 1, mDigest, {}});  // with room, so that no rotation comes in between
    EXPECT_THAT(writer.open({lines}).damages,
                ElementsAre(HasSubstr("has no sound line at its end; it is trail.torn now")));
    EXPECT_EQ(problem(), "");
    EXPECT_EQ(std::filesystem::file_size(path("trail.torn")), std::uintmax_t{1} << 30);
    write("trail-000000000001.jsonl.zst", packedLines(lines).substr(1));
    EXPECT_THAT(both("has a damaged block"), ElementsAre(0, 1, 2, 3, 4));
}

// UTC was set back a year, then ahead, then put right: within one start of the machine the other clock tells.
TEST_F(TrailTest, ClocksThatJump) {
    const Moment now = currentMoment();
    const std::int64_t hour = 3'600'000'000, year = 8766 * hour;
    const std::pair<std::int64_t, std::int64_t> kAgoAndWrong[] = {
        {2 * hour, 0}, {hour / 2, -year}, {hour / 3, year}, {hour / 4, 0}};
    Lines lines(mDigest);
    std::string text;
    for (const auto& [ago, wrong] : kAgoAndWrong) {
        Entry entry = test::entryOf("SET_SECURE", "a");
        entry.utc = now.utc - ago + wrong;
        entry.mono = now.mono + 3 * hour - ago;
        entry.boot = "11111111";
        text += lines.make(entry);
    }
    write("trail.jsonl", text);
    const Since since{{now.utc - hour, now.mono + 2 * hour, "11111111"}};
    EXPECT_THAT(read(Order::NewestFirst, since), ElementsAre(4, 3, 2));
    EXPECT_THAT(read(Order::OldestFirst, since), ElementsAre(2, 3, 4));
}

namespace {

// Tampers with a trail at a random place.
class Tampering {
public:
    using Files = std::map<std::string, std::string>;  // their names and lines

    static constexpr int kKinds = 13;

    void tamper(Files& files, int kind) {
        std::string &text = any(files)->second, &other = any(files)->second;
        const std::pair<std::size_t, std::size_t> one = lineIn(text), another = lineIn(other);
        const std::size_t at = one.first, size = one.second;
        const std::string line = text.substr(at, size), otherLine = other.substr(another.first, another.second);
        const std::size_t byte = below(text.size());
        const std::size_t length = std::min(1 + below(2000), text.size() - byte);
        const std::function<void()> kinds[kKinds] = {
            [&] { flip(text); },
            [&] { text[at + below(size - 1)] = static_cast<char>('0' + below(10)); },
            [&] { text.erase(at, size); },
            [&] { text.insert(at, otherLine); },
            [&] {
                text.replace(at, size, otherLine);
                if (&text != &other) other.replace(another.first, another.second, line);
            },
            [&] { text.erase(byte, length); },
            [&] { text.replace(byte, length, length, '\0'); },
            [&] { files.erase(any(files)); },
            [&] { std::swap(text, other); },
            [&] { files.emplace("trail-000000000" + std::to_string(100 + below(400)) + ".jsonl", text); },
            [&] { text.erase(at); },
            [&] { text.erase(byte); },
            [&] { text += text.substr(at); },
        };
        kinds[kind]();
    }
    void flip(std::string& bytes) {
        char& byte = bytes[below(bytes.size())];
        byte = static_cast<char>(static_cast<unsigned char>(byte) ^ 1U << below(8));
    }

private:
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(mRandom); }
    Files::iterator any(Files& files) { return std::next(files.begin(), static_cast<long>(below(files.size()))); }
    std::pair<std::size_t, std::size_t> lineIn(const std::string& text) {
        const std::size_t at = below(text.size());
        const std::size_t begin = at == 0 ? 0 : text.rfind('\n', at - 1) + 1;
        return {begin, text.find('\n', begin) + 1 - begin};
    }

    std::mt19937 mRandom{1};
};

}  // namespace

// SDCONFIG_TRAIL_TAMPERINGS: how many. What can be read after each tells what it was: nothing, where the bytes mean
// what they did; a clean cut at the end, which takes a head to be found; or what verifying has to find by itself.
TEST_F(TrailTest, EveryTamperingIsFound) {
    Lines lines(mDigest);
    (void)lines.make(100);  // dropped by now
    Tampering::Files sound;
    sound["trail-000000000101.jsonl.zst"] = lines.makeFile(1, 20);
    sound["trail-000000000122.jsonl"] = lines.makeFile(1, 20);
    sound["trail.jsonl"] = lines.makeFile(101, 20);
    std::string whole;
    for (const auto& [name, text] : sound) whole += text;
    Tampering tampering;
    const char* const wanted = std::getenv("SDCONFIG_TRAIL_TAMPERINGS");
    const int count = wanted ? std::stoi(wanted) : 200;
    int cuts = 0, packed = 0;
    for (int i = 0; i < count; ++i) {
        Tampering::Files files = sound;
        const int kind = i % (Tampering::kKinds + 1);
        const bool isRaw = kind == Tampering::kKinds;  // a bit of the packed file
        if (!isRaw) tampering.tamper(files, kind);
        for (const auto& [name, text] : files) {
            const bool isPacked = name == sound.begin()->first && (text.empty() || text.back() == '\n');
            std::string bytes = isPacked ? packedLines(text) : text;
            if (isPacked && isRaw) tampering.flip(bytes);
            write(name, bytes);
        }
        std::string read;
        bool isWhole = true;
        Reader reader(mFolder.path(), Order::OldestFirst);
        for (Line line; reader.next(line); read += line.text + "\n") isWhole = isWhole && line.problem.empty();
        isWhole = isWhole && !reader.isLastLineCut();
        const bool isSame = isWhole && read == whole;
        const bool isCut = isWhole && !isSame && whole.compare(0, read.size(), read) == 0;
        cuts += isCut ? 1 : 0;
        packed += isRaw && !isSame ? 1 : 0;
        EXPECT_TRUE(problem().empty() == isSame || isCut) << i << problem();
        EXPECT_EQ(problem(lines.head()).empty(), isSame) << i << problem(lines.head());
        for (const auto& [name, text] : files) std::filesystem::remove(path(name));
    }
    EXPECT_GT(cuts, count / 50);
    EXPECT_GT(packed, count / 20);
}
