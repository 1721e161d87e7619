#include "apps/sdconfig/trail/entry_words.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "apps/common/escaped.h"
#include "src/sdconfig_came.h"

namespace cli {

namespace {

namespace came = sd::came;
using sd::trail::Entry;

struct Word {
    const char* what;
    const char* text;
};
constexpr std::array kWords{
    Word{"SET_SECURE", "set"},
    Word{"DEL_SECURE", "deleted"},
    Word{"GET_SECURE", "read"},
    Word{"GET_PROPERTY", "property read"},
    Word{"SET_PROPERTY", "property set"},
    Word{"DEL_PROPERTY", "property deleted"},
    Word{"SET_POLICY", "policy set"},
    Word{"SET_POLICYLIST", "policy set"},
    Word{"DELETE_POLICY", "policy deleted"},
    Word{"DM_CLEAR_ALL_KEYS", "policy deleted with all"},
    Word{"GET_POLICY", "policy read"},
    Word{"POLICIES_READ", "policy of the machine"},
    Word{"KEY_ROTATE", "new key made"},
    Word{"KEY_RESEAL", "sealed anew"},
    Word{"KEY_ENABLE", "key enabled or disabled"},
    Word{"KEY_PRUNE", "keys pruned"},
    Word{"KEY_PROTECT", "slot made"},
    Word{"KEY_UNPROTECT", "slot removed"},
    Word{"KEY_UNLOCK", "key ring unlocked"},
    Word{"KEY_RECOVER", "key ring recovered"},
    Word{"START", "service started"},
    Word{"END", "service ended"},
    Word{"DAMAGE", "damage found"},
    Word{"REFUSED", "caller refused"},
    Word{"GAP", "entries not written"},
    Word{"ROTATE", "file begun"},
    Word{"TRAIL_KEY", "trail's key changed"},
    Word{"UPGRADE", "upgraded"},
    Word{"RESTORE", "restored from a backup"},
};

constexpr std::size_t kLongest = 200;  // of a text of somebody else's; --json has all of it

std::string told(const std::string& text) {
    return sd::cutAt(shownInLine(text), kLongest);
}

std::string wordsOf(const std::string& what) {
    const auto* const word =
        std::find_if(kWords.begin(), kWords.end(), [&](const Word& one) { return what == one.what; });
    return word == kWords.end() ? told(what) : word->text;
}

// Whose name tells already that something is amiss.
bool isNews(const Entry& entry) {
    return entry.what == "DAMAGE" || entry.what == "GAP" || entry.what == "REFUSED";
}

std::string userOf(const sd::trail::Peer& peer) {
    if (peer.uid == ::geteuid()) return "";
    return peer.uid == 0 ? ", of root" : ", of user " + std::to_string(peer.uid);
}

// A process that no manager put anywhere is in the root of the control groups.
bool isInUnit(const sd::trail::Peer& peer) {
    return peer.unit && *peer.unit != "/";
}

std::string callerOf(const sd::trail::Peer& peer) {
    const std::string program = peer.exe ? told(*peer.exe) : peer.name ? told(*peer.name) : "a process";
    return program + ", pid " + std::to_string(peer.pid) + userOf(peer) +
           (isInUnit(peer) ? ", in " + told(*peer.unit) : "") + (peer.isGone ? ", which had ended" : "");
}

}  // namespace

bool isAmiss(const Entry& entry) {
    static constexpr std::array kWell{"", came::kChanged, came::kStored, came::kSame, came::kRead, came::kDone};
    return isNews(entry) || std::find(kWell.begin(), kWell.end(), entry.came) == kWell.end();
}

std::string deedOf(const Entry& entry) {
    std::string text = wordsOf(entry.what);
    if (entry.priority) text += ", priority " + std::to_string(*entry.priority);
    if (entry.came == came::kSame) text += ", no change";
    if (entry.came == came::kStored) text += ", without effect now";
    if (isAmiss(entry) && !isNews(entry)) text += ": " + told(entry.came);
    if (entry.count) text += ": " + std::to_string(*entry.count);
    if (!entry.why.empty()) text += ": " + told(entry.why);
    return text;
}

std::string doerOf(const Entry& entry) {
    if (entry.by) return callerOf(*entry.by);
    return entry.source.empty() ? "unknown" : told(entry.source);
}

std::string byDoer(const Entry& entry) {
    if (!entry.by && entry.source.empty()) return "by a process that is not known";
    return (entry.by ? "by " : "from ") + doerOf(entry);
}

Object objectOf(const std::string& line) {
    return Object::parse(line, nullptr, false);
}

}  // namespace cli
