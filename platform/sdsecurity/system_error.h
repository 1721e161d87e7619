// What a call to the system says of its failure.
#pragma once

#include <cerrno>
#include <string>
#include <system_error>

namespace sd::security {

// "what: the text of errno".
inline std::string systemError(const std::string& what) {
    return what + ": " + std::error_code(errno, std::generic_category()).message();
}

}  // namespace sd::security
