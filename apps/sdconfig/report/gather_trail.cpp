// The trail: its latest entries, and since when each key is what it is.
#include <algorithm>

#include "apps/sdconfig/report/gather_parts.h"
#include "apps/sdconfig/request/letter_case.h"
#include "apps/sdconfig/trail/entry_words.h"
#include "trail/reader.h"

namespace cli {

namespace {

using sd::trail::Entry;

constexpr std::size_t kShown = 200;
constexpr std::size_t kLookedAt = 20'000;  // so that a long trail doesn't hold the report up

// To so many characters: "2026-11-25 23:57:03".
constexpr std::size_t kToSecond = 19;
constexpr std::size_t kToMinute = 16;
std::string timeOf(const Entry& entry, std::size_t length) {
    std::string text = sd::trail::utcText(entry.utc).substr(0, length);
    std::replace(text.begin(), text.end(), 'T', ' ');
    return text;
}

// In a few letters, since there may be one for each key; the entry itself has all of it.
std::string shortDoerOf(const Entry& entry) {
    if (!entry.by) return entry.source.compare(0, 1, "/") == 0 ? "its file" : doerOf(entry);
    if (!entry.by->exe) return doerOf(entry);
    return entry.by->exe->substr(entry.by->exe->rfind('/') + 1);
}

bool isOfProperty(const Entry& entry) {
    return entry.what.find("PROPERTY") != std::string::npos;
}

void noteChange(const Entry& entry, History& history) {
    const bool isChange = entry.came == "changed" || entry.came == "stored";
    if (!entry.key || !isChange) return;
    const ReportedChange change{timeOf(entry, kToMinute), shortDoerOf(entry)};
    if (isOfProperty(entry))
        history.properties.emplace(*entry.key, change);
    else
        history.settings.emplace(folded(*entry.key), change);
}

ReportedEntry shownOf(const Entry& entry) {
    return {entry.seq, timeOf(entry, kToSecond), deedOf(entry), isAmiss(entry),
            entry.key, isOfProperty(entry),      doerOf(entry)};
}

void read(const std::string& folder, Gathering& gathering) {
    sd::trail::Reader reader(folder, sd::trail::Order::NewestFirst);
    std::string problem;
    std::size_t count = 0;
    sd::trail::Line line;
    while (count < kLookedAt && reader.next(line)) {
        if (!line.problem.empty()) {
            if (problem.empty()) problem = line.file + ": " + line.problem;
            continue;
        }
        if (count++ < kShown) gathering.report.trail.push_back(shownOf(line.entry));
        noteChange(line.entry, gathering.history);
    }
    if (!problem.empty())
        gathering.miss("A part of the trail: " + problem, "see what it proves with: " + typed("log verify"));
    if (count == kLookedAt && reader.next(line))
        gathering.miss("Who changed keys before the latest " + std::to_string(kLookedAt) + " entries of the trail",
                       "ask for a key: " + typed("log KEY"));
}

}  // namespace

void gatherTrail(Gathering& gathering) {
    if (gathering.access.reader) read(gathering.access.reader->folder(), gathering);
    if (gathering.report.trail.empty())
        gathering.miss("Who changed what, and when: no trail is to be seen",
                       "the service keeps one in its data folder, unless it is started with --no-audit");
}

}  // namespace cli
