// SipHash-2-4, a short keyed hash.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace velmarlog {

using SipKey = std::array<std::uint64_t, 2>;

// Who has not the key can neither foresee a hash nor find by trying which text has one.
std::uint64_t sipHash(const SipKey& key, std::string_view text);

}  // namespace velmarlog
