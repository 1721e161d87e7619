#include "apps/sdconfig-seal/machine_key.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/sdsecurity/hex.h"
#include "platform/sdsecurity/short_program.h"

namespace seal {
namespace {

using sd::security::ProgramEnd;

// Credentials with this kind at their begin are sealed with a key that everybody knows; systemd-creds opens them on
// machines without a TPM.
constexpr std::string_view kSealedWithNoKey = "BYRp2vb1QySABUnaD46i";  // of 20 digits for 15 bytes of 16

constexpr std::string_view kPlainBegin = "sdconfig slot key 1\n";
using Plain = FixedText<kPlainBegin.size() + 10 + 1 + 2 * kSlotKeySize + 1>;

// The user stands inside as well as in the credential's name: systemd-creds opens one without a name under any.
void addOwner(uid_t user, Plain& plain) {
    plain.add(kPlainBegin).add(user).add("\n");
}

// What systemd-creds says of what it could not do, and what that means for who asked.
struct Meaning {
    std::string_view said;
    Outcome outcome;
};
constexpr Meaning kMeanings[] = {
    {"does not match filename", {kRefused, "it was sealed for another user"}},
    {"in dictionary attack lockout mode", {kLater, "the TPM is locked for some time"}},
    {"tpm:warn(2.0)", {kLater, "the TPM can't do it now"}},  // it is busy, or has no memory left
    {"TPM2 support is not installed", {kLater, "the libraries for the TPM are missing (libtss2-esys)", true}},
    {"TPM2 support not installed", {kLater, "the libraries for the TPM are missing (libtss2-esys)", true}},
    {"No TPM2 (tpmrm) device found", {kRefused, "it was sealed with a TPM, and there is none"}},
    {"Failed to initialize TCTI context", {kRefused, "it was sealed with a TPM, and none answers"}},
    {"no encryption key available",
     {kRefused, "there is neither a TPM nor a lasting place for a key in /var/lib/systemd", true}},
};

void tellAdministrator(std::string_view text) {
    FixedText<600> line;
    for (const char one : text.substr(0, 500)) line.push_back(one >= ' ' && one <= '~' ? one : ' ');
    std::fprintf(stderr, "<4>systemd-creds: %s\n", line.text());
}

// Why there is no result, where `other` is what a failure means of which nothing better is known.
Outcome failureOf(const ProgramEnd& end, const Outcome& other) {
    switch (end.how) {
        case ProgramEnd::How::Missing:
            return {kLater, "systemd-creds is missing", true};
        case ProgramEnd::How::TooLong:
            return {kLater, "systemd-creds did not end in time", true};
        case ProgramEnd::How::TooMuch:
            return {kRefused, "systemd-creds gave more than can be taken", true};
        case ProgramEnd::How::Failed:
            return {kLater, "systemd-creds could not be run", true};
        case ProgramEnd::How::Exited:
            break;
    }
    tellAdministrator(end.errorText());
    for (const Meaning& meaning : kMeanings)
        if (end.errorText().find(meaning.said) != std::string_view::npos) return meaning.outcome;
    return other;
}

// Runs "systemd-creds COMMAND" for the user's credential.
template <std::size_t kRoom>
ProgramEnd run(const char* command, uid_t user, const MachineOptions& options, std::string_view input,
               FixedText<kRoom>& output, const sd::Deadline& deadline) {
    const bool seals = std::strcmp(command, "encrypt") == 0;
    FixedText<64> name;
    name.add("--name=sdconfig-slot-key-").add(user);
    std::array<const char*, 9> arguments{SYSTEMD_CREDS, command, name.text()};
    std::size_t count = 3;
    if (seals) arguments[count++] = options.withKey;
    if (options.tpmDevice) arguments[count++] = options.tpmDevice;
    if (seals && options.tpmRegisters) arguments[count++] = options.tpmRegisters;
    arguments[count++] = "-";
    arguments[count++] = "-";

    // Where the host's key lies, if that is told as systemd's own programs are told.
    FixedText<512> secret;
    const char* const path = std::getenv("SYSTEMD_CREDENTIAL_SECRET");
    if (path) secret.add("SYSTEMD_CREDENTIAL_SECRET=").add(path);
    const char* const environment[] = {path && !secret.isCut() ? secret.text() : nullptr, nullptr};

    ProgramEnd end =
        sd::security::runShortProgram(arguments.data(), environment, input, output.room(), output.roomSize(), deadline);
    output.grow(end.outputSize);
    return end;
}

bool isDone(const ProgramEnd& end) {
    return end.how == ProgramEnd::How::Exited && end.exitCode == 0;
}

}  // namespace

Outcome sealFor(uid_t user, const SlotKey& key, const MachineOptions& options, const sd::Deadline& deadline,
                FixedText<kMaxText>& sealed) {
    Plain plain;
    addOwner(user, plain);
    sd::security::appendHex(key.bytes, plain);
    plain.add("\n");
    FixedText<kMaxLine> lines;
    const ProgramEnd end = run("encrypt", user, options, plain.view(), lines, deadline);
    if (!isDone(end)) return failureOf(end, {kLater, "systemd-creds could not seal; the journal tells why", true});
    for (const char one : lines.view())
        if (one != '\n') sealed.push_back(one);
    if (sealed.isCut() || !isText(sealed.view()))
        return {kLater, "systemd-creds gave nothing that could be kept", true};
    return {kSealed};
}

Outcome openFor(uid_t user, std::string_view sealed, const MachineOptions& options, const sd::Deadline& deadline,
                SlotKey& key) {
    if (sealed.substr(0, kSealedWithNoKey.size()) == kSealedWithNoKey)
        return {kRefused, "it was sealed with no machine's key"};
    Plain plain, expected;
    const ProgramEnd end = run("decrypt", user, options, sealed, plain, deadline);
    if (!isDone(end)) {
        return failureOf(end,
                         {kRefused, "it was sealed by another machine or another state of its TPM, or was changed"});
    }
    addOwner(user, expected);
    const std::string_view text = plain.view();
    const std::size_t begin = expected.view().size();
    if (text.substr(0, kPlainBegin.size()) != kPlainBegin) return {kRefused, "it is no slot's key"};
    if (text.substr(0, begin) != expected.view()) return {kRefused, "it was sealed for another user"};
    const bool isWhole = text.size() == begin + 2 * kSlotKeySize + 1 && text.back() == '\n' &&
                         sd::security::readHex(text.substr(begin, 2 * kSlotKeySize), key.bytes);
    return isWhole ? Outcome{kKey} : Outcome{kRefused, "it is no slot's key"};
}

}  // namespace seal
