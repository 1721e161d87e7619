// log: what was done to which key, by whom and when, from the trail in the data folder.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <optional>

#include "apps/common/time_text.h"
#include "apps/sdconfig/data_commands/data_commands.h"
#include "apps/sdconfig/reading/data_access.h"
#include "apps/sdconfig/service/service.h"
#include "apps/sdconfig/service/trail_calls.h"
#include "apps/sdconfig/terminal/colour.h"
#include "apps/sdconfig/terminal/messages.h"
#include "apps/sdconfig/terminal/output.h"
#include "apps/sdconfig/terminal/pager.h"
#include "apps/sdconfig/terminal/table.h"
#include "apps/sdconfig/trail/entry_filter.h"
#include "apps/sdconfig/trail/entry_words.h"
#include "trail/reader.h"

namespace cli {

namespace {

using sd::trail::Entry;
using sd::trail::Line;
using sd::trail::Order;
using sd::trail::Reader;
using sd::trail::Since;

constexpr std::int64_t kSecond = 1'000'000;             // in the trail's unit
constexpr std::size_t kAtOnce = std::size_t{64} << 10;  // bytes of a write
constexpr std::size_t kFollowedFrom = 10;               // entries
constexpr int kLookEveryMs = 250;

const std::vector<std::size_t> kWidths{6, 14, 24, 32};

std::optional<Since> sinceOf(const Request& request) {
    if (request.since.empty()) return std::nullopt;
    const std::int64_t now = std::time(nullptr);
    return sd::trail::sinceUtc(apps::typedTime(request.since, now).value_or(now) * kSecond);
}

// In red what should not be, and faint what changed nothing.
std::string colouredDeed(const Entry& entry) {
    const std::string deed = deedOf(entry);
    if (entry.came == "same") return coloured(deed, Colour::Faint);
    return isAmiss(entry) ? coloured(deed, Colour::Bad) : deed;
}

std::string placeOf(const Line& line) {
    return line.file + (line.number > 0 ? ", line " + std::to_string(line.number) : "") + ", " + line.problem;
}

// The entries that were asked for, on their way to standard output, and what of the trail can't be shown.
class Listing {
public:
    explicit Listing(const Request& request) : mRequest(request), mFilter(request) {}

    bool takes(const Line& line) const { return line.problem.empty() && mFilter.takes(line.entry); }

    // Returns the exit code.
    int add(const Line& line) {
        if (!line.problem.empty()) {
            if (mUnshown++ == 0) mFirstUnshown = placeOf(line);
            return kDone;
        }
        mOldest = mOldest == 0 ? line.entry.seq : std::min(mOldest, line.entry.seq);
        if (!takes(line)) return kDone;
        mText += mRequest.json ? lineOf(objectOf(line.text)) : textOf(line.entry);
        return mText.size() < kAtOnce ? static_cast<int>(kDone) : flush();
    }

    int flush() {
        const int code = printText(mText);
        mText.clear();
        return code;
    }

    // What is to be said of what was read up to its end.
    int finish() const {
        if (mOldest > 1 && mRequest.since.empty()) noteTrailBegins(mOldest);
        return mUnshown == 0 ? static_cast<int>(kDone) : notAllShown(mRequest, mUnshown, mFirstUnshown);
    }

private:
    static std::string textOf(const Entry& entry) {
        const std::int64_t seconds = entry.utc / kSecond;
        return tableLine({coloured(std::to_string(entry.seq), Colour::Name),
                          isTerminal() ? apps::agoText(seconds, std::time(nullptr)) : apps::timeText(seconds),
                          colouredDeed(entry), entry.key ? shownInLine(*entry.key) : "-", doerOf(entry)},
                         kWidths);
    }

    const Request& mRequest;
    const EntryFilter mFilter;
    std::string mText;
    std::uint64_t mOldest = 0;  // of the entries that were met; 0: none
    std::size_t mUnshown = 0;
    std::string mFirstUnshown;
};

int list(const Request& request, const std::string& folder) {
    Listing listing(request);
    Reader reader(folder, request.reverse ? Order::OldestFirst : Order::NewestFirst, sinceOf(request));
    Line line;
    if (!reader.next(line)) return reader.lastFile().empty() ? noTrail(request, folder) : static_cast<int>(kDone);
    int code = kDone;
    bool isRead = true;
    {
        const Pager pager;
        do code = listing.add(line);
        while (code == kDone && (isRead = !pager.isOver()) && reader.next(line));
        if (code == kDone) code = listing.flush();
    }
    return code == kDone && isRead ? listing.finish() : code;
}

// Where the last ten of those that were asked for begin: their first.
std::optional<Entry> firstOfLast(const Listing& listing, const std::string& folder) {
    Reader reader(folder, Order::NewestFirst);
    std::optional<Entry> first;
    Line line;
    for (std::size_t count = 0; count < kFollowedFrom && reader.next(line);) {
        if (!listing.takes(line)) continue;
        first = line.entry;
        ++count;
    }
    return first;
}

// Whether somebody goes on reading, after a while.
bool waits() {
    pollfd output{STDOUT_FILENO, 0, 0};
    return ::poll(&output, 1, kLookEveryMs) == 0;
}

int follow(const Request& request, const std::string& folder) {
    Listing listing(request);
    std::optional<Since> since = sinceOf(request);
    std::uint64_t first = 0;
    if (!since) {
        const auto entry = firstOfLast(listing, folder);
        since = entry ? Since{{entry->utc, entry->mono, entry->boot}} : sd::trail::sinceAgo(0);
        if (entry) first = entry->seq;
    }
    Reader reader(folder, Order::OldestFirst, since);
    Line line;
    do {
        while (reader.next(line)) {
            if (!line.problem.empty()) noteNotShown(placeOf(line));
            if (line.entry.seq < first || !line.problem.empty()) continue;
            if (const int code = listing.add(line)) return code;
        }
        if (const int code = listing.flush()) return code;
    } while (waits());
    return kDone;
}

}  // namespace

int showLog(const Request& request, Service& service) {
    int exitCode = kDone;
    const auto folder = folderToRead(request, service, exitCode);
    if (!folder) return exitCode;
    if (request.follow) return follow(request, *folder);
    exitCode = list(request, *folder);
    // Of the folder that was named nobody knows whether this service writes there.
    const auto trail = request.dataDir.empty() && service.listening() ? trailState(service) : std::nullopt;
    if (trail && (!trail->isKept || trail->isAmiss())) noteTrailNow(textOf(*trail));
    return exitCode;
}

}  // namespace cli
