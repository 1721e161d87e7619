// SipHash-2-4: a short keyed digest of a short text, for a hundredth of what a digest of OpenSSL costs to set up.
#pragma once

#include <cstdint>
#include <string_view>

namespace sd::security {

// key: 16 bytes.
std::uint64_t sipHash(const unsigned char* key, std::string_view text);

}  // namespace sd::security
