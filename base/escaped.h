// Bytes of a file, a path or the bus as a person may see them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace sd {

// `text` with what would break the line, act on the terminal or turn the direction of writing in hexadecimal digits:
// control characters, those of bidirectional text, and bytes that are no UTF-8.
std::string escaped(const std::string& text);

// The beginning of a text of UTF-8 that is longer than so many bytes, between two characters, and dots.
std::string cutAt(std::string_view text, std::size_t most);

// `text` in quotation marks, escaped, and cut where it is long.
std::string quoted(const std::string& text);

// Whether the bytes are UTF-8.
bool isUtf8(const std::string& bytes);

// The text of a JSON value, escaped so that it means what it did: JSON itself leaves those beyond ASCII as they are.
std::string escapedInJson(const std::string& json);

// `text` as one word of a command that a person is to type: in quotation marks where the shell would take it for more.
std::string shellWord(const std::string& text);

}  // namespace sd
