// Damages to a text, the same in each run.
#pragma once

#include <cstddef>
#include <random>
#include <string>
#include <utility>

namespace test {

// One after the other takes some bytes out, doubles some elsewhere, flips a bit, or swaps two bytes, which may be
// alike.
class Damage {
public:
    std::string of(std::string text) {
        const std::size_t at = below(text.size()), length = 1 + below(8);
        switch (mCount++ % 4) {
            case 0:
                return text.erase(at, length);
            case 1:
                return text.insert(at, text.substr(below(text.size()), length));
            case 2:
                text[at] = static_cast<char>(static_cast<unsigned char>(text[at]) ^ 1U << below(8));
                return text;
            default:
                std::swap(text[at], text[below(text.size())]);
                return text;
        }
    }

private:
    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(mRandom); }

    std::mt19937 mRandom{1};
    unsigned mCount = 0;
};

}  // namespace test
