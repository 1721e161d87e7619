// Which strings may travel as a D-Bus string.
#pragma once

#include <string>

namespace sdbus {

// Whether `text` is valid UTF-8 without a zero byte and without noncharacters: sd-bus refuses the last two, such as
// U+FFFE, although Unicode allows noncharacters in interchange.
bool isWireText(const std::string& text);

}  // namespace sdbus
