// A digest of all that a data folder holds, to be noted elsewhere and compared later.
#pragma once

#include <string>

#include "apps/data/untouched_database.h"

namespace apps {

struct DataDigest {
    std::string text;     // apps/common/digest_text.h
    std::string problem;  // why there is none, for a person; else ""
};

// Over every row of both databases, whatever their order, under the key of the ring that seals, or that of a digest
// that was noted. Values count as they were set: sealed anew they are the same. One that can't be opened counts as it
// stands in its row. Each database is read as it stands at one moment.
// folder: of the databases; the security layer has to know the key ring.
DataDigest digestOf(const std::string& folder, const std::string& noted = "", const Stop& stop = nullptr);

}  // namespace apps
