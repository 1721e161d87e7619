// Whether the trail is what was written. Each line has the digest of the one before, and numbers have no holes; a line
// whose key is at hand attests all before it; a ROTATE says which entry is the oldest that is kept. So a line that was
// changed, taken out, put in or put elsewhere, and a file that was, is found. What no trail can show by itself is that
// lines at its end are missing: that takes a head that was noted elsewhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "trail/chain.h"
#include "trail/entry.h"

namespace sd::trail {

struct Verdict {
    std::string problem;       // "" for a trail that is sound, or none at all
    std::string file;          // where the first bad line is: the file's name in the folder
    std::uint64_t number = 0;  // and its number there, from 1; 0: it is about the file or the trail as a whole

    std::uint64_t lines = 0;     // sound ones, up to the first that is not
    std::uint64_t first = 0;     // seq of the first of them
    std::int64_t since = 0;      // its time, as utc
    Head head;                   // the last of them
    std::uint64_t attested = 0;  // seq of the last whose key was at hand
};

// Reads the whole trail of a data folder, the oldest first, up to the first bad line; in the memory of one block of a
// file. Lines at its end that no key at hand attests are bad: anybody could have written them. digest: none, where
// there is no ring to look with, leaves that out: then the lines prove only that they belong together, and with `head`
// all up to it. head: one that was noted, whose line has to be there. While the service writes, what was written by
// then is verified. Throws LibraryFailure (base/shared_library.h) where there is no libcrypto.
Verdict verify(const std::string& folder, const Digest& digest, const std::optional<Head>& head = std::nullopt);

}  // namespace sd::trail
