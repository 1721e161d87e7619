#include "src/sdconfig_helpers.h"

#include "src/sdconfig_sealed_row.h"

namespace sd {

std::optional<std::string> sealedText(const SDSecurityRow& row, const std::string& utf8Text) {
    // That takes no key. But what stands there may be in force, which nobody can tell as long as the ring is locked.
    if (utf8Text.empty()) return isRingLocked() ? std::nullopt : std::optional<std::string>("");
    std::string envelope = sealForRow(row, utf8Text);
    if (envelope.empty()) return std::nullopt;
    return envelope;
}

bool isUnopenable(const SDSecurityRow& row, const std::string& stored) {
    return !stored.empty() && openForRow(row, stored).empty();
}

}  // namespace sd
