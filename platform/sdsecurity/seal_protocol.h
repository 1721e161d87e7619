// What the asking side of a slot and sdconfig-seal say to each other over a socket, one line each way, then the end:
//     seal <key, 64 digits>    is answered with    sealed <text>
//     open <text>                                  key <64 digits>
// or, where that can't be done, with "later <reason>" or "refused <reason>": a later try may succeed, or none will.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

namespace sd::security::seal {

constexpr std::string_view kSeal = "seal ";
constexpr std::string_view kOpen = "open ";
constexpr std::string_view kSealed = "sealed ";
constexpr std::string_view kKey = "key ";
constexpr std::string_view kLater = "later ";
constexpr std::string_view kRefused = "refused ";

constexpr std::size_t kSlotKeySize = 32;
constexpr std::size_t kMaxText = 8000;  // of what was sealed: base64, without a blank
constexpr std::size_t kMaxLine = 8100;  // with what stands before it, and the line feed

// Whoever asks waits so long, and sdconfig-seal answers before that, if only that it could not.
constexpr std::chrono::milliseconds kAskingLimit{5000};
constexpr std::chrono::milliseconds kAnsweringLimit{4500};

inline bool isText(std::string_view text) {
    constexpr std::string_view kBase64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
    return !text.empty() && text.size() <= kMaxText && text.find_first_not_of(kBase64) == std::string_view::npos;
}

}  // namespace sd::security::seal
