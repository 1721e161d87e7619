// What holds the lines together: each has the SHA-256 of the whole line before, and a digest under a key over itself.
// So a line whose key is at hand attests all before it, too, whatever became of their keys.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "trail/entry.h"

namespace sd::trail {

// The end of a trail: its last line, told apart from every other. Written down elsewhere it shows later whether the
// trail was cut.
struct Head {
    std::uint64_t seq = 0;  // 0: of a trail without lines
    std::string digest = std::string(64, '0');

    bool operator==(const Head& other) const { return seq == other.seq && digest == other.digest; }
    bool operator!=(const Head& other) const { return !(*this == other); }
};

// "trail-1-18-<64 digits>", and back; nothing where the text has not that form.
std::string headText(const Head& head);
std::optional<Head> headOf(std::string_view text);

// The digest of a line without its newline. Throws LibraryFailure (base/shared_library.h) where there is no libcrypto.
std::string lineDigest(std::string_view line);

// The line of the entry, whose `mac` is set, without the newline; "" where the key of its `ring` is not at hand.
std::string sealedLine(Entry& entry, const Digest& digest);

// Whether the `mac` of a line is right; nothing where its key is not at hand.
std::optional<bool> isAttested(std::string_view line, const Entry& entry, const Digest& digest);

}  // namespace sd::trail
