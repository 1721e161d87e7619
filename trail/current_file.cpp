#include "trail/current_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <utility>

#include "base/synced_folder.h"
#include "trail/blocks.h"
#include "trail/files.h"

namespace sd::trail {

namespace {

// How far from the end the last sound line is looked for. No crash leaves more behind it than was written in a moment.
constexpr std::uint64_t kTailBytesMax = std::uint64_t{16} << 20;
// No entry is shorter than its time and its digests: millions of such lines are passed over in no time.
constexpr std::size_t kLineBytesMin = 128;

// What was kept aside before, which may be a whole trail, makes room for more only when it is larger than that.
constexpr off_t kTornBytesMax = off_t{64} << 20;

struct LastLine {
    Head head;
    Entry entry;
    std::uint64_t end = 0;  // where it ends in the file, with its newline
};

// Goes back from the end of a file to its last line that is an entry, and is not known to be changed.
class TailSearch {
public:
    TailSearch(int file, std::uint64_t size, const Digest& digest)
        : mBlocks(plainBlocks(file)), mLowest(size - std::min(size, kTailBytesMax)), mDigest(digest) {
        mBlocks->setPlace(size);
    }

    std::optional<LastLine> run() {
        while (true) {
            std::size_t newline = mBytes.rfind('\n');
            if (newline == std::string::npos) {
                if (mBytes.size() > kLineBytesMax) mBytes.clear();  // no line that is sound
                if (!readBlock()) return std::nullopt;
                continue;
            }
            mBytes.resize(newline);
            if (std::optional<LastLine> found = lineBefore()) return found;
            if (mBytes.empty() && mBlocks->place() <= mLowest) return std::nullopt;
        }
    }

private:
    bool readBlock() {
        if (mBlocks->place() <= mLowest) return false;
        std::string block = mBlocks->previous();
        mBytes.insert(0, block);
        return !block.empty();
    }

    // The bytes end before a newline.
    std::optional<LastLine> lineBefore() {
        std::size_t begin = mBytes.rfind('\n');
        while (begin == std::string::npos && mBytes.size() <= kLineBytesMax && readBlock()) begin = mBytes.rfind('\n');
        begin = begin == std::string::npos ? 0 : begin + 1;
        const std::string_view text = std::string_view(mBytes).substr(begin);
        LastLine found;
        std::string problem;
        if (text.size() >= kLineBytesMin && parseLine(text, found.entry, problem) &&
            isAttested(text, found.entry, mDigest) != false) {
            found.head = {found.entry.seq, lineDigest(text)};
            found.end = mBlocks->place() + mBytes.size() + 1;
            return found;
        }
        mBytes.resize(begin);
        return std::nullopt;
    }

    const std::unique_ptr<Blocks> mBlocks;
    const std::uint64_t mLowest;
    const Digest& mDigest;
    std::string mBytes;  // from the place of the blocks on
};

// Where a power cut left a hole among so many bytes before that end, if it did. What was written later may be there
// without what was written before it, as long as neither was synced: that reads as zeros, which no line has. All before
// the line of the last start was synced then, and zeros in it are no power cut's.
std::optional<std::uint64_t> holeBefore(std::uint64_t end, int file, std::uint64_t unsynced) {
    const std::uint64_t from = end - std::min(end, unsynced);
    const std::unique_ptr<Blocks> blocks = plainBlocks(file);
    blocks->setPlace(from);
    std::string bytes;
    for (std::string block; bytes.size() < end - from && !(block = blocks->next()).empty();) bytes += block;
    bytes.resize(std::min<std::size_t>(bytes.size(), end - from));
    const std::size_t start = bytes.rfind(R"("what":"START")");  // a text within an entry has its marks escaped
    const std::size_t line = start == std::string::npos ? 0 : bytes.rfind('\n', start) + 1;
    const std::size_t hole = bytes.find('\0', line);
    return hole == std::string::npos ? std::nullopt : std::optional(from + hole);
}

std::string bytesText(std::uint64_t bytes) {
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
}

}  // namespace

CurrentFile::Found CurrentFile::open(const Digest& digest, std::uint64_t unsynced) {
    Found found;
    close();
    OpenedFile opened = openFile(mFolder.get(), kCurrentFile, O_RDWR | O_APPEND);
    if (!opened.file && !opened.isAbsent && !opened.isDistrusted) {
        found.problem = std::string(kCurrentFile) + " " + opened.problem;
        return found;
    }
    if (opened.isDistrusted) {
        found.damage = std::string(kCurrentFile) + " " + opened.problem + setAside();
        opened.isAbsent = true;
    }
    if (opened.file) {
        adopt(std::move(opened.file), opened.status);
        std::optional<LastLine> last = TailSearch(mFile->get(), mSize, digest).run();
        std::optional<std::uint64_t> hole;
        if (last && last->entry.what != "END")  // all before an end was synced
            hole = holeBefore(last->end, mFile->get(), unsynced);
        if (hole) last = TailSearch(mFile->get(), *hole, digest).run();
        if (last && last->end < mSize) found.damage = keepTail(last->end, hole.has_value());
        if (last) {
            found.head = last->head;
            found.last = last->entry;
        } else if (mSize > 0) {
            found.damage = std::string(kCurrentFile) + " has no sound line at its end" + setAside();
            close();
            opened.isAbsent = true;
        }
    }
    if (!opened.isAbsent) return found;
    found.isNew = found.damage.empty();
    opened = openFile(mFolder.get(), kCurrentFile, O_RDWR | O_APPEND | O_CREAT | O_EXCL);
    if (opened.file) {
        adopt(std::move(opened.file), opened.status);
        (void)syncFolder(mFolder.get());  // its name, and that of what was set aside
    } else {
        found.problem = std::string(kCurrentFile) + " " + (opened.isAbsent ? "has no folder" : opened.problem);
    }
    return found;
}

void CurrentFile::adopt(UniqueFd file, const struct stat& status) {
    mFile = std::make_shared<UniqueFd>(std::move(file));
    mDevice = status.st_dev;
    mInode = status.st_ino;
    mSize = static_cast<std::uint64_t>(status.st_size);
}

void CurrentFile::close() {
    mFile.reset();
    mSize = 0;
}

bool CurrentFile::isOurs() const {
    struct stat named {};
    return mFile && ::fstatat(mFolder.get(), kCurrentFile, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
           named.st_ino == mInode && named.st_dev == mDevice && static_cast<std::uint64_t>(named.st_size) == mSize;
}

std::string CurrentFile::append(std::string_view lines, std::size_t& appended) {
    std::size_t done = 0;
    while (done < lines.size()) {  // once, but for a disk that is about to be full
        const ssize_t written = ::write(mFile->get(), lines.data() + done, lines.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) break;
        done += static_cast<std::size_t>(written);
    }
    std::string problem = done < lines.size() ? reasonOf("trail.jsonl can't be written", errno) : "";
    appended = done == 0 ? 0 : lines.rfind('\n', done - 1) + 1;
    mSize += appended;
    // A part of a line is cut away now, or by the next opening.
    if (done > appended && ::ftruncate(mFile->get(), static_cast<off_t>(mSize)) != 0) close();
    return problem;
}

std::string CurrentFile::rotate(std::uint64_t lastSeq, std::string& name) {
    const std::uint64_t first = firstSeq();
    name = rotatedName(first != 0 ? first : lastSeq);
    if (::renameat(mFolder.get(), kCurrentFile, mFolder.get(), name.c_str()) != 0)
        return reasonOf("trail.jsonl can't be renamed", errno);
    close();
    return "";
}

// Keeps what stands from there on in the file aside, and cuts it away.
std::string CurrentFile::keepTail(std::uint64_t from, bool isHollow) {
    const std::unique_ptr<Blocks> blocks = plainBlocks(mFile->get());
    blocks->setPlace(from);
    const OpenedFile kept = openFile(mFolder.get(), kTornFile, O_WRONLY | O_CREAT | O_APPEND);
    bool isKept = kept.file && (kept.status.st_size <= kTornBytesMax || ::ftruncate(kept.file.get(), 0) == 0);
    for (std::string block = blocks->next(); isKept && !block.empty(); block = blocks->next())
        isKept = ::write(kept.file.get(), block.data(), block.size()) == static_cast<ssize_t>(block.size());
    isKept = isKept && ::fsync(kept.file.get()) == 0 && syncFolder(mFolder.get());
    std::string told = bytesText(mSize - from) + (isHollow ? " from a hole in " : " behind the last line of ") +
                       kCurrentFile + (isHollow ? " on" : " that is sound") +
                       (isKept ? std::string(" are in ") + kTornFile : " could not be kept aside");
    if (::ftruncate(mFile->get(), static_cast<off_t>(from)) == 0) mSize = from;
    return told;
}

std::string CurrentFile::setAside() {
    if (::renameat(mFolder.get(), kCurrentFile, mFolder.get(), kTornFile) == 0)
        return std::string("; it is ") + kTornFile + " now";
    return reasonOf("; it can't be renamed", errno);
}

// 0 where its first line is none.
std::uint64_t CurrentFile::firstSeq() const {
    const std::unique_ptr<Blocks> blocks = plainBlocks(mFile->get());
    std::string bytes;
    std::size_t end = std::string::npos;
    while ((end = bytes.find('\n')) == std::string::npos && bytes.size() <= kLineBytesMax) {
        const std::string block = blocks->next();
        if (block.empty()) return 0;
        bytes += block;
    }
    Entry entry;
    std::string problem;
    return parseLine(std::string_view(bytes).substr(0, end), entry, problem) ? entry.seq : 0;
}

}  // namespace sd::trail
