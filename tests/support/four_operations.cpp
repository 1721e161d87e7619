// A security layer of a host's own that has four operations and knows no rows. It seals by writing a word before the
// text, so that a test sees who did it.
#include "platform/sdsecurity/sdsecurity.h"

namespace sd {

struct SDSecurity::State {};
SDSecurity::SDSecurity() = default;
SDSecurity::~SDSecurity() = default;

SDSecurity* SDSecurity::GetInstance() {
    static SDSecurity instance;
    return &instance;
}
std::string SDSecurity::FastEncrypt(const std::string& plain) {
    return "host:" + plain;
}
std::string SDSecurity::FastDecrypt(const std::string& cipher) {
    return cipher.substr(5);
}
std::string SDSecurity::GetString(const std::string& /*name*/) {
    return "";
}

}  // namespace sd
