#include "policies/policy_file.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_map>

#include "base/escaped.h"
#include "base/letter_case.h"
#include "base/limits.h"
#include "policies/policy_value.h"

namespace sd {

namespace {

using nlohmann::json;

constexpr char kByteOrderMark[] = "\xef\xbb\xbf";
constexpr char kWrongPriority[] = "has to be a whole number from 0 to 127";
constexpr char kWrongUsers[] = "has to be a list of names, uids and @groups";
constexpr std::size_t kUserBytesMax = 256;
constexpr std::uint64_t kHighestUid = 0xfffffffe;  // the next one stands for none

// Why the store could not keep a policy of that name.
std::string unfitUri(const std::string& uri) {
    if (uri.empty()) return "is empty";
    if (uri.find('\0') != std::string::npos) return "has a zero byte";
    return uri.size() > kKeyBytesMax ? "is longer than 64 KiB" : "";
}

bool isNumber(const std::string& text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Why nobody can have that name.
std::string unfitUser(const std::string& user) {
    if (user.empty() || user == "@") return "names somebody without a name";
    if (user.find('\0') != std::string::npos) return "has a name with a zero byte";
    if (user.size() > kUserBytesMax) return "has a name longer than 256 bytes";
    if (isNumber(user) && (user.size() > 10 || std::stoull(user) > kHighestUid)) return "has a uid beyond 4294967294";
    return "";
}

// Where the parser is. It reads one byte beyond a number, and never beyond a text.
struct Position {
    int line = 1;
    char last = 0;
    bool atEnd = false;

    int lineOfToken() const { return last == '\n' ? line - 1 : line; }
};

// Hands out the bytes of the text, and keeps the position.
class TrackingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    TrackingIterator(const char* at, const char* end, Position* position) : mAt(at), mEnd(end), mPosition(position) {}
    reference operator*() const { return *mAt; }
    TrackingIterator& operator++() {
        mPosition->last = *mAt;
        if (*mAt == '\n') ++mPosition->line;
        mPosition->atEnd = ++mAt == mEnd;
        return *this;
    }
    TrackingIterator operator++(int) {
        TrackingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const TrackingIterator& other) const { return mAt == other.mAt; }
    bool operator!=(const TrackingIterator& other) const { return mAt != other.mAt; }

private:
    const char* mAt;
    const char* mEnd;
    Position* mPosition;
};

// Takes the parser's events. Each returns whether to go on; the first that doesn't has told the problem.
class PolicyReader {
public:
    PolicyReader(const Position& position, PolicyForm form) : mPosition(position), mForm(form) {}

    bool null() { return wrongKind(); }
    bool boolean(bool) { return wrongKind(); }
    bool number_integer(json::number_integer_t) { return priority(std::nullopt); }
    bool number_unsigned(json::number_unsigned_t number) {
        if (mInUsers) return user(std::to_string(number));
        return priority(number <= kHighestPriority ? std::optional<int>(static_cast<int>(number)) : std::nullopt);
    }
    bool number_float(json::number_float_t, const std::string&) { return priority(std::nullopt); }
    bool binary(json::binary_t&) { return wrongKind(); }
    bool start_array(std::size_t) {
        if (mField != "users" || mInUsers) return wrongKind();
        return mInUsers = true;
    }
    bool end_array() {
        mInUsers = false;
        return !mEntry.users.empty() || fail("names nobody; leave it out for everybody");
    }

    bool string(std::string& text) {
        if (mDepth < 2) return wrongKind();
        if (mInUsers) return user(text);
        if (mField == "users") return wrongKind();
        if (mField == "description") return description(text);
        if (mField == "priority") return fail("is a text; it " + std::string(kWrongPriority));
        if (const std::string unfit = unfitPolicyValue(text); !unfit.empty()) return fail(unfit);
        mEntry.value = text;
        mHasValue = true;
        return true;
    }

    bool start_object(std::size_t) {
        if (mDepth == 2 || mInUsers) return wrongKind();
        ++mDepth;
        mField.clear();
        mHasValue = mHasPriority = mHasDescription = false;
        return true;
    }

    bool key(std::string& name) { return mDepth == 1 ? uri(name) : field(name); }

    bool end_object() {
        if (--mDepth == 0) return true;
        mField.clear();
        if (!mHasValue || !mHasPriority)
            return fail(std::string("has no ") + (mHasValue ? R"("priority")" : R"("value")"));
        mFile.entries.push_back(std::move(mEntry));
        mEntry = PolicyEntry();
        mEntry.uri = mFile.entries.back().uri;  // a problem behind it is told with it
        return true;
    }

    // The parser's own words hold pieces of the text, and so of values.
    bool parse_error(std::size_t, const std::string&, const json::exception&) {
        mField.clear();
        return fail(mPosition.atEnd ? "ends too early, or is no JSON" : "is no JSON, or not UTF-8, at this place");
    }

    PolicyFile take() { return std::move(mFile); }

private:
    bool uri(const std::string& name) {
        mEntry = PolicyEntry();
        mEntry.uri = name;
        mEntry.line = mPosition.line;
        if (const std::string unfit = unfitUri(name); !unfit.empty()) return fail("is a URI that " + unfit);
        const auto [first, added] = mSeen.try_emplace(folded(name), Seen{name, mPosition.line});
        if (added) return true;
        const std::string there = "in line " + std::to_string(first->second.line);
        if (first->second.uri == name) return fail("stands there twice: " + there + " already");
        return fail("differs only in letter case from " + sd::quoted(first->second.uri) + " " + there);
    }

    bool field(const std::string& name) {
        mField = name;
        if (!isField(name))
            return fail(mForm == PolicyForm::Stored
                            ? R"(is no field of a policy; those are "value" and "priority")"
                            : R"(is no field of a policy; those are "value", "priority", "description" and "users")");
        const bool isTwice = name == "value"         ? mHasValue
                             : name == "priority"    ? mHasPriority
                             : name == "description" ? mHasDescription
                                                     : !mEntry.users.empty();
        return !isTwice || fail("stands there twice");
    }

    bool isField(const std::string& name) const {
        if (name == "value" || name == "priority") return true;
        return mForm == PolicyForm::Machine && (name == "description" || name == "users");
    }

    bool description(const std::string& text) {
        mEntry.description = text;
        return mHasDescription = true;
    }

    bool user(const std::string& name) {
        if (const std::string unfit = unfitUser(name); !unfit.empty()) return fail(unfit);
        mEntry.users.push_back(name);
        return true;
    }

    bool priority(std::optional<int> number) {
        if (mField != "priority") return wrongKind();
        if (!number) return fail(kWrongPriority);
        mEntry.priority = *number;
        mHasPriority = true;
        return true;
    }

    bool wrongKind() {
        if (mDepth == 0) return fail("is no object of policies");
        if (mDepth == 1) return fail(R"(is no object of "value" and "priority")");
        return fail(mField == "priority" ? kWrongPriority : mField == "users" ? kWrongUsers : "has to be a text");
    }

    bool fail(const std::string& what) {
        const std::string place = "line " + std::to_string(mPosition.lineOfToken());
        const std::string uri = mDepth > 0 && !mEntry.uri.empty() ? ", " + sd::quoted(mEntry.uri) : "";
        mFile.problem = place + uri + (mField.empty() ? "" : ", " + sd::quoted(mField)) + ": " + what;
        return false;
    }

    struct Seen {
        std::string uri;
        int line;
    };

    const Position& mPosition;
    const PolicyForm mForm;
    PolicyFile mFile;
    std::unordered_map<std::string, Seen> mSeen;  // by the URI without letter case
    int mDepth = 0;
    PolicyEntry mEntry;
    std::string mField;
    bool mHasValue = false;
    bool mHasPriority = false;
    bool mHasDescription = false;
    bool mInUsers = false;
};

}  // namespace

PolicyFile parsePolicyFile(const std::string& text, PolicyForm form) {
    if (text.compare(0, 3, kByteOrderMark) == 0)
        return {{}, "line 1: begins with a byte order mark; save it as UTF-8 without one"};
    Position position;
    PolicyReader reader(position, form);
    const char* const end = text.data() + text.size();
    const bool sound =
        json::sax_parse(TrackingIterator(text.data(), end, &position), TrackingIterator(end, end, &position), &reader);
    PolicyFile file = reader.take();
    if (!sound) file.entries.clear();
    return file;
}

std::string unfitForFile(const PolicyEntry& entry) {
    if (const std::string unfit = unfitUri(entry.uri); !unfit.empty()) return "its URI " + unfit;
    if (!isUtf8(entry.uri)) return "its URI is not UTF-8";
    if (entry.priority < 0 || entry.priority > kHighestPriority) return "its priority is beyond 0 to 127";
    if (!isUtf8(entry.value)) return "its value is not UTF-8";
    const std::string unfit = unfitPolicyValue(entry.value);
    return unfit.empty() ? "" : "its value " + unfit;
}

std::string composePolicyFile(const std::vector<PolicyEntry>& entries) {
    std::string text = "{";
    for (const PolicyEntry& entry : entries) {
        const nlohmann::ordered_json policy{{"value", entry.value}, {"priority", entry.priority}};
        text += (text.size() > 1 ? ",\n    " : "\n    ") + json(entry.uri).dump() + ": " + policy.dump();
    }
    return escapedInJson(text) + (entries.empty() ? "}\n" : "\n}\n");
}

}  // namespace sd
