// Small pieces that the stores, the service and the client share.
#pragma once

#include <chrono>
#include <string>

namespace sd {

// The two keys that identify the device: the only ones whose values are ever logged.
inline bool isIdentityKey(const std::string& key) {
    return key == "ro.sd.uuid" || key == "ro.sd.client.id";
}

// A key that SQLite would take for another: its comparison ends at a zero byte. Such keys are not stored.
inline bool holdsZeroByte(const std::string& key) {
    return key.find('\0') != std::string::npos;
}

// Reads the bytes up to the first zero byte as Latin-1 and returns them as UTF-8.
std::string latin1ToUtf8(const std::string& bytes);

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
