// Method and event names as D-Bus member names, one to one.
#pragma once

#include <optional>
#include <string>

namespace sdbus {

// A name that D-Bus takes as a member name travels as it is; any other, and one that begins with the prefix "_hex_",
// as that prefix and the lower-case hex of its bytes. Nullopt for a name that is too long for that.
std::optional<std::string> encodeName(const std::string& name);

// The name that travelled as `member`; nullopt where encodeName() would not have made this member.
std::optional<std::string> decodeName(const std::string& member);

}  // namespace sdbus
