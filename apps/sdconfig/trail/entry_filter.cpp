#include "apps/sdconfig/trail/entry_filter.h"

#include <fnmatch.h>

#include <algorithm>
#include <charconv>

#include "apps/sdconfig/request/letter_case.h"

namespace cli {

namespace {

std::optional<unsigned> numberOf(const std::string& text) {
    unsigned number = 0;
    const auto [stop, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool isNumber = failure == std::errc() && stop == text.data() + text.size();
    return isNumber ? std::optional(number) : std::nullopt;
}

std::string fileName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace

EntryFilter::EntryFilter(const Request& request) : mBy(request.by), mUid(numberOf(request.by)) {
    for (const std::string& key : request.keys) mKeys.push_back(folded(key));
}

bool EntryFilter::takes(const sd::trail::Entry& entry) const {
    if (!mBy.empty() && !isBy(entry)) return false;
    return mKeys.empty() || (entry.key && isOfKey(folded(*entry.key)));
}

bool EntryFilter::isOfKey(const std::string& key) const {
    return std::any_of(mKeys.begin(), mKeys.end(), [&](const std::string& one) {
        return key == one || ::fnmatch(one.c_str(), key.c_str(), FNM_NOESCAPE) == 0;
    });
}

// A program by its path or its file's name, which "name" may be cut from; a unit; a user.
bool EntryFilter::isBy(const sd::trail::Entry& entry) const {
    if (!entry.by) return entry.source == mBy;
    const sd::trail::Peer& peer = *entry.by;
    if (mUid && peer.uid == *mUid) return true;
    return (peer.exe && (*peer.exe == mBy || fileName(*peer.exe) == mBy)) || peer.unit == mBy || peer.name == mBy;
}

}  // namespace cli
