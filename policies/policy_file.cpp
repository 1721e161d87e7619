#include "policies/policy_file.h"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <unordered_map>

#include "base/escaped.h"
#include "base/letter_case.h"
#include "base/limits.h"
#include "base/tracked_text.h"
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

constexpr char kNameTheKey[] = "name the key in 1 byte to 64 KiB, without a zero byte";
constexpr char kKeepOne[] = "keep one of the two: they are one policy";
constexpr char kOtherValue[] = R"(give another value, or "" for none)";
constexpr char kAsNumber[] = "write it without quotes, point or exponent: above 5 it overrides, else it is a default";
constexpr char kAsPolicy[] = R"(write {"value": "text", "priority": 7})";

enum class AtFault { Stop, GoOn };

// Takes the parser's events. Each returns whether to go on; that at which it doesn't has told the fault.
class PolicyReader {
public:
    PolicyReader(const TextPosition& position, PolicyForm form, AtFault atFault)
        : mPosition(position), mForm(form), mAtFault(atFault) {}

    bool null() { return wrongKind(); }
    bool boolean(bool) { return wrongKind(); }
    bool number_integer(json::number_integer_t) { return priority(std::nullopt); }
    bool number_unsigned(json::number_unsigned_t number) {
        if (mInUsers && !isSkipping()) return user(std::to_string(number));
        return priority(number <= kHighestPriority ? std::optional<int>(static_cast<int>(number)) : std::nullopt);
    }
    bool number_float(json::number_float_t, const std::string&) { return priority(std::nullopt); }
    bool binary(json::binary_t&) { return wrongKind(); }
    bool start_array(std::size_t) {
        if (isSkipping() || mField != "users" || mInUsers) return skip();
        return mInUsers = true;
    }
    bool end_array() {
        if (mSkipped > 0) return --mSkipped >= 0;
        mInUsers = false;
        return !mEntry.users.empty() || mIsFaulty || fail("names nobody; leave it out for everybody", "delete it");
    }

    bool string(std::string& text) {
        if (isSkipping()) return true;
        if (mDepth < 2) return wrongKind();
        if (mInUsers) return user(text);
        if (mField == "users") return wrongKind();
        if (mField == "description") return description(text);
        if (mField == "priority") return fail("is a text; it " + std::string(kWrongPriority), kAsNumber);
        if (const std::string unfit = unfitPolicyValue(text); !unfit.empty()) return fail(unfit, kOtherValue);
        mEntry.value = text;
        mHasValue = true;
        return true;
    }

    bool start_object(std::size_t) {
        if (isSkipping() || mDepth == 2 || mInUsers) return skip();
        ++mDepth;
        mHasValue = mHasPriority = mHasDescription = false;
        return true;
    }

    bool key(std::string& name) {
        if (mSkipped > 0) return true;
        mIsOfNoField = false;
        return mDepth == 1 ? uri(name) : field(name);
    }

    bool end_object() {
        if (mSkipped > 0) return --mSkipped >= 0;
        if (--mDepth == 0) return true;
        mIsOfNoField = false;
        mField.clear();
        if (!mHasValue && !fail(R"(has no "value")", R"(add it, "" for none)")) return false;
        if (!mHasPriority && !fail(R"(has no "priority")", "add it: above 5 it overrides, else it is a default"))
            return false;
        const std::string name = mEntry.uri;  // a fault behind it is told with it
        if (!mIsFaulty) mFound.entries.push_back(std::move(mEntry));
        mEntry = PolicyEntry();
        mEntry.uri = name;
        return true;
    }

    // The parser's own words hold pieces of the text, and so of values.
    bool parse_error(std::size_t, const std::string&, const json::exception&) {
        mField.clear();
        (void)fail(mPosition.atEnd ? "ends too early, or is no JSON" : "is no JSON, or not UTF-8, at this place",
                   "look for a comma, a quote or a bracket there, or right before; what follows was not looked at");
        return false;
    }

    LintedPolicies take() { return std::move(mFound); }

private:
    bool uri(const std::string& name) {
        mEntry = PolicyEntry();
        mEntry.uri = name;
        mEntry.line = mPosition.line;
        mIsFaulty = false;
        if (const std::string unfit = unfitUri(name); !unfit.empty())
            return fail("is a URI that " + unfit, kNameTheKey);
        const auto [first, added] = mSeen.try_emplace(folded(name), Seen{name, mPosition.line});
        if (added) return true;
        const std::string there = "in line " + std::to_string(first->second.line);
        if (first->second.uri == name) return fail("stands there twice: " + there + " already", kKeepOne);
        return fail("differs only in letter case from " + sd::quoted(first->second.uri) + " " + there, kKeepOne);
    }

    bool field(const std::string& name) {
        mField = name;
        mIsOfNoField = true;
        if (!isField(name))
            return fail(mForm == PolicyForm::Stored
                            ? R"(is no field of a policy; those are "value" and "priority")"
                            : R"(is no field of a policy; those are "value", "priority", "description" and "users")",
                        "correct its name, or delete it");
        const bool isTwice = name == "value"         ? mHasValue
                             : name == "priority"    ? mHasPriority
                             : name == "description" ? mHasDescription
                                                     : !mEntry.users.empty();
        mIsOfNoField = isTwice;
        return !isTwice || fail("stands there twice", "keep one of the two");
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
        if (const std::string unfit = unfitUser(name); !unfit.empty())
            return fail(unfit, "name users, uids, or @groups");
        mEntry.users.push_back(name);
        return true;
    }

    bool priority(std::optional<int> number) {
        if (isSkipping()) return true;
        if (mField != "priority") return wrongKind();
        if (!number) return fail(kWrongPriority, kAsNumber);
        mEntry.priority = *number;
        mHasPriority = true;
        return true;
    }

    bool wrongKind() {
        if (isSkipping()) return true;
        if (mDepth == 0) return fail("is no object of policies", R"(write {"URI": {"value": "text", "priority": 7}})");
        if (mDepth == 1) return fail(R"(is no object of "value" and "priority")", kAsPolicy);
        if (mField == "priority") return fail(kWrongPriority, kAsNumber);
        if (mField == "users") return fail(kWrongUsers, R"(write ["alice", 1000, "@staff"])");
        return fail("has to be a text", "write it between quotes");
    }

    // Of an array or an object where none may be: passes it over, with all that is in it.
    bool skip() { return wrongKind() && ++mSkipped > 0; }
    bool isSkipping() const { return mSkipped > 0 || mIsOfNoField; }

    // A field is not told of twice: with a fault in it, it isn't missing.
    bool fail(const std::string& what, const char* remedy) {
        mFound.faults.push_back({mPosition.lineOfToken(), mDepth > 0 ? mEntry.uri : "", mField, what, remedy});
        mIsFaulty = true;
        mHasValue = mHasValue || mField == "value";
        mHasPriority = mHasPriority || mField == "priority";
        return mAtFault == AtFault::GoOn;
    }

    struct Seen {
        std::string uri;
        int line;
    };

    const TextPosition& mPosition;
    const PolicyForm mForm;
    const AtFault mAtFault;
    LintedPolicies mFound;
    std::unordered_map<std::string, Seen> mSeen;  // by the URI without letter case
    int mDepth = 0;
    PolicyEntry mEntry;
    std::string mField;
    bool mHasValue = false;
    bool mHasPriority = false;
    bool mHasDescription = false;
    bool mInUsers = false;
    bool mIsFaulty = false;     // the entry
    bool mIsOfNoField = false;  // what follows: its name was told as a fault
    int mSkipped = 0;           // arrays and objects, one in the other, that are passed over
};

LintedPolicies readPolicies(const std::string& text, PolicyForm form, AtFault atFault) {
    if (text.compare(0, 3, kByteOrderMark) == 0)
        return {{},
                {{1, "", "", "begins with a byte order mark; save it as UTF-8 without one",
                  "nothing behind it was looked at"}}};
    TextPosition position;
    PolicyReader reader(position, form, atFault);
    const char* const end = text.data() + text.size();
    (void)json::sax_parse(TrackingIterator(text.data(), end, &position), TrackingIterator(end, end, &position),
                          &reader);
    return reader.take();
}

}  // namespace

std::string PolicyFault::place() const {
    return "line " + std::to_string(line) + (uri.empty() ? "" : ", " + sd::quoted(uri)) +
           (field.empty() ? "" : ", " + sd::quoted(field));
}

LintedPolicies lintPolicyFile(const std::string& text, PolicyForm form) {
    return readPolicies(text, form, AtFault::GoOn);
}

PolicyFile parsePolicyFile(const std::string& text, PolicyForm form) {
    LintedPolicies found = readPolicies(text, form, AtFault::Stop);
    if (found.faults.empty()) return {std::move(found.entries), ""};
    const PolicyFault& first = found.faults.front();
    return {{}, first.place() + ": " + first.what};
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
