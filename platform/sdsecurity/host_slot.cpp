#include "platform/sdsecurity/host_slot.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/deadline.h"
#include "base/unique_fd.h"
#include "base/wait_ready.h"
#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/seal_protocol.h"
#include "platform/sdsecurity/short_program.h"
#include "platform/sdsecurity/system_error.h"

namespace sd::security {
namespace {

constexpr std::string_view kBySystemd = "user:";
constexpr std::string_view kByService = "seal:";
constexpr std::size_t kMaxReason = 200;

static_assert(seal::kSlotKeySize == kKeySize);
static_assert(kByService.size() + seal::kMaxText <= kMaxSealedSlot);

bool beginsWith(std::string_view text, std::string_view begin) {
    return text.substr(0, begin.size()) == begin;
}

SlotAnswer notNow(std::string reason) {
    return {SlotAnswer::Outcome::NotNow, {}, "", std::move(reason)};
}
SlotAnswer refused(std::string reason) {
    return {SlotAnswer::Outcome::Refused, {}, "", std::move(reason)};
}
SlotAnswer sealedAs(std::string_view provider, std::string_view text) {
    return {SlotAnswer::Outcome::Done, {}, std::string(provider).append(text), ""};
}
SlotAnswer opened(SecretBytes key) {
    return {SlotAnswer::Outcome::Done, std::move(key), "", ""};
}

// As a line may show it, whoever said it.
std::string shown(std::string_view reason) {
    std::string text;
    for (const char one : reason.substr(0, kMaxReason)) text += one >= ' ' && one <= '~' ? one : '?';
    return text;
}

// ---- sdconfig-seal

// Why there is no connection to root's service, or nothing.
std::optional<SlotAnswer> connect(const std::string& path, UniqueFd& connection) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return notNow(path + " is too long for a socket");
    std::memcpy(address.sun_path, path.c_str(), path.size());
    connection.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!connection) return notNow(systemError("socket"));
    if (::connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno == ENOENT || errno == ECONNREFUSED)
            return notNow("nobody seals at " + path + "; sdconfig-seal.socket is not started");
        if (errno == EAGAIN) return notNow("too many wait at " + path);
        return notNow(systemError(path));
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    if (::getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return notNow(systemError("SO_PEERCRED"));
    if (peer.uid != 0)
        return refused(path + " is somebody else's: user " + std::to_string(peer.uid) + " listens there");
    return std::nullopt;
}

// False where the other side doesn't take it.
bool send(int socket, const SecretBytes& line, const Deadline& deadline) {
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t count = ::send(socket, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (count < 0 && errno != EINTR && errno != EAGAIN) return false;
        if (count > 0) done += static_cast<std::size_t>(count);
        if (count < 0 && errno == EAGAIN && !isReadyBy(deadline, socket, POLLOUT)) return false;
    }
    return true;
}

// Up to the other side's end, or more than an answer can be. False where it doesn't come to that in time.
bool receive(int socket, SecretBytes& line, const Deadline& deadline) {
    line.resize(seal::kMaxLine + 1);
    std::size_t size = 0;
    while (size < line.size() && isReadyBy(deadline, socket, POLLIN)) {
        const ssize_t count = ::recv(socket, line.data() + size, line.size() - size, 0);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count < 0 && errno != ECONNRESET) return false;
        if (count <= 0) {
            line.resize(size);
            return true;
        }
        size += static_cast<std::size_t>(count);
    }
    return size == line.size();
}

// What an answer says, if it is one to this request.
SlotAnswer understood(std::string_view line, std::string_view wanted) {
    if (line.empty()) return notNow("sdconfig-seal closed the connection without an answer; its journal tells why");
    const auto garbage = [] { return refused("what answers for sdconfig-seal is no answer of it"); };
    if (line.size() > seal::kMaxLine || line.find('\n') != line.size() - 1) return garbage();
    line.remove_suffix(1);
    if (beginsWith(line, seal::kLater)) return notNow(shown(line.substr(seal::kLater.size())));
    if (beginsWith(line, seal::kRefused)) return refused(shown(line.substr(seal::kRefused.size())));
    if (!beginsWith(line, wanted)) return garbage();
    line.remove_prefix(wanted.size());
    if (wanted == seal::kSealed) return seal::isText(line) ? sealedAs(kByService, line) : garbage();
    SecretBytes key(kKeySize);
    return readHex(line, key) ? opened(std::move(key)) : garbage();
}

SlotAnswer askService(const SecretBytes& request, std::string_view wanted, const std::string& path) {
    const Deadline deadline(seal::kAskingLimit);
    UniqueFd connection;
    if (auto failure = connect(path, connection)) return *failure;
    // One that was refused at once may have left its answer all the same.
    const bool isSent = send(connection.get(), request, deadline);
    SecretBytes answer;
    if (!receive(connection.get(), answer, deadline))
        return notNow("sdconfig-seal did not answer within " + std::to_string(seal::kAskingLimit.count() / 1000) +
                      " s");
    if (!isSent && answer.empty()) return notNow("sdconfig-seal did not take the request");
    return understood({reinterpret_cast<const char*>(answer.data()), answer.size()}, wanted);
}

SecretBytes line(std::string_view word, std::string_view text) {
    SecretBytes line(word.begin(), word.end());
    line.insert(line.end(), text.begin(), text.end());
    line.push_back('\n');
    return line;
}

// ---- systemd for users

// Runs it with what it is to seal or to open. Returns what it printed, or nothing with the failure.
std::optional<SecretBytes> bySystemd(const HostSealers& sealers, const char* command, std::string_view input,
                                     SlotAnswer& failure) {
    const char* const arguments[] = {
        sealers.systemdCreds.c_str(), "--user", command, "--name=sdconfig-slot-key", "-", "-", nullptr};
    const char* const environment[] = {nullptr};
    SecretBytes output(seal::kMaxLine);
    const ProgramEnd end = runShortProgram(arguments, environment, input, reinterpret_cast<char*>(output.data()),
                                           output.size(), Deadline(seal::kAskingLimit));
    output.resize(end.outputSize);
    if (end.how == ProgramEnd::How::Exited && end.exitCode == 0) return output;
    if (end.how == ProgramEnd::How::TooLong) {
        failure = notNow("systemd-creds did not end in time");
    } else if (end.how == ProgramEnd::How::Missing) {
        failure = notNow("systemd-creds is missing");
    } else {  // which of its failures a later try may mend, it does not tell
        failure = refused("systemd-creds: " + shown(end.errorText().substr(0, end.errorText().find('\n'))));
    }
    return std::nullopt;
}

bool isSystemdThere(const HostSealers& sealers) {
    return !sealers.systemSocket.empty() && ::access(sealers.systemSocket.c_str(), F_OK) == 0;
}

// Nothing where systemd does not seal for this user; sdconfig-seal may.
std::optional<SlotAnswer> sealBySystemd(const SecretBytes& key, const HostSealers& sealers) {
    if (!isSystemdThere(sealers)) return std::nullopt;
    SlotAnswer failure;
    const auto output = bySystemd(sealers, "encrypt", {reinterpret_cast<const char*>(key.data()), key.size()}, failure);
    if (!output) return std::nullopt;
    std::string text(output->begin(), output->end());
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    if (!seal::isText(text)) return std::nullopt;
    return sealedAs(kBySystemd, text);
}

SlotAnswer openBySystemd(std::string_view text, const HostSealers& sealers) {
    if (!isSystemdThere(sealers)) return notNow("systemd's service for sealed credentials is not there");
    SlotAnswer failure;
    auto key = bySystemd(sealers, "decrypt", text, failure);
    if (!key) return failure;
    if (key->size() != kKeySize) return refused("what systemd opened is no slot's key");
    return opened(std::move(*key));
}

}  // namespace

SlotAnswer sealByHost(const SecretBytes& key, const HostSealers& sealers) {
    if (key.size() != kKeySize) return refused("it is no slot's key");
    if (auto sealed = sealBySystemd(key, sealers)) return *sealed;
    SecretBytes digits;
    appendHex(key, digits);
    return askService(line(seal::kSeal, {reinterpret_cast<const char*>(digits.data()), digits.size()}), seal::kSealed,
                      sealers.socket);
}

SlotAnswer openByHost(const std::string& sealed, const HostSealers& sealers) {
    const bool isOfService = beginsWith(sealed, kByService);
    if (!isOfService && !beginsWith(sealed, kBySystemd)) return refused("it was sealed by something unknown here");
    const std::string_view text = std::string_view(sealed).substr(kByService.size());
    if (!seal::isText(text)) return refused("it is nothing that was sealed");
    return isOfService ? askService(line(seal::kOpen, text), seal::kKey, sealers.socket) : openBySystemd(text, sealers);
}

}  // namespace sd::security
