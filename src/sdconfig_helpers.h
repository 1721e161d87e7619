// Small pieces that the stores, the service and the client share.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>

namespace sd {

// The version of sdconfig.db that this code writes, as its row has it.
inline constexpr char kDatabaseVersion[] = "3";

// The two keys that identify the device: the only ones whose values are ever logged.
inline bool isIdentityKey(const std::string& key) {
    return key == "ro.sd.uuid" || key == "ro.sd.client.id";
}

// A key that SQLite would take for another: its comparison ends at a zero byte. Such keys are not kept.
inline bool holdsZeroByte(const std::string& key) {
    return key.find('\0') != std::string::npos;
}

// The longest key and value that are kept; of a value counts what stands before its first zero byte. The service has
// one thread, and all clients wait while it seals, stores and reads back a value: 16 MiB take it a second.
inline constexpr std::size_t kKeyBytesMax = std::size_t{64} << 10;
inline constexpr std::size_t kValueBytesMax = std::size_t{16} << 20;

// Why the key, or the value, can't be kept, to go with the key in a log line; null when it can.
inline const char* keepingProblem(const std::string& key, const std::string& value) {
    if (holdsZeroByte(key)) return "holds a zero byte";
    if (key.size() > kKeyBytesMax) return "is longer than 64 KiB";
    return std::strlen(value.c_str()) > kValueBytesMax ? "has a value longer than 16 MiB" : nullptr;
}

// What is stored of a text: its envelope, "" for an empty one; nothing when the security layer could not seal it.
std::optional<std::string> sealedText(const std::string& utf8Text);

// Whether there is a stored text, and the security layer can't open it.
bool isUnopenable(const std::string& stored);

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
