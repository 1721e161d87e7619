// What is kept, and of which keys the log tells values: for the stores, the client and the programs.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>

namespace sd {

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

}  // namespace sd
