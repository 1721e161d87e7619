// Whom the command line acts for.
#pragma once

#include <string>

namespace cli {

// Makes this process one of the user's, for good: ids, groups and environment. For root alone. Returns the exit code;
// where it isn't kDone, that was told.
int actAs(const std::string& name);

// Whom actAs() made this process act for; "" for itself.
const std::string& actedUser();

// The name of the user to whom $XDG_RUNTIME_DIR belongs, where that is another one and this process is root's; else "".
std::string ownerOfRuntimeFolder();

}  // namespace cli
