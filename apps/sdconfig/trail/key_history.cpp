#include "apps/sdconfig/trail/key_history.h"

#include <algorithm>
#include <ctime>

#include "apps/common/time_text.h"
#include "apps/sdconfig/trail/entry_words.h"
#include "base/letter_case.h"
#include "src/sdconfig_came.h"

namespace cli {

namespace {

using sd::trail::Entry;
using sd::trail::Line;

constexpr std::size_t kMostLooked = 300'000;  // more than the trail has as long as nobody gives it more room
constexpr std::size_t kFew = 1000;

struct Kind {
    const char* what;
    Layer layer;
    bool isDeletion;
};
constexpr std::array kKinds{
    Kind{"SET_SECURE", Layer::Local, false},      Kind{"DEL_SECURE", Layer::Local, true},
    Kind{"SET_POLICY", Layer::Policy, false},     Kind{"SET_POLICYLIST", Layer::Policy, false},
    Kind{"DELETE_POLICY", Layer::Policy, true},   Kind{"DM_CLEAR_ALL_KEYS", Layer::Policy, true},
    Kind{"POLICIES_READ", Layer::Machine, false}, Kind{"SET_PROPERTY", Layer::Property, false},
    Kind{"DEL_PROPERTY", Layer::Property, true},
};
constexpr std::array kNames{"local value", "policy", "policy of the machine", "property"};
constexpr std::array kJsonNames{"local", "policy", "machine", "property"};

const Kind* kindOf(const Entry& entry) {
    const auto* const kind =
        std::find_if(kKinds.begin(), kKinds.end(), [&](const Kind& one) { return entry.what == one.what; });
    return kind == kKinds.end() ? nullptr : kind;
}

// Which layer of the key the entry changed; null for none. Keys of properties do tell upper from lower case.
const Kind* changeOf(const Entry& entry, const std::string& key) {
    if (!entry.key || (entry.came != sd::came::kChanged && entry.came != sd::came::kStored)) return nullptr;
    const Kind* const kind = kindOf(entry);
    if (!kind) return nullptr;
    const bool isKey = kind->layer == Layer::Property ? *entry.key == key : sd::compareFolded(*entry.key, key) == 0;
    return isKey ? kind : nullptr;
}

// Of a policy of the machine the entry itself tells whether it went.
std::string verbOf(const Entry& entry) {
    const Kind& kind = *kindOf(entry);
    const bool isGone = kind.layer == Layer::Machine && !entry.priority;
    const std::string priority = entry.priority ? ", priority " + std::to_string(*entry.priority) + "," : "";
    return (kind.isDeletion ? "deleted" : isGone ? "gone" : "set") + priority;
}

}  // namespace

KeyHistory historyOf(const std::string& folder, const std::string& key) {
    KeyHistory history;
    sd::trail::Reader reader(folder, sd::trail::Order::NewestFirst);
    Line line;
    for (std::size_t looked = 0; looked < kMostLooked && reader.next(line); ++looked) {
        if (!line.problem.empty()) {
            history.isUnread = true;
            continue;
        }
        history.from = line.entry.seq;
        const Kind* const kind = changeOf(line.entry, key);
        if (!kind) continue;
        auto& last = history.last.at(static_cast<std::size_t>(kind->layer));
        if (!last) last = line;
    }
    return history;
}

std::optional<Line> lastChangeOf(const std::string& folder, const std::string& key) {
    sd::trail::Reader reader(folder, sd::trail::Order::NewestFirst);
    Line line;
    for (std::size_t looked = 0; looked < kFew && reader.next(line); ++looked)
        if (line.problem.empty() && changeOf(line.entry, key)) return line;
    return std::nullopt;
}

std::string textOf(const KeyHistory& history) {
    if (history.from == 0) return "";
    std::string text;
    for (std::size_t i = 0; i < kLayers; ++i) {
        if (!history.last.at(i)) continue;
        const Entry& entry = history.last.at(i)->entry;
        text += "  " + std::string(kNames.at(i)) + ": " + verbOf(entry) + " " +
                apps::agoText(entry.utc / 1'000'000, std::time(nullptr)) + " " + byDoer(entry) + "\n";
    }
    if (text.empty()) text = "  none since entry " + std::to_string(history.from) + " of the trail\n";
    if (history.isUnread) text += "  a part of the trail can't be read\n";
    return "last changes:\n" + text;
}

Object objectOf(const KeyHistory& history) {
    if (history.from == 0) return nullptr;
    Object object{{"from", history.from}, {"whole", !history.isUnread}};
    for (std::size_t i = 0; i < kLayers; ++i)
        object[kJsonNames.at(i)] = history.last.at(i) ? objectOf(history.last.at(i)->text) : Object();
    return object;
}

}  // namespace cli
