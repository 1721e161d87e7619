#include "src/sdconfig_helpers.h"

#include "platform/sdsecurity/sdsecurity.h"

namespace sd {

std::optional<std::string> sealedText(const std::string& utf8Text) {
    if (utf8Text.empty()) return "";
    std::string envelope = SDSecurity::GetInstance()->FastEncrypt(utf8Text);
    if (envelope.empty()) return std::nullopt;
    return envelope;
}

bool isUnopenable(const std::string& stored) {
    return !stored.empty() && SDSecurity::GetInstance()->FastDecrypt(stored).empty();
}

}  // namespace sd
