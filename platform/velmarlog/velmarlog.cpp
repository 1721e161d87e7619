// Formats a line once and hands it to the host's sink, the journal or standard error, in this order.
#define VELMARLOG_OPTIONAL  // nothing is to be lacking here
#include "platform/velmarlog/velmarlog.h"

// The location of a line is its caller's and not this file's: fields are passed by hand.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <pthread.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>

#include "base/sip_hash.h"

namespace {

using sd::SipKey;

constexpr int kInformation = 5;
constexpr int kWarning = 6;
constexpr int kError = 7;
constexpr char kLocationFormat[] = "%s %s(%d): ";

// Text beyond this is left out, with a mark: a line may quote a value, and values have no bound of their own.
constexpr std::size_t kMaxText = 64UL * 1024;

// Everything static is initialised at compile time and never destroyed: lines come before main and after exit.
std::atomic<int> sLeastLevel{kWarning};
std::atomic<bool> sSecretsShown{true};
thread_local bool sInSink = false;

// The stream that standard error may be, as the journal numbers it.
struct JournalStream {
    std::uintmax_t device;
    std::uintmax_t inode;
    bool known;
};

// Held for moments, and over fork(), so that a child may log at once. For localtime_r too: the C library has a lock
// there that a fork may leave locked in the child.
std::mutex sMutex;
std::shared_ptr<const VelmarLogSink>* sSink = nullptr;  // guarded by sMutex, as what follows
std::optional<JournalStream> sJournalStream;            // once it is read
std::optional<SipKey> sDigestKey;                       // once it is needed

const int sInstalled [[maybe_unused]] =
    ::pthread_atfork([] { sMutex.lock(); }, [] { sMutex.unlock(); }, [] { sMutex.unlock(); });

class ErrnoKeeper {
public:
    ErrnoKeeper() : mSaved(errno) {}
    ~ErrnoKeeper() { errno = mSaved; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int mSaved;
};

struct Line {
    int level;
    const char* tag;
    std::string text;
    const char* file = nullptr;
    const char* function = nullptr;
    int number = 0;
};

void readLocation(Line& line, const char* format, va_list args) {
    if (std::strncmp(format, kLocationFormat, sizeof kLocationFormat - 1) != 0) return;
    line.file = va_arg(args, const char*);
    line.function = va_arg(args, const char*);
    line.number = va_arg(args, int);
}

std::string formatText(const char* format, va_list args) {
    std::array<char, 1024> shortText{};
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(shortText.data(), shortText.size(), format, args);
    std::string text;
    if (length < 0) {
        text = std::string("(can't be formatted) ") + format;
    } else if (const auto size = static_cast<std::size_t>(length); size < shortText.size()) {
        text.assign(shortText.data(), size);
    } else {
        text.resize(std::min(size, kMaxText));
        // The terminator lands on the string's own.
        (void)std::vsnprintf(text.data(), text.size() + 1, format, again);
        if (size > kMaxText) text += " [cut: " + std::to_string(size) + " bytes]";
    }
    va_end(again);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// The length of the character that `text` begins with, or 0 where it is a control or no valid UTF-8.
std::size_t printableLength(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned lead = byte(0);
    if (lead < 0x80) return lead == '\t' || (lead >= 0x20 && lead != 0x7f) ? 1 : 0;
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) return 0;
    unsigned code = lead & (0x7fU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80) return 0;
        code = code << 6U | (byte(i) & 0x3fU);
    }
    // Below 0xa0 stand the second set of controls; the others are overlong forms, surrogates and out of range.
    constexpr std::array<unsigned, 5> kLeast{0, 0, 0xa0, 0x800, 0x10000};
    if (code < kLeast[length] || (code >= 0xd800 && code <= 0xdfff) || code > 0x10ffff) return 0;
    return length;
}

// Makes text safe to show. It may quote what a peer sent: no terminal sequence gets through, and with an indented
// `newline` nothing in it can pass for a line of its own.
std::string printable(std::string_view text, const char* newline) {
    std::string shown;
    shown.reserve(text.size() + 64);
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        if (length > 0) {
            shown.append(text.substr(0, length));
        } else if (text.front() == '\n') {
            shown += newline;
        } else {
            std::array<char, 5> hex{};
            std::snprintf(hex.data(), hex.size(), "\\x%02x", static_cast<unsigned char>(text.front()));
            shown += hex.data();
        }
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown;
}

JournalStream readJournalStream() {
    JournalStream read{};
    const char* const text = std::getenv("JOURNAL_STREAM");
    // NOLINTNEXTLINE(cert-err34-c): a number out of range names no file.
    read.known = text && std::sscanf(text, "%" SCNuMAX ":%" SCNuMAX, &read.device, &read.inode) == 2;
    return read;
}

// The variable is read once, since other threads may change the environment.
JournalStream journalStream() {
    const std::lock_guard lock(sMutex);
    if (!sJournalStream) sJournalStream = readJournalStream();
    return *sJournalStream;
}

// Whether standard error is the journal's stream: looked at each time, since a host may point it elsewhere.
bool standardErrorIsJournal() {
    const JournalStream stream = journalStream();
    struct stat status {};
    return stream.known && ::fstat(STDERR_FILENO, &status) == 0 && status.st_dev == stream.device &&
           status.st_ino == stream.inode;
}

int journalPriority(int level) {
    if (level <= kInformation) return 6;
    return level == kWarning ? 4 : 3;
}

bool sendToJournal(const Line& line) {
    std::array<std::string, 6> fields{
        "MESSAGE=" + printable(line.text, "\n"),
        "PRIORITY=" + std::to_string(journalPriority(line.level)),
        std::string("SYSLOG_IDENTIFIER=") + line.tag,
        std::string("CODE_FILE=") + (line.file ? line.file : ""),
        std::string("CODE_FUNC=") + (line.function ? line.function : ""),
        "CODE_LINE=" + std::to_string(line.number),
    };
    std::array<iovec, fields.size()> vectors{};
    for (std::size_t i = 0; i < fields.size(); ++i) vectors[i] = {fields[i].data(), fields[i].size()};
    return ::sd_journal_sendv(vectors.data(), line.file ? 6 : 3) >= 0;
}

std::string timeNow() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    std::tm parts{};
    {
        const std::lock_guard lock(sMutex);
        ::localtime_r(&now.tv_sec, &parts);
    }
    std::array<char, 16> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%H:%M:%S", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03ld", now.tv_nsec / 1000000);
    return text.data();
}

void writeToStandardError(const Line& line) {
    const char letter = line.level <= kInformation ? 'I' : line.level == kWarning ? 'W' : 'E';
    const std::string out = timeNow() + ' ' + letter + ' ' + printable(line.tag + (": " + line.text), "\n    ") + '\n';
    for (std::size_t done = 0; done < out.size();) {
        const ssize_t count = ::write(STDERR_FILENO, out.data() + done, out.size() - done);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;  // closed, full or gone: a log line holds up nobody
        done += static_cast<std::size_t>(count);
    }
}

void sendToDefault(const Line& line) {
    if (!standardErrorIsJournal() || !sendToJournal(line)) writeToStandardError(line);
}

std::shared_ptr<const VelmarLogSink> currentSink() {
    const std::lock_guard lock(sMutex);
    return sSink ? *sSink : nullptr;
}

// Returns false where the line has still to be shown: there is no sink, it is this sink that logs, or it threw.
bool sendToSink(const Line& line) {
    if (sInSink) return false;
    const std::shared_ptr<const VelmarLogSink> sink = currentSink();
    if (!sink) return false;
    sInSink = true;
    bool taken = false;
    try {
        (*sink)(line.level, line.tag, line.text);
        taken = true;
    } catch (...) {
        taken = false;
    }
    sInSink = false;
    return taken;
}

// Nothing where the system has no random bytes to give.
std::optional<SipKey> digestKey() {
    const std::lock_guard lock(sMutex);
    SipKey fresh{};
    if (!sDigestKey && ::getrandom(fresh.data(), sizeof fresh, 0) == sizeof fresh) sDigestKey = fresh;
    return sDigestKey;
}

// Half of the hash: it is for telling values apart by eye.
std::string digestOf(const std::string& value) {
    std::array<char, 16> digest{};
    if (const std::optional<SipKey> key = digestKey())
        std::snprintf(digest.data(), digest.size(), ", %08" PRIx32,
                      static_cast<std::uint32_t>(sd::sipHash(*key, value)));
    return '[' + std::to_string(value.size()) + " bytes" + digest.data() + ']';
}

}  // namespace

void velmarLogPrint(int /*id*/, int level, const char* tag, const char* format, ...) {
    if (std::min(level, kError) < sLeastLevel.load(std::memory_order_relaxed)) return;
    const ErrnoKeeper keeper;
    va_list args;
    va_start(args, format);
    va_list location;
    va_copy(location, args);
    try {
        Line line{level, tag ? tag : "", formatText(format, args)};
        readLocation(line, format, location);
        if (!sendToSink(line)) sendToDefault(line);
    } catch (...) {
        constexpr std::string_view kLost = "velmarlog: out of memory, a line is lost\n";
        (void)!::write(STDERR_FILENO, kLost.data(), kLost.size());
    }
    va_end(location);
    va_end(args);
}

void velmarLogSetLevel(int level) {
    sLeastLevel.store(level, std::memory_order_relaxed);
}

void velmarLogSetSink(VelmarLogSink sink) {
    auto next = sink ? std::make_shared<const VelmarLogSink>(std::move(sink)) : nullptr;
    const std::lock_guard lock(sMutex);
    if (!sSink) sSink = new std::shared_ptr<const VelmarLogSink>;
    sSink->swap(next);
}

void velmarLogSetSecretsShown(bool shown) {
    sSecretsShown.store(shown, std::memory_order_relaxed);
}

std::string velmarLogHidden(const std::string& value) {
    if (sSecretsShown.load(std::memory_order_relaxed)) return "";
    try {
        return digestOf(value);
    } catch (...) {
        return "[hidden]";  // so short that it takes no memory
    }
}
