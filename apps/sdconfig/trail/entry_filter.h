// Which entries of the trail were asked for.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/sdconfig/request/request.h"
#include "trail/entry.h"

namespace cli {

class EntryFilter {
public:
    // Of the request: its keys and patterns, and who it was.
    explicit EntryFilter(const Request& request);

    bool takes(const sd::trail::Entry& entry) const;

private:
    bool isOfKey(const std::string& key) const;
    bool isBy(const sd::trail::Entry& entry) const;

    std::vector<std::string> mKeys;  // without letter case
    std::string mBy;                 // "": whoever it was
    std::optional<unsigned> mUid;    // where that is a number
};

}  // namespace cli
