// The recovery code: 130 random bits as 26 letters, and 2 letters that tell a code that was mistyped.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/sdsecurity/key_ring.h"

namespace sd::security {

// A fresh one, as it is shown: 7 groups of 4, of digits and capital letters without I, L, O and U, with dashes between.
// Throws CryptoFailure.
SecretBytes makeRecoveryCode();

// The code without its dashes, however it was typed: in any letter case, with blanks and dashes anywhere, O for 0, I
// and L for 1. Nothing, with the reason, where it is none: the check letters find each wrong letter and each two
// neighbours that were swapped.
std::optional<SecretBytes> recoveryCodeOf(std::string_view typed, std::string& reason);

}  // namespace sd::security
