// How a value is sealed for the row that it stands in, whichever security layer there is.
#pragma once

#include <new>
#include <string>
#include <string_view>

#include "platform/sdsecurity/sdsecurity.h"
#include "src/sdconfig_store_folder.h"

namespace sd {

inline constexpr char kSecureTable[] = "secure_v3";
inline constexpr char kPolicyTable[] = "dmhelperconfig";

inline SDSecurityRow secureRow(std::string_view key) {
    return {kConfigFile, kSecureTable, key};
}
inline SDSecurityRow policyRow(std::string_view uri) {
    return {kPolicyFile, kPolicyTable, uri};
}

// False with a host's own security layer that knows no rows: its values open in any.
inline bool isLayerBinding() {
    return &SDSecurity::EncryptForRow && &SDSecurity::DecryptForRow;
}

// As the security layer's own operations, and as those without a row where it has no others.
inline std::string sealForRow(const SDSecurityRow& row, const std::string& plain) {
    if (isLayerBinding()) return SDSecurity::EncryptForRow(row, plain);
    return SDSecurity::GetInstance()->FastEncrypt(plain);
}
// Opening raises std::bad_alloc where there was no memory for it: else a policy that could not be read would govern
// nothing.
inline std::string openForRow(const SDSecurityRow& row, const std::string& cipher,
                              SDSecurity::OpenResult* why = nullptr) {
    if (isLayerBinding()) {
        auto result = SDSecurity::OpenResult::Done;
        std::string plain = SDSecurity::DecryptForRow(row, cipher, &result);
        if (result == SDSecurity::OpenResult::Failed) throw std::bad_alloc();
        if (why) *why = result;
        return plain;
    }
    std::string plain = SDSecurity::GetInstance()->FastDecrypt(cipher);
    if (why) *why = plain.empty() ? SDSecurity::OpenResult::Changed : SDSecurity::OpenResult::Done;
    return plain;
}

// Whether there is a key ring that nothing opens now. Waits where it is being opened.
inline bool isRingLocked() {
    // One operation stands for all that a host's own layer may lack.
    return &SDSecurity::SealOf && SDSecurity::GetInstance()->CheckKeyRing().state == SDSecurity::KeyRingState::Locked;
}

// The id of the key that seals; "" where the ring can't be used, as a line has told. Of a layer that has keys alone.
inline std::string sealingKey() {
    for (const SDSecurity::KeyInfo& key : SDSecurity::GetInstance()->Keys())
        if (key.state == SDSecurity::KeyState::Sealing) return key.id;
    return "";
}

}  // namespace sd
