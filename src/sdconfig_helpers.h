// Small pieces that the stores and the service share.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "base/limits.h"
#include "platform/sdsecurity/sdsecurity.h"

namespace sd {

// The version of sdconfig.db that this code writes, as its row has it.
inline constexpr char kDatabaseVersion[] = "3";

// What a row stores of a text: its envelope, "" for an empty one; nothing when the security layer could not seal it.
std::optional<std::string> sealedText(const SDSecurityRow& row, const std::string& utf8Text);

// Whether there is a stored text, and the security layer can't open it in its row.
bool isUnopenable(const SDSecurityRow& row, const std::string& stored);

// Measures an operation for its timing line.
class Stopwatch {
public:
    // Whole milliseconds since construction.
    int elapsedMs() const {
        const auto elapsed = std::chrono::steady_clock::now() - mStart;
        return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
    }

private:
    std::chrono::steady_clock::time_point mStart = std::chrono::steady_clock::now();
};

}  // namespace sd
