#include "trail/entry.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>
#include <variant>

#include "base/base64.h"
#include "base/escaped.h"

namespace sd::trail {

namespace {

using nlohmann::json;

constexpr std::int64_t kSecond = 1'000'000;
constexpr int kDaysTo1970 = 719162;
constexpr std::size_t kBootDigits = 8;
constexpr std::uint64_t kSeqMax = INT64_MAX;  // no trail gets that far, and what follows has a number, too
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
        if (!isFirst(placeOf(mName))) return false;
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
        static const std::uint64_t sRequired = bitsOf({"seq", "utc", "what", "before", "mac"});
        if ((mSeen & sRequired) != sRequired) return R"(lacks one of "seq", "utc", "what", "before" and "mac")";
        if (mEntry.seq == 0 || mEntry.seq > kSeqMax || mEntry.what.empty())
            return R"(has a "seq" or a "what" that no entry has)";
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

    // Of a field, by its bit.
    bool isFirst(std::size_t bit) {
        if ((mSeen >> bit & 1) != 0) return failField("stands twice");
        mSeen |= std::uint64_t{1} << bit;
        return true;
    }
    static std::size_t placeOf(std::string_view name) {
        const auto isIt = [name](const Field& field) { return field.name == name; };
        return static_cast<std::size_t>(std::find_if(std::begin(kFields), std::end(kFields), isIt) -
                                        std::begin(kFields));
    }
    static std::uint64_t bitsOf(std::initializer_list<std::string_view> names) {
        std::uint64_t bits = 0;
        for (const std::string_view name : names) bits |= std::uint64_t{1} << placeOf(name);
        return bits;
    }

    bool field(const Value& value) {
        const std::size_t place = placeOf(mName);
        if (place == std::size(kFields)) return true;
        if (!isFirst(place)) return false;
        const std::string* const text = std::get_if<std::string>(&value);
        if (text && text->size() > kFields[place].bytesMax) return failField("is too long");
        return std::visit(Taker(mEntry, value), kFields[place].member) || failField("is of another type");
    }

    bool peerField(const Value& value) {
        Peer& peer = *mEntry.by;
        if (mName == "gone")
            return isFirst(kGone) && (assign<bool>(peer.isGone, value) || failField("is of another type"));
        if (mName == "uid") return isFirst(kUid) && peerNumber(peer.uid, value);
        if (mName == "pid") return isFirst(kPid) && peerNumber(peer.pid, value);
        std::size_t bit = kPeerText;
        for (const PeerText& text : kPeerTexts) {
            if (text.name == mName) return isFirst(bit) && peerText(peer.*text.member, value);
            ++bit;
        }
        return true;
    }
    template <class Number>
    bool peerNumber(Number& number, const Value& value) {
        const std::uint64_t* const found = std::get_if<std::uint64_t>(&value);
        if (!found || *found > static_cast<std::uint64_t>(std::numeric_limits<Number>::max()))
            return failField("is of another type");
        number = static_cast<Number>(*found);
        return true;
    }
    bool peerText(std::optional<std::string>& text, const Value& value) {
        if (!assign<std::string>(text, value) && !std::holds_alternative<Null>(value))
            return failField("is of another type");
        return !text || text->size() <= kTextBytesMax || failField("is too long");
    }

    // Behind the bits of kFields.
    static constexpr std::size_t kGone = std::size(kFields), kUid = kGone + 1, kPid = kGone + 2, kPeerText = kGone + 3;

    Entry& mEntry;
    std::string mName;
    int mDepth = 0;           // 1: in the entry; 2: in its "by"
    int mSkipped = 0;         // how deep in a field that is not known
    std::uint64_t mSeen = 0;  // a bit a field
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
    constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (text.size() != kForm.size()) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i)
        if (kForm[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != kForm[i]) return std::nullopt;
    const auto number = [&](std::size_t at, std::size_t size) {
        int value = 0;
        for (const char digit : text.substr(at, size)) value = value * 10 + (digit - '0');
        return value;
    };
    const int year = number(0, 4), month = number(5, 2), day = number(8, 2);
    const int hour = number(11, 2), minute = number(14, 2), second = number(17, 2);
    const bool isLeap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (year < 1 || month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 59) return std::nullopt;
    if (day > kDays[month - 1] + (isLeap && month == 2 ? 1 : 0)) return std::nullopt;
    const int before = year - 1;  // whole years
    std::int64_t days = 365 * before + before / 4 - before / 100 + before / 400 - kDaysTo1970;
    for (int i = 1; i < month; ++i) days += kDays[i - 1] + (isLeap && i == 2 ? 1 : 0);
    days += day - 1;
    return (((days * 24 + hour) * 60 + minute) * 60 + second) * kSecond + number(20, 6);
}

}  // namespace sd::trail
