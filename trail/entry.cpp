#include "trail/entry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "base/base64.h"
#include "base/escaped.h"

namespace sd::trail {

namespace {

using nlohmann::json;

constexpr std::int64_t kSecond = 1'000'000;
constexpr std::size_t kBootDigits = 8;
constexpr std::string_view kBase64Suffix = "_base64";

// How a field stands in the line.
struct Time {
    std::int64_t Entry::*member;
};
struct Seconds {
    std::int64_t Entry::*member;
};
using Member = std::variant<std::string Entry::*, std::optional<std::string> Entry::*, std::uint64_t Entry::*,
                            std::optional<std::uint64_t> Entry::*, std::optional<std::int64_t> Entry::*, Time, Seconds,
                            std::optional<Peer> Entry::*>;

struct Field {
    std::string_view name;
    Member member;
    std::size_t bytesMax = kTextBytesMax;
};

// In the line's order.
const Field kFields[] = {
    {"seq", &Entry::seq},
    {"utc", Time{&Entry::utc}},
    {"mono", Seconds{&Entry::mono}},
    {"boot", &Entry::boot},
    {"by", &Entry::by},
    {"source", &Entry::source},
    {"what", &Entry::what},
    {"key", &Entry::key, kKeyBytesMax},
    {"priority", &Entry::priority},
    {"came", &Entry::came},
    {"old", &Entry::oldDigest},
    {"new", &Entry::newDigest},
    {"cause", &Entry::cause},
    {"count", &Entry::count},
    {"from", Time{&Entry::from}},
    {"to", Time{&Entry::to}},
    {"why", &Entry::why},
    {"file", &Entry::file},
    {"last", &Entry::last},
    {"oldest", &Entry::oldest},
    {"head", &Entry::head},
    {"ring", &Entry::ring},
    {"before", &Entry::before},
    {"mac", &Entry::mac},
};
constexpr std::size_t kMac = std::size(kFields) - 1;  // composed by itself, after all others

// Those of "by".
struct PeerText {
    std::string_view name;
    std::optional<std::string> Peer::*member;
};
constexpr PeerText kPeerTexts[] = {{"exe", &Peer::exe}, {"unit", &Peer::unit}, {"name", &Peer::name}};

bool isPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; });
}

// What JSON can't have as it is.
std::string escapedForJson(std::string_view text) {
    std::string out;
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            (out += '\\') += c;
        } else if ((c >= 0 && c < 0x20) || c == 0x7f) {
            char escape[8];
            (void)std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        } else {
            out += c;
        }
    }
    return escapedInJson(out);
}

class Composer {
public:
    explicit Composer(const Entry& entry) : mEntry(entry) { mLine.reserve(512); }

    std::string take() {
        for (std::size_t i = 0; i < kMac; ++i)
            std::visit([&, this](auto member) { add(kFields[i], member); }, kFields[i].member);
        mLine.front() = '{';
        return std::move(mLine);
    }

private:
    void addName(std::string_view name, std::string_view suffix = "") {
        mLine.append(mIsFirstInPeer ? "\"" : ",\"").append(name).append(suffix).append("\":");
        mIsFirstInPeer = false;
    }

    void addText(std::string_view name, const std::string& whole, std::size_t most = kTextBytesMax) {
        if (isPlain(whole) && whole.size() <= most) {
            addName(name);
            mLine.append("\"").append(whole).append("\"");
            return;
        }
        const std::string text = whole.size() <= most ? whole : cutAt(whole, most - 3);
        const bool fits = isUtf8(text);
        addName(name, fits ? "" : kBase64Suffix);
        mLine.append("\"").append(fits ? escapedForJson(text) : toBase64(text)).append("\"");
    }

    template <class Number>
    void addNumber(std::string_view name, Number number) {
        addName(name);
        mLine += std::to_string(number);
    }

    void add(const Field& field, std::string Entry::*member) {
        if (const std::string& text = mEntry.*member; !text.empty()) addText(field.name, text, field.bytesMax);
    }
    void add(const Field& field, std::optional<std::string> Entry::*member) {
        if (const auto& text = mEntry.*member) addText(field.name, *text, field.bytesMax);
    }
    void add(const Field& field, std::uint64_t Entry::*member) {
        if (mEntry.*member != 0) addNumber(field.name, mEntry.*member);
    }
    template <class Number>
    void add(const Field& field, std::optional<Number> Entry::*member) {
        if (const auto& number = mEntry.*member) addNumber(field.name, *number);
    }
    void add(const Field& field, Time time) {
        if (mEntry.*time.member != 0 || time.member == &Entry::utc) addText(field.name, utcText(mEntry.*time.member));
    }
    void add(const Field& field, Seconds time) {
        addName(field.name);
        char text[32];
        const std::int64_t all = std::max<std::int64_t>(mEntry.*time.member, 0);
        (void)std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(all / kSecond),
                            static_cast<long long>(all % kSecond));
        mLine += text;
    }
    void add(const Field& field, std::optional<Peer> Entry::*member) {
        const std::optional<Peer>& peer = mEntry.*member;
        if (!peer && !mEntry.source.empty()) return;
        addName(field.name);
        if (!peer) return void(mLine += "null");
        mLine += '{';
        mIsFirstInPeer = true;
        addNumber("uid", peer->uid);
        addNumber("pid", peer->pid);
        for (const PeerText& text : kPeerTexts) addPeerText(text.name, (*peer).*text.member);
        mLine += peer->isGone ? ",\"gone\":true}" : "}";
    }
    void addPeerText(std::string_view name, const std::optional<std::string>& text) {
        if (text) return addText(name, *text);
        addName(name);
        mLine += "null";
    }

    const Entry& mEntry;
    std::string mLine;
    bool mIsFirstInPeer = false;
};

// A parser's value for a field: a text, a whole number, one with a point, or null.
struct Null {};
using Value = std::variant<Null, std::string, std::uint64_t, std::int64_t, double, bool>;

template <class Wanted, class Member>
bool assign(Member& member, const Value& value) {
    const Wanted* const fitting = std::get_if<Wanted>(&value);
    if (fitting) member = *fitting;
    return fitting != nullptr;
}

// Each returns whether the value is one for the member.
class Taker {
public:
    Taker(Entry& entry, const Value& value) : mEntry(entry), mValue(value) {}

    bool operator()(std::string Entry::*member) const { return assign<std::string>(mEntry.*member, mValue); }
    bool operator()(std::optional<std::string> Entry::*member) const {
        return assign<std::string>(mEntry.*member, mValue);
    }
    bool operator()(std::uint64_t Entry::*member) const { return assign<std::uint64_t>(mEntry.*member, mValue); }
    bool operator()(std::optional<std::uint64_t> Entry::*member) const {
        return assign<std::uint64_t>(mEntry.*member, mValue);
    }
    bool operator()(std::optional<std::int64_t> Entry::*member) const {
        const std::uint64_t* const number = std::get_if<std::uint64_t>(&mValue);
        if (!number || *number > INT64_MAX) return assign<std::int64_t>(mEntry.*member, mValue);
        mEntry.*member = static_cast<std::int64_t>(*number);
        return true;
    }
    bool operator()(Time time) const {
        const std::string* const text = std::get_if<std::string>(&mValue);
        const std::optional<std::int64_t> point = text ? utcOf(*text) : std::nullopt;
        if (point) mEntry.*time.member = *point;
        return point.has_value();
    }
    bool operator()(Seconds time) const {
        const double* const seconds = std::get_if<double>(&mValue);
        if (!seconds || !(*seconds >= 0 && *seconds < 1e12)) return false;
        mEntry.*time.member = std::llround(*seconds * kSecond);
        return true;
    }
    bool operator()(std::optional<Peer> Entry::*) const { return std::holds_alternative<Null>(mValue); }

private:
    Entry& mEntry;
    const Value& mValue;
};

bool isHex(const std::string& text, std::size_t digits) {
    return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// Takes the parser's events. Each returns whether to go on; that at which it doesn't has told the problem.
class LineReader {
public:
    explicit LineReader(Entry& entry) : mEntry(entry) {}

    bool null() { return value(Null{}); }
    bool boolean(bool is) { return value(is); }
    bool number_integer(json::number_integer_t number) { return value(std::int64_t{number}); }
    bool number_unsigned(json::number_unsigned_t number) { return value(std::uint64_t{number}); }
    bool number_float(json::number_float_t number, const std::string&) { return value(double{number}); }
    bool binary(json::binary_t&) { return false; }
    bool string(std::string& text) { return value(std::move(text)); }

    bool start_object(std::size_t) {
        if (mDepth == 0) return ++mDepth == 1;
        if (mDepth > 1 || mName != "by") return skip();
        if (!isFirst(mName)) return false;
        mEntry.by.emplace();
        return ++mDepth == 2;
    }
    bool end_object() {
        if (mSkipped > 0) return --mSkipped >= 0;
        --mDepth;
        return true;
    }
    bool start_array(std::size_t) { return mDepth == 0 ? fail("is no JSON object") : skip(); }
    bool end_array() { return --mSkipped >= 0; }
    bool key(std::string& name) {
        if (mSkipped == 0) mName = std::move(name);
        return true;
    }
    bool parse_error(std::size_t at, const std::string&, const nlohmann::detail::exception&) {
        return fail("is not JSON from byte " + std::to_string(at) + " on");
    }

    std::string problem() {
        if (!mProblem.empty()) return mProblem;
        if (!has("seq") || !has("utc") || !has("what") || !has("before") || !has("mac"))
            return R"(lacks one of "seq", "utc", "what", "before" and "mac")";
        return isHex(mEntry.before, 64) && isHex(mEntry.mac, 32) ? "" : R"(has a "before" or a "mac" of another form)";
    }

private:
    bool fail(const std::string& problem) {
        mProblem = problem;
        return false;
    }
    bool failField(const char* what) { return fail("\"" + mName + "\" " + what); }
    bool skip() { return ++mSkipped > 0; }

    bool value(Value value) {
        if (mSkipped > 0) return true;
        if (mDepth == 0) return fail("is no JSON object");
        const bool isEncoded =
            mName.size() > kBase64Suffix.size() &&
            mName.compare(mName.size() - kBase64Suffix.size(), std::string::npos, kBase64Suffix) == 0;
        if (isEncoded && !decode(value)) return failField("is not in base64");
        return mDepth == 2 ? peerField(value) : field(value);
    }

    bool decode(Value& value) {
        const std::string* const text = std::get_if<std::string>(&value);
        std::optional<std::string> bytes = text ? fromBase64(*text) : std::nullopt;
        if (!bytes) return false;
        value = std::move(*bytes);
        mName.resize(mName.size() - kBase64Suffix.size());
        return true;
    }

    bool isFirst(std::string_view name) {
        const std::string inPlace = std::string(mDepth == 2 ? "by." : "").append(name);
        return std::find(mSeen.begin(), mSeen.end(), inPlace) == mSeen.end() ? (mSeen.push_back(inPlace), true)
                                                                             : failField("stands twice");
    }
    bool has(std::string_view name) const { return std::find(mSeen.begin(), mSeen.end(), name) != mSeen.end(); }

    bool field(const Value& value) {
        const auto* const found = std::find_if(std::begin(kFields), std::end(kFields),
                                               [this](const Field& field) { return field.name == mName; });
        if (found == std::end(kFields)) return true;
        if (!isFirst(mName)) return false;
        const std::string* const text = std::get_if<std::string>(&value);
        if (text && text->size() > found->bytesMax) return failField("is too long");
        return std::visit(Taker(mEntry, value), found->member) || failField("is of another type");
    }

    bool peerField(const Value& value) {
        Peer& peer = *mEntry.by;
        if (mName == "gone") return assign<bool>(peer.isGone, value) || failField("is of another type");
        if (mName == "uid" || mName == "pid") return peerNumber(mName == "uid", value);
        for (const PeerText& field : kPeerTexts)
            if (field.name == mName) return peerText(peer.*field.member, value);
        return true;
    }
    bool peerNumber(bool isUid, const Value& value) {
        const std::uint64_t* const number = std::get_if<std::uint64_t>(&value);
        if (!number || *number > (isUid ? UINT32_MAX : INT32_MAX)) return failField("is of another type");
        if (!isFirst(mName)) return false;
        isUid ? void(mEntry.by->uid = static_cast<std::uint32_t>(*number))
              : void(mEntry.by->pid = static_cast<std::int32_t>(*number));
        return true;
    }
    bool peerText(std::optional<std::string>& text, const Value& value) {
        if (!isFirst(mName)) return false;
        if (!assign<std::string>(text, value) && !std::holds_alternative<Null>(value))
            return failField("is of another type");
        return !text || text->size() <= kTextBytesMax || failField("is too long");
    }

    Entry& mEntry;
    std::string mName;
    int mDepth = 0;    // 1: in the entry; 2: in its "by"
    int mSkipped = 0;  // how deep in a field that is not known
    std::vector<std::string> mSeen;
    std::string mProblem;
};

std::string readBoot() {
    std::string boot;
    std::ifstream("/proc/sys/kernel/random/boot_id") >> boot;
    return boot.substr(0, kBootDigits);
}

std::int64_t now(clockid_t clock) {
    timespec time{};
    ::clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * kSecond + time.tv_nsec / 1000;
}

}  // namespace

Moment currentMoment() {
    static const std::string sBoot = readBoot();
    return {now(CLOCK_REALTIME), now(CLOCK_BOOTTIME), sBoot};
}

std::string composeLine(const Entry& entry) {
    return Composer(entry).take();
}

bool parseLine(std::string_view line, Entry& entry, std::string& problem) {
    entry = Entry();
    problem.clear();
    if (line.size() > kLineBytesMax) {
        problem = "is longer than 512 KiB";
        return false;
    }
    LineReader reader(entry);
    (void)json::sax_parse(line.begin(), line.end(), &reader);
    problem = reader.problem();
    return problem.empty();
}

std::string utcText(std::int64_t microseconds) {
    std::time_t seconds = microseconds / kSecond;
    std::int64_t rest = microseconds % kSecond;
    if (rest < 0) {
        rest += kSecond;
        --seconds;
    }
    std::tm parts{};
    char text[64];
    if (!::gmtime_r(&seconds, &parts)) return "";
    (void)std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06dZ", parts.tm_year + 1900,
                        parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                        static_cast<int>(rest));
    return text;
}

std::optional<std::int64_t> utcOf(std::string_view text) {
    constexpr std::string_view kForm = "0000-00-00T00:00:00.000000Z";
    if (text.size() != kForm.size()) return std::nullopt;
    const auto number = [&](std::size_t at, std::size_t size) {
        int value = 0;
        for (const char digit : text.substr(at, size)) value = value * 10 + (digit - '0');
        return value;
    };
    for (std::size_t i = 0; i < text.size(); ++i)
        if (kForm[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != kForm[i]) return std::nullopt;
    std::tm parts{};
    parts.tm_year = number(0, 4) - 1900;
    parts.tm_mon = number(5, 2) - 1;
    parts.tm_mday = number(8, 2);
    parts.tm_hour = number(11, 2);
    parts.tm_min = number(14, 2);
    parts.tm_sec = number(17, 2);
    const std::int64_t microseconds = std::int64_t{::timegm(&parts)} * kSecond + number(20, 6);
    return utcText(microseconds) == text ? std::optional(microseconds) : std::nullopt;
}

}  // namespace sd::trail
