#include "trail/reader.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <string_view>
#include <utility>

#include "trail/blocks.h"
#include "trail/files.h"

namespace sd::trail {

namespace {

constexpr char kTooLong[] = "is longer than 512 KiB";
constexpr char kCut[] = "is cut short";

// A file that is read.
struct Source {
    std::string name;
    std::uint64_t first = 0;  // by its name; 0: the current one
    UniqueFd file;
    std::unique_ptr<Blocks> blocks;

    bool isCurrent() const { return first == 0; }
};

bool isSame(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// The folder and what in it can be opened to be read.
class Folder {
public:
    explicit Folder(const std::string& path) : mFolder(openFolder(path)) {}

    std::vector<RotatedFile> rotated() const {
        return mFolder ? listRotated(mFolder.get()) : std::vector<RotatedFile>();
    }
    OpenedFile openCurrent() const { return open(kCurrentFile); }
    OpenedFile open(const std::string& name) const {
        if (mFolder) return openFile(mFolder.get(), name, O_RDONLY);
        OpenedFile none;
        none.isAbsent = true;
        return none;
    }
    // Whether the current file is still the one that was opened as such.
    bool isStillCurrent(const Source& source) const {
        struct stat open {
        }, named{};
        return ::fstat(source.file.get(), &open) == 0 &&
               ::fstatat(mFolder.get(), kCurrentFile, &named, AT_SYMLINK_NOFOLLOW) == 0 && isSame(open, named);
    }

private:
    UniqueFd mFolder;
};

std::unique_ptr<Source> sourceOf(OpenedFile opened, const std::string& name, std::uint64_t first, bool isPacked) {
    auto source = std::make_unique<Source>();
    source->name = name;
    source->first = first;
    source->blocks = isPacked ? packedBlocks(opened.file.get()) : plainBlocks(opened.file.get());
    source->file = std::move(opened.file);
    return source;
}

void setProblem(Line& line, const std::string& file, const std::string& problem, std::uint64_t number = 0) {
    line = Line();
    line.file = file;
    line.number = number;
    line.problem = problem;
}

void setText(Line& line, const std::string& file, std::string_view text, std::uint64_t number = 0) {
    line.text = text;
    line.file = file;
    line.number = number;
    (void)parseLine(text, line.entry, line.problem);
}

}  // namespace

// From the oldest on.
class Reader::Forward {
public:
    explicit Forward(const std::string& folder) : mFolder(folder) {}

    // Begins so many bytes behind the place at which the source is.
    void startAt(std::unique_ptr<Source> source, std::size_t skip) {
        mFirst = source->first;
        mSource = std::move(source);
        mSkip = skip;
        mIsCounting = false;
        mLastFile = mSource->name;
    }

    bool next(Line& line) {
        while (true) {
            if (mIsGivenUp && !leave()) return false;
            if (!mSource && !advance(line)) return !line.problem.empty();
            if (takeLine(line)) return true;
            if (readBlock()) continue;
            if (!mSource->blocks->problem().empty()) return giveUp(line);
            if (mSource->isCurrent() && mFolder.isStillCurrent(*mSource)) return stay();
            if (mSource->isCurrent() && !std::exchange(mIsLeft, true)) continue;  // for what came just before
            if (finish(line)) return true;
        }
    }

    bool isLastLineCut() const { return mAt < mBytes.size() || mIsTooLong; }
    const std::string& lastFile() const { return mLastFile; }
    std::uint64_t lastNumber() const { return mNumber; }

private:
    // Opens the next file. False where there is none, or it can't be opened: then the line says why, once.
    bool advance(Line& line) {
        line.problem.clear();
        while (true) {
            OpenedFile current = mFolder.openCurrent();  // before the list is read: a rotation shows in the list
            const std::vector<RotatedFile> files = mFolder.rotated();
            const auto next = std::find_if(files.begin(), files.end(),
                                           [this](const RotatedFile& file) { return file.first > mFirst; });
            if (next == files.end()) return take(std::move(current), RotatedFile{kCurrentFile}, line);
            OpenedFile opened = mFolder.open(next->name);
            if (opened.isAbsent) continue;  // packed or dropped in this moment
            mFirst = next->first;
            return take(std::move(opened), *next, line);
        }
    }

    bool take(OpenedFile opened, const RotatedFile& file, Line& line) {
        if (!opened.file) {
            const bool isNews = !opened.problem.empty() && (file.first != 0 || opened.problem != mCurrentProblem);
            if (file.first == 0) mCurrentProblem = opened.problem;
            if (isNews) setProblem(line, file.name, opened.problem);
            return false;
        }
        mSource = sourceOf(std::move(opened), file.name, file.first, file.isPacked);
        mNumber = 0;
        mIsCounting = true;
        mLastFile = file.name;
        return true;
    }

    bool takeLine(Line& line) {
        const std::size_t end = mBytes.find('\n', std::max(mAt, mScanned));
        mScanned = mBytes.size();
        if (end == std::string::npos) {
            if (mBytes.size() - mAt > kLineBytesMax) mIsTooLong = true;
            if (mIsTooLong) mAt = mBytes.size();
            return false;
        }
        mNumber += mIsCounting ? 1 : 0;
        const std::string_view text = std::string_view(mBytes).substr(mAt, end - mAt);
        mIsTooLong ? setProblem(line, mSource->name, kTooLong, mNumber) : setText(line, mSource->name, text, mNumber);
        if (line.problem.empty()) mLastSeq = line.entry.seq;
        mIsTooLong = false;
        mAt = mScanned = end + 1;
        return true;
    }

    bool readBlock() {
        std::string block = mSource->blocks->next();
        if (block.empty()) return false;
        const std::size_t skipped = std::min(mSkip, block.size());
        mSkip -= skipped;
        mBytes.erase(0, mAt);
        mScanned = mBytes.size();
        mAt = 0;
        mBytes.append(block, skipped);
        return true;
    }

    // At the end of the current file: for more to come.
    bool stay() {
        struct stat status {};
        if (::fstat(mSource->file.get(), &status) != 0) return false;
        const auto size = static_cast<std::uint64_t>(status.st_size);
        if (size < mSource->blocks->place()) {  // a service that starts cuts off what was not written whole
            mSource->blocks->setPlace(size);
            dropBytes();
        }
        return false;
    }

    // Whether the line tells that the last one is cut.
    bool finish(Line& line) {
        const bool isCut = isLastLineCut();
        if (isCut) setProblem(line, mSource->name, kCut, mIsCounting ? mNumber + 1 : 0);
        close();
        return isCut;
    }

    bool giveUp(Line& line) {
        setProblem(line, mSource->name, mSource->blocks->problem(), mIsCounting ? mNumber + 1 : 0);
        if (!mSource->isCurrent())
            close();
        else
            mIsGivenUp = true;
        return true;
    }
    // Whether what can't be read is no longer the current file.
    bool leave() {
        if (mFolder.isStillCurrent(*mSource)) return false;
        close();
        return true;
    }

    void close() {
        if (mSource->isCurrent()) mFirst = std::max(mFirst, mLastSeq);
        mSource.reset();
        mIsLeft = mIsGivenUp = false;
        mSkip = 0;
        dropBytes();
    }
    void dropBytes() {
        mBytes.clear();
        mAt = mScanned = 0;
        mIsTooLong = false;
    }

    Folder mFolder;
    std::unique_ptr<Source> mSource;
    std::string mBytes;        // of blocks that were read
    std::size_t mAt = 0;       // where the next line begins in them
    std::size_t mScanned = 0;  // up to where no newline is
    std::size_t mSkip = 0;     // bytes of the next blocks that are not wanted
    bool mIsTooLong = false;   // in a line that is
    bool mIsLeft = false;      // the file was seen to be the current one no more
    bool mIsGivenUp = false;   // the current file, that can't be read
    bool mIsCounting = true;
    std::uint64_t mNumber = 0;
    std::uint64_t mFirst = 0;  // all files up to that were read
    std::uint64_t mLastSeq = 0;
    std::string mLastFile;
    std::string mCurrentProblem;  // of the current file; told
};

// From the newest back.
class Reader::Backward {
public:
    explicit Backward(const std::string& folder) : mFolder(folder) {}

    bool next(Line& line) {
        if (!mHasBegun && !begin(line) && !line.problem.empty()) return true;
        while (true) {
            if (mIsAtBeginning) close();
            if (!mSource && !advance(line)) return !line.problem.empty();
            const Found found = takeLine(line);
            if (found == Found::Line) return true;
            if (found == Found::Nothing && !readBlock() && finish(line)) return true;
        }
    }

    // Hands over the file, at the place of its block that is being read, and how far behind that the line that was read
    // last ends.
    std::unique_ptr<Source> release(std::size_t& lineEnd) {
        lineEnd = mLineEnd;
        return std::move(mSource);
    }

    bool isLastLineCut() const { return mIsLastLineCut; }
    const std::string& lastFile() const { return mLastFile; }

private:
    enum class Found { Nothing, Tail, Line };

    // Opens the current file. Files that are made of it while it is read are not to be read again.
    bool begin(Line& line) {
        mHasBegun = true;
        line.problem.clear();
        OpenedFile current = mFolder.openCurrent();
        const std::vector<RotatedFile> files = mFolder.rotated();
        if (!files.empty()) {
            const OpenedFile newest = mFolder.open(files.back().name);
            const bool isCurrent = current.file && newest.file && isSame(newest.status, current.status);
            mFirst = files.back().first + (isCurrent ? 0 : 1);
        }
        return take(std::move(current), RotatedFile{kCurrentFile}, line);
    }

    bool advance(Line& line) {
        line.problem.clear();
        while (true) {
            const std::vector<RotatedFile> files = mFolder.rotated();
            const auto next = std::find_if(files.rbegin(), files.rend(),
                                           [this](const RotatedFile& file) { return file.first < mFirst; });
            if (next == files.rend()) return false;
            OpenedFile opened = mFolder.open(next->name);
            if (opened.isAbsent) continue;
            mFirst = next->first;
            return take(std::move(opened), *next, line);
        }
    }

    bool take(OpenedFile opened, const RotatedFile& file, Line& line) {
        if (!opened.problem.empty()) setProblem(line, file.name, opened.problem);
        if (!opened.file) return false;
        const auto size = static_cast<std::uint64_t>(opened.status.st_size);
        mSource = sourceOf(std::move(opened), file.name, file.first, file.isPacked);
        mSource->blocks->setPlace(size);
        mIsTail = true;
        mLastFile = file.name;
        return true;
    }

    // The last line in the bytes, if it begins in them. Nothing more is known of one that is too long than that it is.
    Found takeLine(Line& line) {
        const std::size_t end = endOfLine();
        const std::size_t newline = end == 0 ? std::string::npos : mBytes.rfind('\n', end - 1);
        if (newline == std::string::npos) {
            if (end > kLineBytesMax) mIsTooLong = true;
            if (mIsTooLong) mBytes.clear();
            return Found::Nothing;
        }
        return takeFrom(newline + 1, end, line);
    }

    // Where the text of the next line ends: before its newline, if that is there.
    std::size_t endOfLine() const { return mBytes.size() - (mIsTail || mIsTooLong || mBytes.empty() ? 0 : 1); }

    Found takeFrom(std::size_t begin, std::size_t end, Line& line) {
        const bool isTail = std::exchange(mIsTail, false);
        const bool isEmpty = begin == end && !mIsTooLong;
        const bool isTooLong = std::exchange(mIsTooLong, false);
        if (isTail && (isEmpty || mSource->isCurrent())) {
            mIsLastLineCut = mIsLastLineCut || !isEmpty;
            mBytes.resize(begin);
            return Found::Tail;
        }
        mLineEnd = mBytes.size();
        if (isTail || isTooLong)
            setProblem(line, mSource->name, isTail ? kCut : kTooLong);
        else
            setText(line, mSource->name, std::string_view(mBytes).substr(begin, end - begin));
        mBytes.resize(begin);
        return Found::Line;
    }

    bool readBlock() {
        std::string block = mSource->blocks->previous();
        if (block.empty()) return false;
        mBytes.insert(0, block);
        return true;
    }

    // At the beginning of a file, or where it can't be read. Whether there is something to tell.
    bool finish(Line& line) {
        const std::string problem = mSource->blocks->problem();
        bool isTold = !problem.empty();
        if (isTold)
            setProblem(line, mSource->name, problem);
        else if (!mBytes.empty() || mIsTooLong)
            isTold = takeFrom(0, endOfLine(), line) == Found::Line;
        mIsAtBeginning = true;
        return isTold;
    }

    void close() {
        mSource.reset();
        mBytes.clear();
        mIsTooLong = mIsAtBeginning = false;
    }

    Folder mFolder;
    std::unique_ptr<Source> mSource;
    std::string mBytes;  // from the beginning of a block on, up to the end of the next line
    bool mHasBegun = false;
    bool mIsTail = false;         // what stands behind the last newline was not looked at yet
    bool mIsTooLong = false;      // in a line that is
    bool mIsAtBeginning = false;  // of the file, or of what can be read of it
    bool mIsLastLineCut = false;
    std::size_t mLineEnd = 0;  // of the line that was read last, in the bytes as they were
    std::uint64_t mFirst = 0;  // all files from that on were read
    std::string mLastFile;
};

Since sinceAgo(std::int64_t microseconds) {
    Moment at = currentMoment();
    at.utc -= microseconds;
    at.mono -= microseconds;
    return {std::move(at)};
}

Since sinceUtc(std::int64_t microseconds) {
    return sinceAgo(currentMoment().utc - microseconds);
}

Reader::Reader(std::string folder, Order order, std::optional<Since> since) : mSince(std::move(since)) {
    if (order == Order::NewestFirst || mSince) mBackward = std::make_unique<Backward>(folder);
    if (order == Order::NewestFirst) return;
    mForward = std::make_unique<Forward>(folder);
    if (!mSince) return;
    Line line;
    while (mBackward->next(line)) {
        if (!line.problem.empty() || !mSince->isAfter(line.entry)) continue;
        std::size_t end = 0;
        std::unique_ptr<Source> source = mBackward->release(end);
        if (source) mForward->startAt(std::move(source), end);
        break;
    }
    mBackward.reset();
}

Reader::~Reader() = default;

bool Reader::next(Line& line) {
    if (mIsOver) return false;
    if (mForward) return mForward->next(line);
    if (!mBackward->next(line)) return false;
    mIsOver = mSince && line.problem.empty() && mSince->isAfter(line.entry);
    return !mIsOver;
}

bool Reader::isLastLineCut() const {
    return mForward ? mForward->isLastLineCut() : mBackward->isLastLineCut();
}

std::string Reader::lastFile() const {
    return mForward ? mForward->lastFile() : mBackward->lastFile();
}

std::uint64_t Reader::lastNumber() const {
    return mForward ? mForward->lastNumber() : 0;
}

}  // namespace sd::trail
