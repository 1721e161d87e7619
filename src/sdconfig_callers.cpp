#include "src/sdconfig_callers.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <string_view>

#include "base/unique_fd.h"

namespace sd {

namespace {

constexpr std::chrono::seconds kKnownFor{1};
constexpr std::size_t kKnownMost = 256;  // connections

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// A file below /proc/PID: one read gives all that is wanted of it. Nothing where it can't be read.
std::optional<std::string> readSmall(int folder, const char* name) {
    const UniqueFd file(::openat(folder, name, O_RDONLY | O_CLOEXEC));
    if (!file) return std::nullopt;
    std::array<char, std::size_t{2} * PATH_MAX> buffer;
    const ssize_t size = ::read(file.get(), buffer.data(), buffer.size());
    if (size <= 0) return std::nullopt;
    return std::string(buffer.data(), static_cast<std::size_t>(size));
}

std::optional<std::string> programOf(int folder) {
    std::array<char, PATH_MAX> buffer;
    const ssize_t size = ::readlinkat(folder, "exe", buffer.data(), buffer.size());
    if (size < 0) return std::nullopt;
    return std::string(buffer.data(), static_cast<std::size_t>(size));
}

bool endsWith(std::string_view text, std::string_view end) {
    return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

// The path behind "0::" of the one hierarchy, else behind systemd's own, as /proc/PID/cgroup has them.
std::string_view controlGroup(std::string_view lines) {
    std::string_view found;
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        const std::size_t path = line.find('/');
        if (path == std::string_view::npos) continue;
        const bool isUnified = line.substr(0, 3) == "0::";
        const std::string_view group = line.substr(path);
        if (isUnified && group != "/") return group;
        if (isUnified ? found.empty() : endsWith(line.substr(0, path), ":name=systemd:")) found = group;
    }
    return found;
}

// The innermost service or scope that the group lies in; the group itself where it lies in none.
std::string unitOf(std::string_view group) {
    for (std::string_view left = group; !left.empty();) {
        const std::size_t slash = left.rfind('/');
        const std::string_view part = left.substr(slash + 1);
        if (endsWith(part, ".service") || endsWith(part, ".scope")) return std::string(part);
        left = left.substr(0, slash == std::string_view::npos ? 0 : slash);
    }
    return std::string(group);
}

struct Status {
    std::string name;
    bool hasEnded = false;   // though nobody has taken notice yet
    std::int64_t began = 0;  // nanoseconds since the machine started
};

// /proc/PID/stat: the number, the name in brackets, which may have brackets in it, and 50 fields behind.
std::optional<Status> statusOf(int folder) {
    const auto text = readSmall(folder, "stat");
    if (!text) return std::nullopt;
    const std::size_t open = text->find('(');
    const std::size_t close = text->rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open) return std::nullopt;
    Status status;
    status.name = text->substr(open + 1, close - open - 1);
    std::string_view left = std::string_view(*text).substr(close + 1);
    constexpr int kState = 1;
    constexpr int kBegan = 20;
    for (int field = 1; field <= kBegan && left.size() > 1; ++field) {
        left.remove_prefix(1);
        const std::string_view value = left.substr(0, left.find(' '));
        if (field == kState) status.hasEnded = value == "Z" || value == "X";
        if (field == kBegan) std::from_chars(value.data(), value.data() + value.size(), status.began);
        left.remove_prefix(value.size());
    }
    static const std::int64_t kTicks = ::sysconf(_SC_CLK_TCK);
    status.began *= kNanosecondsPerSecond / kTicks;
    return status;
}

}  // namespace

trail::Peer lookUp(const SDBusPeer& peer, const std::string& proc) {
    trail::Peer found;
    found.uid = peer.user;
    found.pid = peer.process;
    if (peer.process <= 0) return found;  // of another world, where it has a number
    // The open folder stays that process's, whoever gets its number.
    const std::string path = proc + "/" + std::to_string(peer.process);
    const UniqueFd folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto status = folder ? statusOf(folder.get()) : std::nullopt;
    // Some systems hide the processes of others: that there is one can be asked all the same.
    const bool isThere = status || (::kill(peer.process, 0) != 0 && errno == EPERM);
    found.isGone = !isThere || (status && (status->hasEnded || status->began > peer.admittedNs));
    if (found.isGone || !status) return found;
    found.exe = programOf(folder.get());
    if (const std::string unit = unitOf(controlGroup(readSmall(folder.get(), "cgroup").value_or(""))); !unit.empty())
        found.unit = unit;
    found.name = status->name;
    return found;
}

std::optional<trail::Peer> Callers::of(const SDBusMessage& call) {
    SDBusPeer peer{};
    if (!&SDBusMessage::peerOf || !SDBusMessage::peerOf(call, peer)) return std::nullopt;
    const auto now = Clock::now();
    const auto known = mKnown.find(peer.connection);
    if (known != mKnown.end() && now - known->second.when < kKnownFor) return known->second.peer;
    if (mKnown.size() >= kKnownMost) mKnown.clear();
    return (mKnown[peer.connection] = {lookUp(peer), now}).peer;
}

}  // namespace sd
