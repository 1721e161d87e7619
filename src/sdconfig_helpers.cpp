#include "src/sdconfig_helpers.h"

#include "src/sdconfig_sealed_row.h"

namespace sd {

std::optional<std::string> sealedText(const SDSecurityRow& row, const std::string& utf8Text) {
    if (utf8Text.empty()) return "";
    std::string envelope = sealForRow(row, utf8Text);
    if (envelope.empty()) return std::nullopt;
    return envelope;
}

bool isUnopenable(const SDSecurityRow& row, const std::string& stored) {
    return !stored.empty() && openForRow(row, stored).empty();
}

}  // namespace sd
