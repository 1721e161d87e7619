// A digest of all that a data folder holds, to be noted elsewhere and compared later.
#pragma once

#include <string>

#include "apps/data/data_reader.h"

namespace apps {

struct DataDigest {
    std::string text;     // apps/common/digest_text.h
    std::string problem;  // why there is none, for a person; else ""
};

// Over every row of both databases, whatever their order, under the key of the ring that seals, or that of a digest
// that was noted. Values count as they were set: sealed anew they are the same. One that can't be opened counts as it
// stands in its row. Each database is read as it stands at one moment.
DataDigest digestOf(const DataReader& reader, const std::string& noted = "");

}  // namespace apps
