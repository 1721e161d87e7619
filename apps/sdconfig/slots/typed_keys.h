// Keys of slots, made of what a person types.
#pragma once

#include <optional>
#include <string>

#include "apps/sdconfig/backup/backup_seal.h"
#include "apps/sdconfig/terminal/messages.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace cli {

// Asks for what is needed, one after the other, and has the security layer stretch it: half a second each, in this
// process, so that the service goes on serving. Each returns why there is no such key.
class TypedKeys {
public:
    // A new recovery code. Shown at the terminal, and taken from there again, which is tried three times; with
    // printed, it is for the caller to print, once it is in force.
    Problem makeCode(bool printed);
    // A new passphrase; at a terminal it is asked for twice.
    Problem makePassphrase();
    // That of the ring in the folder that the security layer was told.
    Problem takePassphrase();
    Problem takeCode();

    sd::SDSecurity::SlotKeys slotKeys() const;
    const std::string& code() const { return mCode; }  // that is to be printed, or ""

private:
    using Kind = sd::SDSecurity::SlotKind;
    using Use = sd::SDSecurity::SlotUse;
    static Problem stretch(Kind kind, Use use, const std::string& typed, std::optional<SecretText>& key);

    std::optional<SecretText> mRecovery;
    std::optional<SecretText> mPassphrase;
    std::string mCode;
};

}  // namespace cli
