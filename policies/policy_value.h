// What a policy's value and priority can be, so that what is written reads back as it was.
#pragma once

#include <optional>
#include <string>

namespace sd {

constexpr int kHighestPriority = 127;

// Why the value can't be stored so that it reads back; "" where it can.
std::string unfitPolicyValue(const std::string& value);

// A decimal from 0 to 127.
std::optional<int> parsePriority(const std::string& text);

}  // namespace sd
