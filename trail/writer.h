// Writes the trail of a data folder. Nothing that goes wrong with it stops its caller: what can't be written waits in
// memory up to a bound, beyond it is counted, and the trail itself tells of that once it can be written.
//
// A change and its entry become durable in one step: the commit that makes the change carries the lines, in a row of
// its own database.
//     const Carried carried = writer.prepare({entry});
//     ... in the transaction: write carried.text into the slot carried.slot, unless it is "" ...
//     committed ? writer.confirm() : writer.drop();
// The lines are in the file right after confirm(), and on the disk within 50 ms, by a thread of the writer. A start
// hands over what stands in all slots, and what the file lacks is put back from them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "trail/chain.h"
#include "trail/entry.h"

namespace sd::trail {

// Slots are taken in turn, over all databases: none is taken again before what it holds is on the disk in the file.
inline constexpr int kSlots = 64;
inline constexpr std::size_t kSlotBytesMax = std::size_t{4} << 20;
// How much waits while the trail can't be written.
inline constexpr std::size_t kWaitingBytesMax = std::size_t{4} << 20;

struct WriterOptions {
    std::string folder;                               // the data folder
    std::uint64_t bytesMax = std::uint64_t{8} << 20;  // of the current file, before another begins; about
    int keep = 4;                                     // files besides the current one; at least 1
    // Both are called by whoever calls the writer and by its own thread, one at a time. They must neither wait nor call
    // the writer.
    Digest digest;
    std::function<std::string()> sealingKey;  // the id of the key that entries may go on under; "": there is none now
};

// What a start found.
struct Opening {
    bool isNew = false;                // there was no trail
    bool wasEnded = false;             // its last entry is an END
    std::uint64_t putBack = 0;         // lines that came from slots
    std::vector<std::string> damages;  // each is told by an entry DAMAGE, too
};

struct Carried {
    std::uint64_t seq = 0;  // of the first of the entries; for `cause` of others
    int slot = 0;           // from 0 to kSlots - 1
    std::string text;       // what the slot is to hold: whole lines; "": nothing, and the slot stays as it is
};

struct WriterStatus {
    Head head;                   // the last line in the file
    std::uint64_t onDisk = 0;    // seq up to which it is safe from a power cut
    std::string key;             // the id of the key that the last entry is under; "": there was none yet
    std::uint64_t waiting = 0;   // entries in memory
    std::uint64_t lost = 0;      // entries that found no room there; a GAP will tell of them
    std::int64_t lostSince = 0;  // when the first of them came, as utc
    std::string why;             // why entries wait: "the key ring is locked or absent"; "" where they don't
};

// Any thread, one call at a time waits for the others; from prepare() to its end is one thread's. In a forked child all
// do nothing.
class Writer {
public:
    // Opens nothing yet.
    explicit Writer(WriterOptions options);
    // Writes what it can, and syncs it.
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    // Opens the trail or begins one, by its last line alone, whatever its length. What stands behind the last sound
    // line is kept aside (trail.torn) and cut away. slots: the texts of all slots of all databases, in any order; lines
    // that the file lacks are put back and synced, so that all slots are free then. Call it once, before all others.
    // Throws LibraryFailure (base/shared_library.h) where there is no libcrypto; nothing else throws.
    Opening open(const std::vector<std::string>& slots);

    // Makes the lines of the entries of one commit, and sets what of an entry is 0 or "" and the writer's: seq, the
    // times, ring, before and mac; and, where they are several, `cause` to the first. Entries that come meanwhile wait.
    // More than kSlotBytesMax of lines become one entry, the first without its key and digests, with their count;
    // `came` only where it is the same for all.
    Carried prepare(std::vector<Entry> entries);
    void confirm();  // the commit was made: the lines go into the file
    void drop();     // it was not: they are forgotten, and their numbers given to others

    // Writes an entry that no commit carries; returns its seq, 0 where there was no room for it.
    std::uint64_t append(Entry entry);
    // Writes what waits, as far as it can: for when the ring was opened.
    void flush();
    // Waits until all is on the disk; false where something still waits.
    bool sync();

    // The key for digests of values, the same for as long as it is at hand, so that they can be compared; "" as long as
    // there is none. It may be locked now, or gone.
    std::string key();
    // The same, for when no digest could be made under key(): where there is a sealing key nevertheless, the trail goes
    // on under that one from now on, and an entry TRAIL_KEY says so.
    std::string renewedKey();

    WriterStatus status() const;

private:
    class State;
    std::unique_ptr<State> mState;
};

}  // namespace sd::trail
