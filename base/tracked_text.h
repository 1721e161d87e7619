// Hands out the bytes of a text to a parser, and knows in which line that is.
#pragma once

#include <cstddef>
#include <iterator>

namespace sd {

// Where the parser is. It reads one byte beyond a number, and never beyond a text.
struct TextPosition {
    int line = 1;
    char last = 0;
    bool atEnd = false;

    int lineOfToken() const { return last == '\n' ? line - 1 : line; }
};

class TrackingIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    TrackingIterator(const char* at, const char* end, TextPosition* position)
        : mAt(at), mEnd(end), mPosition(position) {}
    reference operator*() const { return *mAt; }
    TrackingIterator& operator++() {
        mPosition->last = *mAt;
        if (*mAt == '\n') ++mPosition->line;
        mPosition->atEnd = ++mAt == mEnd;
        return *this;
    }
    TrackingIterator operator++(int) {
        TrackingIterator before = *this;
        ++*this;
        return before;
    }
    bool operator==(const TrackingIterator& other) const { return mAt == other.mAt; }
    bool operator!=(const TrackingIterator& other) const { return mAt != other.mAt; }

private:
    const char* mAt;
    const char* mEnd;
    TextPosition* mPosition;
};

}  // namespace sd
