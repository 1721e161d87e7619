// What a changed folder of the machine's policies would change for the users whose services run.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "apps/sdconfig/terminal/output.h"

namespace cli {

struct UsersChanges {
    std::string user;
    std::vector<std::string> lines;  // for a person; never a value that was set locally
    Object changes = Object::array();
    std::string problem;  // why it can't be told; else ""
};

// Asks the service of each user, as root, or else that of this user; changes nothing. Of a host's own service nothing
// is told. text: what the file of that name would hold; nothing: it would be gone.
std::vector<UsersChanges> rehearse(const std::string& folder, const std::string& name,
                                   const std::optional<std::string>& text);

}  // namespace cli
