#include "trail/writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <iterator>
#include <list>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "base/quiet_thread.h"
#include "base/shared_library.h"
#include "trail/current_file.h"
#include "trail/files.h"
#include "trail/packer.h"
#include "trail/reader.h"
#include "trail/slots.h"

namespace sd::trail {

namespace {

constexpr std::chrono::milliseconds kSyncDelay{40};     // so that a burst of entries is synced once
constexpr std::chrono::milliseconds kRetryDelay{1000};  // what could not be written, or synced
constexpr std::size_t kUncarriedBytesMax = std::size_t{256} << 10;
constexpr char kNoKey[] = "the key ring is absent or locked";

// About what an entry takes in memory.
std::size_t sizeOf(const Entry& entry) {
    return sizeof entry + 512 + (entry.key ? entry.key->size() : 0) + entry.why.size() + entry.source.size();
}

}  // namespace

class Writer::State {
public:
    explicit State(WriterOptions options)
        : mOptions(std::move(options)), mFolder(openFolder(mOptions.folder)), mFile(mFolder), mPacker(mFolder) {}

    ~State() {
        {
            const std::lock_guard lock(mMutex);
            mIsEnding = true;
        }
        mWake.notify_one();
        if (mThread.joinable()) mThread.join();
        const std::lock_guard lock(mMutex);
        try {
            (void)syncAll();
        } catch (const std::exception&) {  // memory ran out: what waits is lost, as with a kill
        }
    }

    bool isForked() const { return ::getpid() != mProcess; }
    std::unique_lock<std::mutex> lock() const { return std::unique_lock(mMutex); }

    Opening open(const std::vector<std::string>& slots) {
        Opening opening;
        (void)lineDigest("");  // libcrypto is there from now on
        mSlots = slots;
        begin(opening);
        for (const Entry& damage : mDamages) opening.damages.push_back(damage.why);
        (void)syncAll();
        mPacker.look();
        start();
        return opening;
    }

    Carried prepare(std::vector<Entry> entries) {
        settle();
        mPrepared = Prepared();
        mPrepared.before = mLast;
        mPrepared.isOut = true;
        Carried carried;
        if (!mayWrite() || (!compose(entries) && !(ensureKey() && compose(entries)))) {
            for (Entry& entry : entries) fill(entry);
            mPrepared.waiting.assign(std::move_iterator(entries.begin()), std::move_iterator(entries.end()));
            mLost.why.reserve(mWhy.size());
            return carried;
        }
        if (mSlotLast[mNextSlot] > mOnDisk || mUncarried.size() > kUncarriedBytesMax) (void)syncAll();
        carried.seq = mPrepared.before.seq + 1;
        carried.slot = static_cast<int>(mNextSlot);
        carried.text = mUncarried + mPrepared.lines;
        mUnwritten.reserve(mUnwritten.size() + mPrepared.lines.size());  // once the commit is made nothing may fail
        return carried;
    }

    void confirm() {
        if (!mPrepared.isOut) return;
        mPrepared.isOut = false;
        if (!mPrepared.lines.empty()) {
            mUnwritten += mPrepared.lines;
            mUnwrittenCount += mPrepared.count;
            dropUncarried();
            mSlotLast[mNextSlot] = mLast.seq;
            mNextSlot = (mNextSlot + 1) % mSlotLast.size();
            if (mSlotLast[(mNextSlot + kSlots / 2) % mSlotLast.size()] > mOnDisk) hurry();
        }
        waitForLines(mPrepared.waiting);
        settle();
    }

    void drop() {
        if (!mPrepared.isOut) return;
        mPrepared.isOut = false;
        mLast = std::move(mPrepared.before);
        settle();
    }

    std::uint64_t append(Entry entry) {
        fill(entry);
        // No power cut leaves an end behind a hole: all before it is on the disk by then.
        if (entry.what == "END" && (mPrepared.isOut || !syncAll())) return 0;
        if (!mPrepared.isOut) settle();
        if (!mPrepared.isOut && mayWrite() && seal(entry)) {
            settle();
            if (mUncarried.size() > kUncarriedBytesMax) (void)syncAll();
            return entry.seq;
        }
        std::list<Entry> one;
        one.push_back(std::move(entry));
        return wait(one);
    }

    // Writes what waits, in its order: lines, entries without a line, and what was found or lost.
    void settle() {
        if (mPrepared.isOut) return;
        if (Opening late; !mHasBegun && !begin(late)) return;
        if (!mPending.empty()) sealPending();
        if (!mUnwritten.empty()) write();
        if (mDamages.empty() && mLost.count == 0) return;
        if (!mUnwritten.empty() || !mPending.empty()) return;
        while (!mDamages.empty() && seal(mDamages.front())) mDamages.pop_front();
        if (mLost.count > 0 && mDamages.empty() && sealGap()) mLost = Lost();
        write();
    }

    bool syncAll() {
        settle();
        const std::shared_ptr<UniqueFd> file = mFile.handle();
        if (!file || ::fdatasync(file->get()) != 0) return false;
        mOnDisk = mWritten.seq;
        if (mUnwritten.empty()) dropUncarried();
        return mUnwritten.empty() && mPending.empty() && mDamages.empty() && mLost.count == 0;
    }

    const std::string& key() {
        if (mKey.empty()) (void)ensureKey();
        return mKey;
    }
    const std::string& renewKey() {
        if (mPrepared.isOut) return mKey;  // whose lines are under it
        (void)ensureKey();
        write();
        return mKey;
    }

    WriterStatus status() const {
        WriterStatus status;
        status.head = mWritten;
        status.onDisk = mOnDisk;
        status.key = mKey;
        status.waiting = mUnwrittenCount + mPending.size() + mDamages.size();
        status.lost = mLost.count;
        status.lostSince = mLost.from;
        if (status.waiting > 0 || status.lost > 0) status.why = mWhy;
        return status;
    }

private:
    // Lines of a commit that is being made. Its end takes no memory: else a line would be lost, or told twice.
    struct Prepared {
        bool isOut = false;
        Head before;
        std::string lines;
        std::uint64_t count = 0;
        std::list<Entry> waiting;  // where there could be no lines
    };
    struct Lost {
        std::uint64_t count = 0;
        std::int64_t from = 0, to = 0;
        std::string why;
    };

    // The number of the next entry, whether there will be a line for it now or later.
    std::uint64_t nextSeq() const { return (mPending.empty() ? mLast.seq : mPending.back().seq) + 1; }

    // Those of one commit.
    void waitForLines(std::list<Entry>& entries) {
        const std::uint64_t first = entries.size() > 1 ? nextSeq() : 0;
        while (!entries.empty()) {
            if (entries.front().cause == 0) entries.front().cause = first;
            (void)wait(entries);
        }
    }

    // Half of the slots wait for the disk.
    void hurry() {
        if (std::exchange(mIsHurried, true)) return;
        mWake.notify_one();
    }

    // The same may be found again at each try to open the file.
    void noteProblem(const CurrentFile::Found& found) {
        const bool isNews = !found.damage.empty() && (mDamages.empty() || mDamages.back().why != found.damage);
        if (isNews) mDamages.push_back(damageEntry(found.damage));
        if (!found.problem.empty()) mWhy = found.problem;
    }

    // Until the file can be opened nobody knows what the next entry follows; all wait.
    bool begin(Opening& opening) {
        if (!mFolder) mFolder = openFolder(mOptions.folder);
        CurrentFile::Found found = mFile.open(mOptions.digest, unsyncedMost());
        noteProblem(found);
        if (!mFile.isOpen()) return false;
        Slots slots(mSlots, mOptions.digest);
        opening.isNew = found.isNew;
        if (found.head.seq == 0) findLastRotated(found, opening);
        mLast = mWritten = found.head;
        mKey = found.last.ring;
        opening.wasEnded = found.last.what == "END" && found.damage.empty();
        mSlots.clear();
        putBack(slots, opening);
        mSlotLast.fill(mLast.seq);
        return mHasBegun = true;
    }

    // How many bytes at the file's end may have been written since the last sync: those of the slots, or what no commit
    // carried, and one entry more.
    std::uint64_t unsyncedMost() const {
        std::uint64_t bytes = kUncarriedBytesMax + kLineBytesMax;
        for (const std::string& slot : mSlots) bytes += slot.size();
        return bytes;
    }

    // After a rotation that was not finished, or the loss of the current file.
    void findLastRotated(CurrentFile::Found& found, Opening& opening) const {
        Reader reader(mOptions.folder, Order::NewestFirst);
        Line line;
        while (reader.next(line)) {
            opening.isNew = false;
            if (!line.problem.empty() || isAttested(line.text, line.entry, mOptions.digest) == false) continue;
            found.last = line.entry;
            found.head = {line.entry.seq, lineDigest(line.text)};
            return;
        }
    }

    void putBack(Slots& slots, Opening& opening) {
        SlotFindings findings = slots.compare(mLast, mOptions.folder);
        for (const SlotLine& line : findings.lacking) {
            mUnwritten += line.text + "\n";
            mLast = {line.entry.seq, line.digest};
            mKey = line.entry.ring;
            ++mUnwrittenCount;
            ++opening.putBack;
            opening.wasEnded = line.entry.what == "END";
            opening.isNew = false;
        }
        for (Entry& damage : findings.damages) mDamages.push_back(std::move(damage));
    }

    static void fill(Entry& entry) {
        if (entry.utc != 0) return;
        Moment now = currentMoment();
        entry.utc = now.utc;
        entry.mono = now.mono;
        entry.boot = std::move(now.boot);
    }

    bool mayWrite() const {
        return mHasBegun && mPending.empty() && mDamages.empty() && mLost.count == 0 &&
               mUnwritten.size() < kWaitingBytesMax;
    }

    // The next line of the chain, and where the chain ends with it; or "".
    std::string lineOf(Entry& entry, Head& end) {
        fill(entry);
        entry.seq = mLast.seq + 1;
        entry.ring = mKey;
        entry.before = mLast.digest;
        try {
            if (mKey.empty()) return "";
            std::string line = sealedLine(entry, mOptions.digest);
            if (line.empty()) return "";
            end = {entry.seq, lineDigest(line)};
            return line += '\n';
        } catch (const LibraryFailure& failure) {
            mWhy = failure.what();
            return "";
        }
    }

    bool seal(Entry& entry) {
        Head end;
        std::string line = lineOf(entry, end);
        if (line.empty() && ensureKey()) line = lineOf(entry, end);
        if (line.empty()) return false;
        mUncarried.reserve(mUncarried.size() + line.size());  // all of what follows, or nothing
        mUnwritten += line;
        mUncarried += line;
        mLast = std::move(end);
        ++mUnwrittenCount;
        return true;
    }

    bool isAtHand(const std::string& key) const { return !key.empty() && !mOptions.digest(key, {"trail key"}).empty(); }

    // Whether there is a key to go on under. Another one than before begins with an entry that says so.
    bool ensureKey() {
        if (isAtHand(mKey)) return true;
        const std::string next = mOptions.sealingKey ? mOptions.sealingKey() : "";
        if (next == mKey || !isAtHand(next)) {
            mWhy = kNoKey;
            return false;
        }
        const std::string before = std::exchange(mKey, next);
        if (before.empty()) return true;
        Entry entry;
        entry.source = "trail";
        entry.what = "TRAIL_KEY";
        entry.why =
            "the key " + before + " is at hand no more; digests of values up to here can't be compared with later ones";
        return seal(entry);
    }

    // Makes the lines of a commit; none where there can't be any now.
    bool compose(std::vector<Entry>& entries) {
        mPrepared.before = mLast;
        for (Entry& entry : entries) {
            if (entries.size() > 1 && entry.cause == 0) entry.cause = mPrepared.before.seq + 1;
            const std::string line = lineOf(entry, mLast);
            mPrepared.lines += line;
            ++mPrepared.count;
            if (!line.empty() && mPrepared.lines.size() <= kSlotBytesMax) continue;
            mLast = mPrepared.before;
            mPrepared.lines.clear();
            mPrepared.count = 0;
            return !line.empty() && entries.size() > 1 && composeCount(entries);
        }
        return !entries.empty();
    }

    // One line for more than a slot takes.
    bool composeCount(std::vector<Entry>& entries) {
        const std::string came = entries.front().came;
        const bool isAlike =
            std::all_of(entries.begin(), entries.end(), [&](const Entry& one) { return one.came == came; });
        Entry all = std::move(entries.front());
        if (!isAlike) all.came.clear();
        all.key.reset();
        all.oldDigest.clear();
        all.newDigest.clear();
        all.cause = 0;
        all.count = entries.size();
        entries = {std::move(all)};
        return compose(entries);
    }

    bool sealGap() {
        Entry entry;
        entry.source = "trail";
        entry.what = "GAP";
        entry.count = mLost.count;
        entry.from = mLost.from;
        entry.to = mLost.to;
        entry.why = mLost.why;
        return seal(entry);
    }

    // Numbers that were given before may have to give way to an entry of our own.
    void sealPending() {
        if (mUnwritten.size() >= kWaitingBytesMax || !ensureKey()) return;
        const std::uint64_t first = mPending.front().seq;
        const std::uint64_t shift = mLast.seq + 1 - first;
        while (!mPending.empty()) {
            Entry& entry = mPending.front();
            if (entry.cause >= first) entry.cause += shift;
            if (!seal(entry)) return;
            mPendingBytes -= sizeOf(entry);
            mPending.pop_front();
        }
    }

    // The first of them, which goes over to those that wait.
    std::uint64_t wait(std::list<Entry>& entries) {
        Entry& entry = entries.front();
        const std::size_t size = sizeOf(entry);
        if (mLost.count > 0 || mPendingBytes + mUnwritten.size() + size > kWaitingBytesMax) {
            lose(entry);
            entries.pop_front();
            return 0;
        }
        entry.seq = nextSeq();
        mPendingBytes += size;
        mPending.splice(mPending.end(), entries, entries.begin());
        return entry.seq;
    }

    void lose(const Entry& entry) {
        if (mLost.count++ == 0) mLost.from = entry.utc;
        mLost.to = entry.utc;
        mLost.why = mWhy;
    }

    // What came of it shows in mUnwritten.
    void write() {
        if (mUnwritten.empty()) return;
        if (!mFile.isOurs() && !reopen()) return;
        std::size_t appended = 0;
        if (std::string problem = mFile.append(mUnwritten, appended); !problem.empty()) {
            mWhy = std::move(problem);
            mWake.notify_one();
        }
        if (appended > 0) noteWritten(appended);
    }

    static Head endOf(std::string_view lines) {
        lines.remove_suffix(1);
        const std::string_view last = lines.substr(lines.rfind('\n') + 1);
        Entry entry;
        std::string problem;
        (void)parseLine(last, entry, problem);
        return {entry.seq, lineDigest(last)};
    }

    // So many bytes of the lines are in the file now.
    void noteWritten(std::size_t bytes) {
        const std::string_view lines = std::string_view(mUnwritten).substr(0, bytes);
        if (bytes == mUnwritten.size()) {
            mWritten = mLast;
            mUnwrittenCount = 0;
        } else {
            mWritten = endOf(lines);
            mUnwrittenCount -= static_cast<std::uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
        }
        mUnwritten.erase(0, bytes);
        if (!mNeedsSync && !mIsEnding) {
            mNeedsSync = true;
            mWake.notify_one();
        }
    }

    bool reopen() {
        const CurrentFile::Found found = mFile.open(mOptions.digest, 0);  // no power cut was beneath this process
        noteProblem(found);
        if (!mFile.isOpen()) return false;
        // After a rotation an empty one may be there already, where memory ran out behind its making.
        const bool isExpected =
            std::exchange(mIsRotated, false) ? found.head.seq == 0 && found.damage.empty() : found.head == mWritten;
        if (isExpected) return true;
        const std::string left = ", and was left with entry " + std::to_string(mWritten.seq);
        mDamages.push_back(damageEntry(found.isNew
                                           ? "trail.jsonl was taken away" + left
                                           : "trail.jsonl ended with entry " + std::to_string(found.head.seq) + left));
        return true;
    }

    void dropUncarried() {
        mUncarried.clear();
        ++mUncarriedDrops;
    }

    void start() {
        try {
            mThread = startQuietThread("sd-trail", [this] { run(); });
        } catch (const std::system_error&) {  // then only sync() and the slots' turn sync
        }
    }

    // Whether something waits that could be written now, though it could not be before.
    bool isStuck() const { return !mHasBegun || !mUnwritten.empty() || !mDamages.empty() || mLost.count > 0; }

    void run() {
        std::unique_lock lock(mMutex);
        while (!mIsEnding) {
            try {
                work(lock);
            } catch (const std::exception&) {  // memory ran out: it is tried again, and nobody's process ends for it
                if (!lock.owns_lock()) lock.lock();
                mWake.wait_for(lock, kRetryDelay, [this] { return mIsEnding; });
                mNeedsSync = true;
            }
        }
    }

    void work(std::unique_lock<std::mutex>& lock) {
        if (mNeedsSync) {
            mWake.wait_for(lock, kSyncDelay, [this] { return mIsEnding || mIsHurried; });
            if (mIsEnding) return;
            syncBeside(lock);
            if (mFile.size() >= mOptions.bytesMax) rotate();
        }
        if (mIsPacking && mHasBegun)
            packBeside(lock);
        else
            waitForWork(lock);
    }

    void waitForWork(std::unique_lock<std::mutex>& lock) {
        const auto hasWork = [this] { return mIsEnding || mNeedsSync; };
        mWake.wait(lock, [&] { return hasWork() || isStuck(); });
        if (isStuck() && !mWake.wait_for(lock, kRetryDelay, hasWork)) settle();
    }

    // A block, so that the next sync does not wait long.
    void packBeside(std::unique_lock<std::mutex>& lock) {
        lock.unlock();
        const bool isMore = mPacker.step();
        lock.lock();
        mIsPacking = isMore;
    }

    // Others go on writing meanwhile.
    void syncBeside(std::unique_lock<std::mutex>& lock) {
        mNeedsSync = mIsHurried = false;
        const std::shared_ptr<UniqueFd> file = mFile.handle();
        const std::uint64_t seq = mWritten.seq, drops = mUncarriedDrops;
        const std::size_t uncarried = mUnwritten.empty() ? mUncarried.size() : 0;
        if (!file) return;
        lock.unlock();
        const bool isOnDisk = ::fdatasync(file->get()) == 0;
        lock.lock();
        if (!isOnDisk) return;
        mOnDisk = std::max(mOnDisk, seq);
        if (drops == mUncarriedDrops) mUncarried.erase(0, uncarried);
    }

    // Only with all lines in the file and on the disk, so that what slots put back belongs to the current one.
    void rotate() {
        if (mPrepared.isOut || !mayWrite() || !syncAll() || !mFile.isOurs()) return;
        Entry entry;
        entry.source = "trail";
        entry.what = "ROTATE";
        entry.last = mWritten.seq;
        if (!isAtHand(mKey)) return;
        if (std::string problem = mFile.rotate(mWritten.seq, entry.file); !problem.empty()) {
            mWhy = std::move(problem);
            return;
        }
        mIsRotated = true;
        entry.oldest = oldestKept(mFolder.get(), entry.file, mOptions.keep);
        const std::uint64_t oldest = entry.oldest;
        if (!seal(entry)) return;
        write();
        if (!syncAll()) return;
        dropBefore(mFolder.get(), oldest);
        mPacker.look();
        mIsPacking = true;
    }

    const pid_t mProcess = ::getpid();
    const WriterOptions mOptions;
    mutable std::mutex mMutex;
    UniqueFd mFolder;  // another one only before it has begun
    CurrentFile mFile;
    Packer mPacker;

    std::vector<std::string> mSlots;  // until it has begun
    bool mHasBegun = false;
    bool mIsRotated = false;    // and the next file is not there yet
    Head mLast;                 // the last line that was made
    Head mWritten;              // the last line in the file
    std::uint64_t mOnDisk = 0;  // its lines up to that one are
    std::string mKey;
    std::string mUnwritten;  // lines that are to be appended
    std::uint64_t mUnwrittenCount = 0;
    std::list<Entry> mPending;  // that have no line yet
    std::size_t mPendingBytes = 0;
    std::deque<Entry> mDamages;  // to be told
    Lost mLost;
    std::string mWhy;  // what went wrong last

    Prepared mPrepared;
    std::string mUncarried;  // lines that neither a slot nor the disk has
    std::uint64_t mUncarriedDrops = 0;
    std::array<std::uint64_t, kSlots> mSlotLast{};
    std::size_t mNextSlot = 0;

    std::thread mThread;
    std::condition_variable mWake;
    bool mIsEnding = false;
    bool mNeedsSync = false;
    bool mIsHurried = false;
    bool mIsPacking = true;
};

Writer::Writer(WriterOptions options) : mState(std::make_unique<State>(std::move(options))) {}

Writer::~Writer() {
    if (mState->isForked()) (void)mState.release();  // its thread and its locks are the parent's
}

Opening Writer::open(const std::vector<std::string>& slots) {
    if (mState->isForked()) return {};
    const auto lock = mState->lock();
    return mState->open(slots);
}

Carried Writer::prepare(std::vector<Entry> entries) {
    if (mState->isForked()) return {};
    const auto lock = mState->lock();
    try {
        return mState->prepare(std::move(entries));
    } catch (...) {  // memory ran out
        mState->drop();
        throw;
    }
}

void Writer::confirm() {
    if (mState->isForked()) return;
    const auto lock = mState->lock();
    mState->confirm();
}

void Writer::drop() {
    if (mState->isForked()) return;
    const auto lock = mState->lock();
    mState->drop();
}

std::uint64_t Writer::append(Entry entry) {
    if (mState->isForked()) return 0;
    const auto lock = mState->lock();
    return mState->append(std::move(entry));
}

void Writer::flush() {
    if (mState->isForked()) return;
    const auto lock = mState->lock();
    mState->settle();
}

bool Writer::sync() {
    if (mState->isForked()) return false;
    const auto lock = mState->lock();
    return mState->syncAll();
}

std::string Writer::key() {
    if (mState->isForked()) return "";
    const auto lock = mState->lock();
    return mState->key();
}

std::string Writer::renewedKey() {
    if (mState->isForked()) return "";
    const auto lock = mState->lock();
    return mState->renewKey();
}

WriterStatus Writer::status() const {
    if (mState->isForked()) return {};
    const auto lock = mState->lock();
    return mState->status();
}

}  // namespace sd::trail
