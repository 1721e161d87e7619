#include "src/sdconfig_helpers.h"

#include <QString>

#include "platform/sdsecurity/sdsecurity.h"

namespace sd {

std::string latin1ToUtf8(const std::string& bytes) {
    return QString::fromLatin1(bytes.c_str()).toUtf8().toStdString();
}

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
