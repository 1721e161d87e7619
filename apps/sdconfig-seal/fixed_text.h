// A text of bounded length, in place and wiped at its end: it may be key material.
#pragma once

#include <cstring>
#include <string_view>

namespace seal {

template <std::size_t kRoom>
class FixedText {
public:
    using value_type = char;

    FixedText() = default;
    ~FixedText() { ::explicit_bzero(mBytes, sizeof mBytes); }
    FixedText(const FixedText&) = delete;
    FixedText& operator=(const FixedText&) = delete;

    std::string_view view() const { return {mBytes, mSize}; }
    const char* text() const { return mBytes; }  // up to the first zero byte, which stands behind the last one
    bool isCut() const { return mIsCut; }        // more was added than there is room for

    void push_back(char one) {
        if (mSize == kRoom) {
            mIsCut = true;
        } else {
            mBytes[mSize++] = one;
        }
    }
    FixedText& add(std::string_view more) {
        for (const char one : more) push_back(one);
        return *this;
    }
    FixedText& add(unsigned long long number) {
        char digits[20];
        std::size_t first = sizeof digits;
        do {
            digits[--first] = static_cast<char>('0' + number % 10);
            number /= 10;
        } while (number != 0);
        return add({digits + first, sizeof digits - first});
    }

    // To be filled by somebody who tells afterwards how much he took.
    char* room() { return mBytes + mSize; }
    std::size_t roomSize() const { return kRoom - mSize; }
    void grow(std::size_t size) { mSize += size; }
    void cut(std::size_t size) { mSize = size; }

private:
    char mBytes[kRoom + 1]{};
    std::size_t mSize = 0;
    bool mIsCut = false;
};

}  // namespace seal
