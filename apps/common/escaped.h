// Bytes of a file, a path or the bus as a person may see them.
#pragma once

#include <string>

namespace apps {

// `text` with its control characters written out: they would break the line, or act on the terminal.
std::string escaped(const std::string& text);

// `text` as one word of a command that a person is to type: in quotation marks where the shell would take it for more.
std::string shellWord(const std::string& text);

}  // namespace apps
