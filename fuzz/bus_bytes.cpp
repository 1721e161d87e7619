// Bytes as a hostile peer sends them: before the handshake, after it, and as bodies that their signatures belie.
#include <sys/time.h>

#include <array>

#include "fuzz/served.h"

namespace {

enum Mode { kBeforeHandshake, kAfterHandshake, kBody, kModes };

constexpr std::size_t kSignatureMax = 255;

const std::string& handshake() {
    static const std::string sText = std::string(1, '\0') + "AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n";
    return sText;
}

void appendNumber(std::string& bytes, std::size_t number) {
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<char>(number >> shift & 0xff));
}

void align(std::string& bytes) {
    bytes.resize((bytes.size() + 7) / 8 * 8, '\0');
}

// A header's field; D-Bus measures a signature in a byte and other texts in four.
void appendField(std::string& bytes, char code, char kind, const std::string& value) {
    align(bytes);
    bytes += {code, '\1', kind, '\0'};
    if (kind == 'g')
        bytes.push_back(static_cast<char>(value.size()));
    else
        appendNumber(bytes, value.size());
    bytes += value + '\0';
}

std::string framed(const std::string& member, const std::string& signature, const std::string& body) {
    std::string fields(16, '\0');  // stands for the fixed part, so that alignment counts right
    appendField(fields, 1, 'o', "/");
    appendField(fields, 3, 's', member);
    appendField(fields, 8, 'g', signature);
    std::string message{'l', 1, 0, 1};
    appendNumber(message, body.size());
    appendNumber(message, 1);
    appendNumber(message, fields.size() - 16);
    message += fields.substr(16);
    align(message);
    return message + body;
}

// A byte for the method, a length and a signature, and the body.
std::string callOf(const std::string& bytes) {
    constexpr std::array<const char*, 6> kMembers{
        "GET_SECURE", "SET_POLICYLIST", "DM_GET_POLICIES", "DM_REGISTER_LISTERNER", "SET_SECURE", "_hex_6161"};
    if (bytes.size() < 2) return "";
    const auto length = static_cast<unsigned char>(bytes[1]);
    const std::string signature = bytes.substr(2, std::min<std::size_t>(length, kSignatureMax));
    const std::string member = kMembers[static_cast<unsigned char>(bytes[0]) % kMembers.size()];
    return framed(member, signature, bytes.substr(2 + signature.size()));
}

std::string streamOf(Mode mode, const std::string& bytes) {
    switch (mode) {
        case kBeforeHandshake:
            return bytes;
        case kAfterHandshake:
            return handshake() + bytes;
        default:
            return handshake() + callOf(bytes);
    }
}

// Until the service, which has read it all by then, ends the connection.
void send(const std::string& stream) {
    const fuzz::Uninterrupted wait;
    const sdbus::UniqueFd peer = fuzz::Served::get().connect();
    (void)::send(peer.get(), stream.data(), stream.size(), MSG_NOSIGNAL);
    (void)::shutdown(peer.get(), SHUT_WR);
    const timeval patience{8, 0};
    (void)::setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::array<char, 4096> answers;
    ssize_t count = 0;
    while ((count = ::recv(peer.get(), answers.data(), answers.size(), 0)) > 0) continue;
    fuzz::expect(count == 0 || errno == ECONNRESET, "a peer that has said all is let go");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    auto& served = fuzz::Served::get();
    if (size == 0) return 0;
    send(streamOf(static_cast<Mode>(data[0] % kModes), fuzz::text(data + 1, size - 1)));
    served.forgetRows();
    (void)served.ask("GET_CONST", {"name"});
    return 0;
}
