// What the machine's own key seals, and its TPM where there is one: by systemd-creds, for one user each.
#pragma once

#include <sys/types.h>

#include <array>
#include <string_view>

#include "apps/sdconfig-seal/fixed_text.h"
#include "base/deadline.h"
#include "platform/sdsecurity/seal_protocol.h"

namespace seal {

using namespace sd::security::seal;

// What systemd-creds is told of the machine, by whoever starts this program.
struct MachineOptions {
    const char* withKey = "--with-key=auto";  // the host's key, and the TPM's with it where there is one
    const char* tpmDevice = nullptr;          // "--tpm2-device=...", or systemd-creds looks for one
    const char* tpmRegisters = nullptr;       // "--tpm2-pcrs=...", or systemd-creds takes those it takes
};

struct SlotKey {
    std::array<unsigned char, kSlotKeySize> bytes{};

    ~SlotKey() { ::explicit_bzero(bytes.data(), bytes.size()); }
};

struct Outcome {
    std::string_view word;    // kSealed or kKey where it is done; kLater, kRefused
    const char* reason = "";  // why it is not
    bool isFault = false;     // of this machine, for its administrator

    bool isDone() const { return word == kSealed || word == kKey; }
};

Outcome sealFor(uid_t user, const SlotKey& key, const MachineOptions& options, const sd::Deadline& deadline,
                FixedText<kMaxText>& sealed);
Outcome openFor(uid_t user, std::string_view sealed, const MachineOptions& options, const sd::Deadline& deadline,
                SlotKey& key);

}  // namespace seal
