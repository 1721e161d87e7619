#include "trail/verify.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "trail/reader.h"

namespace sd::trail {

namespace {

// How long a line that is being written lacks its newline at most.
constexpr std::chrono::milliseconds kWriting{10};

class Verifier {
public:
    Verifier(const Digest& digest, const std::optional<Head>& head) : mDigest(digest), mHead(head) {}

    Verdict run(Reader& reader) {
        Line line;
        while (mVerdict.problem.empty() && readNext(reader, line)) take(line);
        if (mVerdict.problem.empty() && reader.isLastLineCut())
            fail(reader.lastFile(), reader.lastNumber() + 1, "is cut short");
        if (mVerdict.problem.empty()) judgeEnd();
        return mVerdict;
    }

private:
    static bool readNext(Reader& reader, Line& line) {
        if (reader.next(line)) return true;
        if (!reader.isLastLineCut()) return false;
        std::this_thread::sleep_for(kWriting);
        return reader.next(line);
    }

    void fail(const std::string& file, std::uint64_t number, const std::string& problem) {
        mVerdict.file = file;
        mVerdict.number = number;
        mVerdict.problem = problem;
    }

    void take(const Line& line) {
        const std::string problem = line.problem.empty() ? problemOf(line) : line.problem;
        if (!problem.empty()) return fail(line.file, line.number, problem);
        const Entry& entry = line.entry;
        if (mVerdict.lines++ == 0) {
            mVerdict.first = entry.seq;
            mVerdict.since = entry.utc;
            mFirstFile = line.file;
        }
        mVerdict.head = {entry.seq, lineDigest(line.text)};
        if (mHead && entry.seq == mHead->seq && mVerdict.head != *mHead)
            fail(line.file, line.number, "is not the line that the head is of");
    }

    std::string problemOf(const Line& line) {
        const Entry& entry = line.entry;
        if (std::string problem = placeProblem(entry); !problem.empty()) return problem;
        const std::optional<bool> isAttested = trail::isAttested(line.text, entry, mDigest);
        if (isAttested == false) return "was changed: its mac is not what its key makes of it";
        if (isAttested)
            mVerdict.attested = entry.seq;
        else if (mDigest)
            noteUnattested(line);
        if (isAttested) mUnattested = Line();
        if (entry.what == "ROTATE") mOldest = std::max<std::uint64_t>(entry.oldest, 1);
        return "";
    }

    // Whether it can stand behind the line before.
    std::string placeProblem(const Entry& entry) {
        const Head& before = mVerdict.head;
        if (mVerdict.lines == 0) {
            const bool isVeryFirst = entry.before == Head().digest;
            if (isVeryFirst != (entry.seq == 1))
                return "is a first entry that has one before it, or a later one that has none";
            return "";
        }
        if (entry.seq != before.seq + 1)
            return "is entry " + std::to_string(entry.seq) + " behind entry " + std::to_string(before.seq);
        return entry.before == before.digest ? "" : "does not belong to the line before it: one of the two was changed";
    }

    void noteUnattested(const Line& line) {
        if (!mUnattested.file.empty()) return;
        mUnattested.file = line.file;
        mUnattested.number = line.number;
        mUnattested.entry.seq = line.entry.seq;
    }

    void judgeEnd() {
        if (mVerdict.first > mOldest)
            return fail(mFirstFile, 1,
                        "is entry " + std::to_string(mVerdict.first) + "; what is kept begins with entry " +
                            std::to_string(mOldest));
        if (mHead && mHead->seq > mVerdict.head.seq)
            return fail("", 0,
                        "ends with entry " + std::to_string(mVerdict.head.seq) + ", before the head's, " +
                            std::to_string(mHead->seq));
        if (mHead && mVerdict.lines > 0 && mHead->seq < mVerdict.first)
            return fail("", 0,
                        "begins with entry " + std::to_string(mVerdict.first) + ", behind the head's, " +
                            std::to_string(mHead->seq) + ", which is kept no more");
        if (!mUnattested.file.empty())
            fail(mUnattested.file, mUnattested.number, "is attested by no key at hand, nor is one of those behind it");
    }

    const Digest& mDigest;
    const std::optional<Head>& mHead;
    Verdict mVerdict;
    std::string mFirstFile;
    std::uint64_t mOldest = 1;  // entry that is kept, as the last ROTATE has it
    Line mUnattested;           // the first since the last line that was attested
};

}  // namespace

Verdict verify(const std::string& folder, const Digest& digest, const std::optional<Head>& head) {
    Reader reader(folder, Order::OldestFirst);
    return Verifier(digest, head).run(reader);
}

}  // namespace sd::trail
