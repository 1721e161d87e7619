// One line of the trail: who did what to which key, and what came of it. docs/trail.schema.json has its form: one JSON
// object, its fields in the order of Entry below without those that have nothing to tell, and with nothing that acts on
// a terminal. Bytes that are no UTF-8 stand in base64 under the field's name with "_base64" added. Values never stand
// in it, only digests of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/limits.h"

namespace sd::trail {

// A digest of the texts under a key of the ring, in hexadecimal digits; "" where that key is not at hand now. It must
// neither wait nor ask anybody: it is called for each line.
using Digest = std::function<std::string(const std::string& keyId, const std::vector<std::string_view>& texts)>;

// Texts of an entry besides the key are cut at this, so that every line stays below the second.
inline constexpr std::size_t kTextBytesMax = 4096;
inline constexpr std::size_t kLineBytesMax = std::size_t{512} << 10;

// A caller as the kernel names it, and what its process was when it was looked up. Told, not proven.
struct Peer {
    std::uint32_t uid = 0;
    std::int32_t pid = 0;
    // Nothing where they could not be read.
    std::optional<std::string> exe{};
    std::optional<std::string> unit{};  // or the control group
    std::optional<std::string> name{};
    bool isGone = false;  // it had ended, or its number belongs to a later process
};

struct Entry {
    std::uint64_t seq = 0;  // from 1, without holes
    std::int64_t utc = 0;   // microseconds since 1970
    std::int64_t mono = 0;  // microseconds since the machine started, with those asleep (CLOCK_BOOTTIME)
    std::string boot;       // which start of the machine: the first 8 digits of the kernel's boot_id

    // Who: a caller; or, where nobody called, the source ("start", "/etc/.../50.json:12"). Neither: a caller unknown.
    std::optional<Peer> by;
    std::string source;

    std::string what;                      // a method's name, or START, END, DAMAGE, REFUSED, GAP, ROTATE, ...
    std::optional<std::string> key;        // or URI; any bytes, at most kKeyBytesMax
    std::optional<std::int64_t> priority;  // a policy's
    std::string came;                      // "changed", "same", "failed", "governed", ...; "": nothing to tell
    std::string oldDigest, newDigest;      // of the effective value, in hexadecimal digits; "": there was none
    std::uint64_t cause = 0;               // the entry that this one belongs to; 0: none

    // What a GAP, a ROTATE, a DAMAGE and the like have to tell.
    std::optional<std::uint64_t> count;  // how many there were
    std::int64_t from = 0, to = 0;       // when; as utc; 0: not told
    std::string why;
    std::string file;          // a file's name
    std::uint64_t last = 0;    // ROTATE: the last entry in that file
    std::uint64_t oldest = 0;  // ROTATE: the oldest entry that is still kept
    std::string head;          // of another trail (chain.h)

    // The chain (chain.h).
    std::string ring;    // the key's id
    std::string before;  // SHA-256 of the line before
    std::string mac;     // under that key, over the line up to here
};

// A point in time on both clocks.
struct Moment {
    std::int64_t utc = 0, mono = 0;  // microseconds, as in Entry
    std::string boot{};
};
Moment currentMoment();

// The line up to what `mac` is over, without that, the "}" and the newline. Texts beyond their bounds are cut.
std::string composeLine(const Entry& entry);

// Reads a line without its newline. False where it is no entry: not JSON, longer than kLineBytesMax, a field of a wrong
// type or twice, one of seq, utc, what, before and mac missing; `problem` says what is wrong, never a value. Fields
// that it doesn't know are skipped: a later version may add some. Any bytes are safe.
bool parseLine(std::string_view line, Entry& entry, std::string& problem);

// "2026-11-25T23:57:03.123456Z", and back; nothing where the text has not that form.
std::string utcText(std::int64_t microseconds);
std::optional<std::int64_t> utcOf(std::string_view text);

}  // namespace sd::trail
