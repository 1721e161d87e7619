// Bytes of a file, a path or the bus as a person may see them.
#pragma once

#include <string>

namespace apps {

// `text` with what would break the line, act on the terminal or turn the direction of writing in hexadecimal digits:
// control characters, those of bidirectional text, and bytes that are no UTF-8.
std::string escaped(const std::string& text);

// The same for the text of a JSON value, which means what it did: JSON itself leaves those beyond ASCII as they are.
std::string escapedInJson(const std::string& json);

// `text` as one word of a command that a person is to type: in quotation marks where the shell would take it for more.
std::string shellWord(const std::string& text);

}  // namespace apps
