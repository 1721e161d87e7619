// What a policy's value and priority can be, so that what is written reads back as it was.
#pragma once

#include <optional>
#include <string>

namespace cli {

constexpr int kHighestPriority = 127;

// Why the value, UTF-8, can't be stored so that it reads back; "" where it can.
std::string unfitPolicyValue(const std::string& value);

// What has to be sent for a fit value: the store reads Latin-1 and keeps UTF-8.
std::string policyBytes(const std::string& value);

// A decimal from 0 to 127.
std::optional<int> parsePriority(const std::string& text);

}  // namespace cli
