// The text of a page, in which nothing but the program's own text is markup.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace cli {

// What a page has of a text, in bytes; the rest is counted.
inline constexpr std::size_t kMostOfText = 1000;

class Markup {
public:
    // Markup is what stands in this program as a literal.
    template <std::size_t size>
    Markup& operator<<(const char (&literal)[size]) {
        mText.append(literal, size - 1);
        return *this;
    }

    // Everything else comes out as text, of an element or of an attribute in double quotation marks: whatever its
    // bytes, it begins no element and no reference, ends no attribute, turns no direction of writing, and is visible.
    Markup& text(const std::string& bytes);
    Markup& whole(const std::string& bytes);  // however long it is
    Markup& number(std::size_t number);

    // The name by which a link leads to something called so; without a character that would need quotation marks. The
    // same for the same bytes, in every report.
    Markup& name(const std::string& bytes);

    // A piece of a template that was built in.
    struct BuiltIn {
        std::string_view text;
    };
    Markup& operator<<(BuiltIn piece);

    bool isEmpty() const { return mText.empty(); }
    const std::string& get() const { return mText; }

private:
    std::string mText;
};

}  // namespace cli
