// Bytes of a file, a path or the bus as a person may see them.
#pragma once

#include <string>

namespace apps {

// `text` with its control characters written out: they would break the line, or act on the terminal.
std::string escaped(const std::string& text);

}  // namespace apps
